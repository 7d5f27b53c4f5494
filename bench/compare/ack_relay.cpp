// SPDX-License-Identifier: Apache-2.0
// A relay between one client and the broker, for the receive measurements:
// it forwards the bytes of both directions unchanged and watches the frames
// the client sends. For every ACK and NACK it records the CLOCK_MONOTONIC
// time at which its bytes arrived, keyed by the message it settles
// ("message-id", else "id", else "ack"). This is the moment the ACK left the
// client, the same way for every client, whatever its API tells.
//
//   ack_relay BROKER_HOST BROKER_PORT TARGET ACKFILE
//
// Listens on a free port of 127.0.0.1 and prints "PORT p". Serves one
// client connection. Prints "ACKS count" at most once a second while the
// count grows, "REACHED count time" once TARGET ACKs were seen,
// and at the end (either side closed, or SIGTERM) writes "key time" per ACK to
// ACKFILE and prints "END acks nacks last_ack_time first_subscribe_time". Single-threaded, poll-based,
// non-blocking.

#include "wire.h"

#include <fcntl.h>

#include <string>
#include <utility>
#include <vector>

namespace {

volatile sig_atomic_t stopRequested = 0;
void onSignal(int) { stopRequested = 1; }

// Scans the client's byte stream for frame boundaries without copying the
// forwarded data: only frame heads are looked at.
class ClientStream {
public:
    std::vector<std::pair<std::string, double>> acks;
    long nacks = 0;
    double lastAck = 0;
    double firstSubscribe = 0;

    void feed(const char* data, size_t size, double at) {
        pending.append(data, size);
        size_t pos = 0;
        for (;;) {
            while (pos < pending.size() && (pending[pos] == '\n' || pending[pos] == '\r')) ++pos;
            if (pos >= pending.size()) break;
            size_t headEnd = pending.find("\n\n", pos);
            if (headEnd == std::string::npos) break;
            std::string_view head(pending.data() + pos, headEnd - pos);
            wire::Frame f;
            size_t cmdEnd = head.find('\n');
            if (cmdEnd == std::string_view::npos) cmdEnd = head.size();
            f.command = head.substr(0, cmdEnd);
            if (!f.command.empty() && f.command.back() == '\r') f.command.remove_suffix(1);
            f.headerBlock = cmdEnd < head.size() ? head.substr(cmdEnd + 1) : std::string_view();
            size_t bodyStart = headEnd + 2;
            size_t frameEnd;
            std::string_view length = f.header("content-length");
            if (!length.empty()) {
                frameEnd = bodyStart + std::strtoul(std::string(length).c_str(), nullptr, 10);
                if (frameEnd >= pending.size()) break;
            } else {
                frameEnd = pending.find('\0', bodyStart);
                if (frameEnd == std::string::npos) break;
            }
            if (f.command == "ACK") {
                std::string_view key = f.header("message-id");
                if (key.empty()) key = f.header("id");
                if (key.empty()) key = f.header("ack");
                acks.emplace_back(std::string(key), at);
                lastAck = at;
            } else if (f.command == "NACK") {
                ++nacks;
            } else if (f.command == "SUBSCRIBE" && firstSubscribe == 0) {
                firstSubscribe = at;
            }
            pos = frameEnd + 1;
        }
        pending.erase(0, pos);
    }

private:
    std::string pending;
};

} // namespace

