// SPDX-License-Identifier: Apache-2.0
// Reading and writing frames on a loopback TCP connection, measured against
// the simplest way of doing the same: one receive call per byte and one send
// call per piece of a frame. Both sides of each pair run in the same process
// and the same run, so compare their ratios, not absolute times.
//
//   ./bench/bench_transport --benchmark_repetitions=3 --benchmark_report_aggregates_only=true
#include "transport/FrameParser.h"
#include "transport/StompConnection.h"

#include <benchmark/benchmark.h>

#include <apr_network_io.h>

#include <arpa/inet.h>
#include <atomic>
#include <cstring>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using tavren::internal::ClientFrame;
using tavren::internal::FrameParser;
using tavren::internal::ServerFrame;
using tavren::internal::StompConnection;

namespace {

// A listening socket on 127.0.0.1 and the one connection it accepts.
class Peer {
public:
    Peer() {
        listenFd = ::socket(AF_INET, SOCK_STREAM, 0);
        struct sockaddr_in a = {};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::bind(listenFd, reinterpret_cast<sockaddr*>(&a), sizeof a);
        ::listen(listenFd, 4);
        socklen_t len = sizeof a;
        ::getsockname(listenFd, reinterpret_cast<sockaddr*>(&a), &len);
        port = ntohs(a.sin_port);
    }
    ~Peer() {
        if (fd >= 0) ::close(fd);
        ::close(listenFd);
    }
    void accept() { fd = ::accept(listenFd, nullptr, nullptr); }

    // Sends the same bytes over and over until told to stop or the reader goes away.
    void produce(const std::string& bytes, std::atomic<bool>* stop) {
        while (!*stop)
            if (::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) <= 0) return;
    }
    // Reads and drops everything until the writer goes away.
    void drain() {
        char buf[65536];
        while (::recv(fd, buf, sizeof buf, 0) > 0) {
        }
    }
    void shutdown() { ::shutdown(fd, SHUT_RDWR); }

    int listenFd = -1;
    int fd = -1;
    int port = 0;
};

std::string messageBytes(size_t bodySize) {
    const std::string body(bodySize, 'm');
    return "MESSAGE\ndestination:/queue/bench\nmessage-id:ID:bench-1234-5678\nsubscription:sub-0\n"
           "content-type:text/plain\ncontent-length:" +
           std::to_string(body.size()) + "\n\n" + body + std::string("\0\n", 2);
}

class BenchFrame : public ClientFrame {
public:
    explicit BenchFrame(const char* text) {
        command_ = "SEND";
        headers_["content-length"] = std::to_string(std::strlen(text));
        headers_["content-type"] = "text/plain";
        headers_["destination"] = "/queue/bench";
        headers_["persistent"] = "true";
        headers_["priority"] = "4";
        body_ = text;
    }
};

// The simplest reader: one apr_socket_recv per byte, each byte handed to the parser.
class PerByteReader {
public:
    explicit PerByteReader(int port) {
        apr_pool_create(&pool, nullptr);
        apr_sockaddr_info_get(&address, "127.0.0.1", APR_INET, static_cast<apr_port_t>(port), 0, pool);
        apr_socket_create(&socket, APR_INET, SOCK_STREAM, APR_PROTO_TCP, pool);
        apr_socket_connect(socket, address);
    }
    ~PerByteReader() { apr_pool_destroy(pool); }

    ServerFrame* read() {
        for (;;) {
            char c;
            apr_size_t one = 1;
            if (apr_socket_recv(socket, &c, &one) != APR_SUCCESS) return nullptr;
            if (one != 1) continue;
            size_t used = 0;
            if (parser.parse(&c, 1, &used) == FrameParser::COMPLETE) return parser.takeFrame();
        }
    }

    // The simplest writer: one apr_socket_send per piece of the frame.
    apr_status_t write(const ClientFrame& frame) {
        apr_status_t rc = send(frame.command().data(), frame.command().size());
        if (rc == APR_SUCCESS) rc = send("\n", 1);
        for (const auto& h : frame.headers()) {
            if (rc == APR_SUCCESS) rc = send(h.first.data(), h.first.size());
            if (rc == APR_SUCCESS) rc = send(":", 1);
            if (rc == APR_SUCCESS) rc = send(h.second.data(), h.second.size());
            if (rc == APR_SUCCESS) rc = send("\n", 1);
        }
        if (rc == APR_SUCCESS) rc = send("\n", 1);
        if (rc == APR_SUCCESS && frame.body()) rc = send(frame.body(), std::strlen(frame.body()));
        if (rc == APR_SUCCESS) rc = send("\0\n", 2);
        return rc;
    }

private:
    apr_status_t send(const char* data, apr_size_t length) {
        while (length > 0) {
            apr_size_t n = length;
            apr_status_t rc = apr_socket_send(socket, data, &n);
            if (rc != APR_SUCCESS) return rc;
            data += n;
            length -= n;
        }
        return APR_SUCCESS;
    }

    apr_pool_t* pool = nullptr;
    apr_sockaddr_t* address = nullptr;
    apr_socket_t* socket = nullptr;
    FrameParser parser;
};