int main(int argc, char** argv) {
    if (argc < 5) {
        std::fprintf(stderr, "usage: %s BROKER_HOST BROKER_PORT TARGET ACKFILE\n", argv[0]);
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);
    struct sigaction sa {};
    sa.sa_handler = onSignal;
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
    const long target = std::atol(argv[3]);
    int port = 0;
    int listener = wire::listenOn(0, &port);
    std::printf("PORT %d\n", port);
    std::fflush(stdout);

    int client = -1;
    while (client < 0) {
        client = accept(listener, nullptr, nullptr);
        if (client < 0 && errno != EINTR) wire::die("accept");
        if (stopRequested) return 1;
    }
    close(listener);
    int broker = wire::connectTo(argv[1], std::atoi(argv[2]));
    // Both legs without Nagle, so the relay adds no delay of its own.
    wire::setNoDelay(client);
    wire::setNoDelay(broker);

    // Non-blocking, with one buffer per direction, so that the relay reads
    // the client's ACKs whatever the other direction does, as a broker does.
    // It reads from the broker only while less than kMaxPending bytes wait
    // for the client, so TCP holds the broker back as it would without it.
    fcntl(client, F_SETFL, fcntl(client, F_GETFL) | O_NONBLOCK);
    fcntl(broker, F_SETFL, fcntl(broker, F_GETFL) | O_NONBLOCK);
    const size_t kMaxPending = 1 << 20;
    std::string toClient, toBroker;
    ClientStream stream;
    bool reached = false;
    size_t shown = 0;
    double shownAt = wire::now();
    std::vector<char> buf(1 << 16);
    // Writes what it can of pending to fd; false when the peer is gone.
    auto flush = [](int fd, std::string& pending) {
        while (!pending.empty()) {
            ssize_t n = send(fd, pending.data(), pending.size(), MSG_NOSIGNAL);
            if (n < 0) {
                if (errno == EINTR) continue;
                return errno == EAGAIN || errno == EWOULDBLOCK;
            }
            pending.erase(0, static_cast<size_t>(n));
        }
        return true;
    };
    bool closed = false;
    while (!stopRequested && !closed) {
        pollfd p[2] = {{client, POLLIN, 0}, {broker, 0, 0}};
        if (toClient.size() < kMaxPending) p[1].events |= POLLIN;
        if (!toClient.empty()) p[0].events |= POLLOUT;
        if (!toBroker.empty()) p[1].events |= POLLOUT;
        int ready = poll(p, 2, 500);
        if (ready < 0) {
            if (errno == EINTR) continue;
            wire::die("poll");
        }
        if (p[0].revents & (POLLIN | POLLHUP | POLLERR)) {
            ssize_t n = recv(client, buf.data(), buf.size(), 0);
            const double at = wire::now();
            if (n > 0) {
                stream.feed(buf.data(), static_cast<size_t>(n), at);
                toBroker.append(buf.data(), static_cast<size_t>(n));
            } else if (n == 0 || (errno != EAGAIN && errno != EINTR)) {
                closed = true;
            }
        }
        if (p[1].revents & (POLLIN | POLLHUP | POLLERR)) {
            ssize_t n = recv(broker, buf.data(), buf.size(), 0);
            if (n > 0) {
                toClient.append(buf.data(), static_cast<size_t>(n));
            } else if (n == 0 || (errno != EAGAIN && errno != EINTR)) {
                closed = true;
            }
        }
        if (!flush(broker, toBroker) || !flush(client, toClient)) closed = true;
        if (stream.acks.size() != shown && wire::now() - shownAt >= 1) {
            shown = stream.acks.size();
            shownAt = wire::now();
            std::printf("ACKS %zu\n", shown);
            std::fflush(stdout);
        }
        if (!reached && static_cast<long>(stream.acks.size()) >= target) {
            reached = true;
            std::printf("REACHED %zu %.6f\n", stream.acks.size(), stream.lastAck);
            std::fflush(stdout);
        }
    }
    close(client);
    close(broker);
    FILE* out = std::fopen(argv[4], "w");
    if (out) {
        for (const auto& ack : stream.acks) std::fprintf(out, "%s %.6f\n", ack.first.c_str(), ack.second);
        std::fclose(out);
    }
    std::printf("END %zu %ld %.6f %.6f\n", stream.acks.size(), stream.nacks, stream.lastAck, stream.firstSubscribe);
    return 0;
}