// Reads state.iterations() MESSAGE frames (skipping the heart-beat line feeds
// between them) with nextFrame, while a producer thread keeps sending them.
template <typename NextFrame>
void readFrames(benchmark::State& state, Peer& peer, NextFrame nextFrame) {
    const std::string one = messageBytes(static_cast<size_t>(state.range(0)));
    std::string batch;
    for (int i = 0; i < 16; ++i) batch += one;
    std::atomic<bool> stop{false};
    std::thread producer([&] { peer.produce(batch, &stop); });
    for (auto _ : state) {
        ServerFrame* f = nullptr;
        do {
            delete f;
            f = nextFrame();
        } while (f && f->command().empty());
        if (!f) {
            state.SkipWithError("read failed");
            break;
        }
        benchmark::DoNotOptimize(f->body());
        delete f;
    }
    stop = true;
    peer.shutdown();
    producer.join();
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(one.size()));
}

// Writes a SEND frame with five headers per iteration while a thread drains the peer.
template <typename Write>
void writeFrames(benchmark::State& state, Peer& peer, Write write) {
    std::thread drain([&] { peer.drain(); });
    const std::string body(static_cast<size_t>(state.range(0)), 'w');
    BenchFrame frame(body.c_str());
    for (auto _ : state)
        if (write(frame) != APR_SUCCESS) state.SkipWithError("write failed");
    peer.shutdown();
    drain.join();
}

void BM_ReadOneRecvPerByte(benchmark::State& state) {
    Peer peer;
    PerByteReader reader(peer.port);
    peer.accept();
    readFrames(state, peer, [&] { return reader.read(); });
}

void BM_ReadBuffered(benchmark::State& state) {
    Peer peer;
    StompConnection connection;
    connection.connect("127.0.0.1", peer.port, nullptr, nullptr);
    peer.accept();
    long long timeout = 5000000;
    readFrames(state, peer, [&] {
        ServerFrame* f = nullptr;
        return connection.read(&f, true, &timeout) == APR_SUCCESS ? f : nullptr;
    });
}

void BM_WriteOneSendPerPiece(benchmark::State& state) {
    Peer peer;
    PerByteReader writer(peer.port);
    peer.accept();
    writeFrames(state, peer, [&](BenchFrame& frame) { return writer.write(frame); });
}

void BM_WriteVectored(benchmark::State& state) {
    Peer peer;
    StompConnection connection;
    connection.connect("127.0.0.1", peer.port, nullptr, nullptr);
    peer.accept();
    writeFrames(state, peer, [&](BenchFrame& frame) { return connection.write(&frame, nullptr); });
}

// Parses the frames of batch over and over, one MESSAGE an iteration. With
// recycle each frame is given back once read, as the listen loop does, and
// heart-beats are passed by as it passes them; without, each frame is
// deleted.
void parseFrames(benchmark::State& state, const std::string& batch, bool recycle) {
    FrameParser parser;
    size_t pos = 0;
    for (auto _ : state) {
        for (;;) {
            if (pos == batch.size()) pos = 0;
            size_t used = 0;
            FrameParser::Result r = parser.parse(batch.data() + pos, batch.size() - pos, &used);
            pos += used;
            if (r != FrameParser::COMPLETE) continue;
            if (recycle && parser.heartbeatReady()) {
                parser.dropHeartbeat();
                continue;
            }
            ServerFrame* f = parser.takeFrame();
            const bool heartBeat = f->command().empty();
            if (recycle)
                parser.recycle(f);
            else
                delete f;
            if (!heartBeat) break;
        }
    }
}

// Parsing alone, without a socket: the cost of the parser per frame.
void BM_ParseFromMemory(benchmark::State& state) {
    std::string batch;
    for (int i = 0; i < 64; ++i) batch += messageBytes(static_cast<size_t>(state.range(0)));
    parseFrames(state, batch, false);
}

// The same with each frame given back once read, for a MESSAGE shaped as
// RabbitMQ sends it (eight headers, the message id repeated in "ack").
void BM_ParseRecycled(benchmark::State& state) {
    const std::string id = "T_0@@session-d7l6E7LvzQAJi8YkpcBw1A@@";
    std::string batch;
    for (int i = 0; i < 64; ++i) {
        const std::string body(static_cast<size_t>(state.range(0)), 'm');
        batch += "MESSAGE\nsubscription:0\ndestination:/queue/bench\nmessage-id:" + id + std::to_string(i) +
                 "\nredelivered:false\nack:" + id + std::to_string(i) + "\nbench-seq:" + std::to_string(i + 1) +
                 "\ncontent-type:text/plain\ncontent-length:" + std::to_string(body.size()) + "\n\n" + body +
                 std::string("\0\n", 2);
    }
    parseFrames(state, batch, true);
}

} // namespace

BENCHMARK(BM_ReadOneRecvPerByte)->Arg(100)->Arg(16 * 1024)->UseRealTime();
BENCHMARK(BM_ReadBuffered)->Arg(100)->Arg(16 * 1024)->UseRealTime();
BENCHMARK(BM_WriteOneSendPerPiece)->Arg(100)->Arg(16 * 1024)->UseRealTime();
BENCHMARK(BM_WriteVectored)->Arg(100)->Arg(16 * 1024)->UseRealTime();
BENCHMARK(BM_ParseFromMemory)->Arg(100)->Arg(16 * 1024);
BENCHMARK(BM_ParseRecycled)->Arg(100);

BENCHMARK_MAIN();
