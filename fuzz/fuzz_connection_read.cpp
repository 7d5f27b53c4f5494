// SPDX-License-Identifier: Apache-2.0
// libFuzzer target for StompConnection::read: the read-ahead buffer, the
// frame parser behind it, blocking reads with their deadline and time-outs,
// non-blocking reads, and the ends of a stream (the peer's close and reset).
//
// One StompConnection is connected once to a raw peer on 127.0.0.1 in this
// process and serves every input; between inputs it is put back as a new
// connection would be (see Connection::forget), and only an input that ends
// the stream costs a new TCP connection. The harness has one thread: the peer
// writes a chunk, waits until the connection's socket has received all of
// it, and then the connection reads. That makes every status predictable, so
// each read is checked against a model: a second FrameParser fed the same
// bytes (the frame parser's own target shows that the way bytes are split
// does not matter to it).
//
// The input:
//   byte 0, low 4 bits: how many step bytes follow (none: one step that
//     writes everything and reads without blocking);
//   byte 0, high 4 bits: after the last chunk, 0-12 nothing happens, 13
//     the library interrupts its connection (StompConnection::interrupt),
//     14 the peer closes its end, 15 the peer resets the connection;
//   the step bytes, used in turn while stream bytes remain (the last of
//     kMaxSteps steps takes all that remains). Each one takes a chunk of the
//     size its bits 4-7 choose from kChunkSizes, then reads until
//     a read needs more bytes: bits 0-1 say how (0 without blocking, 1
//     blocking with a time-out passed, 2 blocking with the socket's own, 3 no
//     read: the chunk goes out with the next step's), bits 2-3 which
//     time-out is passed (TimeoutChoice); for reads without blocking, bit 2
//     has each read preceded by waitForInput (which must say whether a read
//     may find something) and bit 3 has the wake descriptor readable then;
//   the rest, up to kMaxStream bytes: what the peer writes.
// After the last chunk (and the interrupt, close or reset) the connection
// reads, as the last step said, until it needs more bytes or has seen the
// end: what was received before an end is read first.
//
// Each run also checks that the process has as many descriptors and threads
// as before it.
//
// scripts/fuzz.sh builds and runs it on a copy of fuzz/corpus/fuzz_connection_read/;
// build-fuzz/fuzz/fuzz_connection_read FILE replays one input.
#include "FrameDump.h"
#include "transport/FrameParser.h"
#include "transport/StompConnection.h"

#include <apr_errno.h>

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fstream>
#include <memory>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

using tavren::fuzz::checkedDump;
using tavren::internal::FrameParser;
using tavren::internal::ServerFrame;
using tavren::internal::StompConnection;

namespace {

// Well below what loopback TCP buffers hold, so that the peer's writes never
// wait for the connection to read.
const size_t kMaxStream = 32 * 1024;

const size_t kChunkSizes[16] = {1, 2, 3, 4, 5, 7, 9, 13, 17, 31, 64, 100, 257, 1024, 4096, kMaxStream};

// The last step of an input takes the rest of the stream, so that an input
// costs a hundred system calls or so (a session written byte by byte would
// take thousands, for no code that fewer steps do not reach; how a frame is
// split is the frame parser target's business). 64 steps ran at two thirds
// of the speed with the same coverage.
const size_t kMaxSteps = 16;

// The time-out given at connect: what a blocking read without one uses.
const long long kSocketTimeoutUs = 1;

// The time-outs a step may pass: never wait, 1 us (which usually has passed
// before the first poll), for ever (only when the read cannot need to wait;
// 1 us otherwise) and 1 ms (a real wait; once per input, 1 us after that).
enum TimeoutChoice { ZERO, ONE_US, FOREVER, ONE_MS };

// How long the harness waits for loopback TCP to move bytes it has written.
const std::chrono::seconds kDeliveryLimit(10);

void fail(const char* what) {
    std::fprintf(stderr, "fuzz harness: %s (errno %d)\n", what, errno);
    std::abort();
}

// The connection, with what the harness needs to start an input afresh.
class Connection : public StompConnection {
public:
    // Drops a half-read frame and the bytes received but not parsed, and gives
    // the socket back the time-out it got at connect (a blocking read that
    // returns a heart-beat leaves its own): the state of a new connection. The
    // harness has one thread, so it does without the connection's mutex.
    void forget() {
        emptyReadAhead();
        long long any = 0;
        restoreTimeout(&any);
    }
};

// The raw peer: a listening socket, the accepted connection, and (found once
// per connection) the descriptor of the library's end, which the harness only
// asks how much it holds and in which state it is.
class Peer {
public:
    Peer() {
        listenFd = ::socket(AF_INET, SOCK_STREAM, 0);
        struct sockaddr_in addr = {};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof addr;
        if (listenFd < 0 || ::bind(listenFd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) != 0 ||
            ::listen(listenFd, 4) != 0 || ::getsockname(listenFd, reinterpret_cast<struct sockaddr*>(&addr), &len) != 0)
            fail("cannot listen on 127.0.0.1");
        listenPort = ntohs(addr.sin_port);
    }

    int port() const { return listenPort; }

    // Accepts the connection the library just made and finds its end.
    void accept() {
        connFd = ::accept(listenFd, nullptr, nullptr);
        if (connFd < 0) fail("accept");
        int one = 1;
        // Every chunk leaves at once, not after the acknowledgement of the one before.
        ::setsockopt(connFd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        clientFd = findClient();
    }

    // Writes all bytes and waits until the library's socket holds them. The
    // harness writes only when the socket is empty (each chunk is read
    // until the connection needs more), so that is exactly size bytes.
    void send(const char* data, size_t size) {
        size_t done = 0;
        while (done < size) {
            const ssize_t n = ::send(connFd, data + done, size - done, MSG_NOSIGNAL | MSG_DONTWAIT);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) fail("the peer cannot write");
            done += static_cast<size_t>(n);
        }
        const int target = static_cast<int>(size);
        if (queued() == target) return;
        // Loopback TCP has them there by now, unless the machine is busy:
        // then the harness sleeps until they are, with the socket's low-water
        // mark raised for the wait and put back before the library reads.
        setLowWater(target);
        const auto arrived = [&] { return queued() >= target; };
        waitFor(POLLIN, arrived, "bytes written never arrived");
        setLowWater(1);
        if (queued() != target) fail("more bytes arrived than were written");
    }

    // Closes the peer's end (a reset when asked) and waits until the library's socket has seen it.
    void end(bool reset) {
        if (reset) {
            struct linger lg = {1, 0};
            ::setsockopt(connFd, SOL_SOCKET, SO_LINGER, &lg, sizeof lg);
            ::close(connFd);
            connFd = -1;
            const auto seen = [&] { return state() == TCP_CLOSE; };
            waitFor(POLLHUP, seen, "the reset never arrived");
        } else {
            ::shutdown(connFd, SHUT_WR);
            const auto seen = [&] { return state() == TCP_CLOSE_WAIT; };
            waitFor(POLLRDHUP, seen, "the close never arrived");
        }
    }

    // Bytes received by the library's socket and not read yet.
    int queued() const {
        int n = 0;
        if (::ioctl(clientFd, FIONREAD, &n) != 0) fail("FIONREAD");
        return n;
    }

    // Closes the accepted connection (after the library closed its end).
    void drop() {
        if (connFd >= 0) ::close(connFd);
        connFd = -1;
        clientFd = -1;
    }

private:
    int state() const {
        struct tcp_info info = {};
        socklen_t len = sizeof info;
        if (::getsockopt(clientFd, IPPROTO_TCP, TCP_INFO, &info, &len) != 0) fail("TCP_INFO");
        return info.tcpi_state;
    }

    void setLowWater(int bytes) {
        if (::setsockopt(clientFd, SOL_SOCKET, SO_RCVLOWAT, &bytes, sizeof bytes) != 0) fail("SO_RCVLOWAT");
    }

    // Waits in poll() for events on the library's socket until ready() holds.
    template <class Ready>
    void waitFor(short events, Ready ready, const char* what) {
        const auto limit = std::chrono::steady_clock::now() + kDeliveryLimit;
        while (!ready()) {
            if (std::chrono::steady_clock::now() > limit) fail(what);
            struct pollfd p = {clientFd, events, 0};
            ::poll(&p, 1, 10);
        }
    }

    // The descriptor whose local address is the peer's remote one.
    int findClient() const {
        struct sockaddr_in remote = {};
        socklen_t len = sizeof remote;
        if (::getpeername(connFd, reinterpret_cast<struct sockaddr*>(&remote), &len) != 0) fail("getpeername");
        for (int fd = 0; fd < 4096; ++fd) {
            if (fd == connFd || fd == listenFd) continue;
            struct sockaddr_in local = {};
            len = sizeof local;
            if (::getsockname(fd, reinterpret_cast<struct sockaddr*>(&local), &len) != 0) continue;
            if (local.sin_family == AF_INET && local.sin_port == remote.sin_port) return fd;
        }
        fail("the library's socket was not found");
        return -1;
    }

    int listenFd = -1;
    int listenPort = 0;
    int connFd = -1;
    int clientFd = -1;
};

// The open descriptors and what each one is (sockets without their inode
// numbers), one per line. Pipes are left out: libFuzzer opens two when it
// starts llvm-symbolizer to name a newly covered function.
std::string openDescriptors() {
    std::string out;
    DIR* dir = ::opendir("/proc/self/fd");
    if (!dir) fail("/proc/self/fd");
    const int own = ::dirfd(dir);
    while (struct dirent* e = ::readdir(dir)) {
        if (e->d_name[0] == '.' || std::atoi(e->d_name) == own) continue;
        char target[256] = {};
        const std::string path = std::string("/proc/self/fd/") + e->d_name;
        const ssize_t n = ::readlink(path.c_str(), target, sizeof target - 1);
        if (std::strncmp(target, "pipe:", 5) == 0) continue;
        // A new connection's sockets take the numbers of the old ones, with other inodes.
        if (std::strncmp(target, "socket:", 7) == 0) target[6] = '\0';
        out += std::string(e->d_name) + " -> " + (n > 0 ? target : "?") + "\n";
    }
    ::closedir(dir);
    return out;
}

int threads() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.compare(0, 8, "Threads:") == 0) return std::stoi(line.substr(8));
    fail("/proc/self/status");
    return 0;
}

// What the next read must give.
enum Kind { FRAME, MALFORMED, MORE, RESET, END };

class Harness {
public:
    Harness() {
        if (::pipe(wake) != 0) fail("pipe");
        connect();
        descriptors = openDescriptors();
        threadCount = threads();
    }

    void run(const uint8_t* data, size_t size) {
        const size_t stepCount = data[0] & 0x0f;
        const int ending = data[0] >> 4; // 0-12 none, 13 interrupt, 14 close, 15 reset
        if (size < 1 + stepCount) return;
        const uint8_t* steps = data + 1;
        const char* stream = reinterpret_cast<const char*>(data + 1 + stepCount);
        size_t streamSize = size - 1 - stepCount;
        if (streamSize > kMaxStream) streamSize = kMaxStream;

        pending.clear();
        parsed = 0;
        closed = reset = resetReported = longWaitUsed = false;
        socketTimeout = kSocketTimeoutUs;

        int mode = 0;
        int timeout = ZERO;
        size_t pos = 0;
        size_t unsent = 0; // chunks of steps without a read, sent with the next one that reads
        for (size_t step = 0; pos < streamSize; ++step) {
            const uint8_t c = stepCount ? steps[step % stepCount] : 0xf0;
            size_t n = kChunkSizes[c >> 4];
            if (n > streamSize - pos || step + 1 == kMaxSteps) n = streamSize - pos;
            pos += n;
            unsent += n;
            mode = c & 3;
            timeout = (c >> 2) & 3;
            // Bytes that nobody reads in between come out of one receive
            // together however they were sent; sent as many small segments,
            // they would wait for acknowledgements the socket delays.
            if (mode == 3) continue;
            send(stream + pos - unsent, unsent);
            unsent = 0;
            readUntilMore(mode, timeout);
        }
        if (unsent) send(stream + pos - unsent, unsent);
        if (ending == 13) {
            FUZZ_CHECK(connection.interrupt(), "a connected socket can be interrupted");
            closed = true;
        } else if (ending >= 14) {
            reset = ending == 15;
            peer.end(reset);
            closed = true;
        }
        readUntilMore(mode == 3 ? 0 : mode, timeout);
        FUZZ_CHECK(parsed == pending.size(), "every byte written was read");

        if (closed) {
            FUZZ_CHECK(connection.disconnect() == APR_SUCCESS, "disconnect after the end of the stream");
            peer.drop();
            connect();
        } else {
            FUZZ_CHECK(peer.queued() == 0, "nothing left in the socket");
            connection.forget();
        }
        model.reset();

        if (closed || ++checkCountdown == 1024) {
            checkCountdown = 0;
            const std::string now = openDescriptors();
            if (now != descriptors)
                std::fprintf(stderr, "descriptors before:\n%sdescriptors now:\n%s", descriptors.c_str(), now.c_str());
            FUZZ_CHECK(now == descriptors, "the same descriptors open as before");
            FUZZ_CHECK(threads() == threadCount, "as many threads as before");
        }
    }

private:
    void send(const char* data, size_t size) {
        peer.send(data, size);
        pending.append(data, size);
    }

    void connect() {
        long long timeout = kSocketTimeoutUs;
        if (connection.connect("127.0.0.1", peer.port(), &timeout, nullptr) != APR_SUCCESS) fail("connect to the peer");
        peer.accept();
    }

    // What the next read must give, as the model (fed the bytes written
    // that it has not taken yet) sees it. *dumped is the frame when FRAME.
    Kind predict(std::string* dumped) {
        if (parsed < pending.size()) {
            size_t used = 0;
            const FrameParser::Result r = model.parse(pending.data() + parsed, pending.size() - parsed, &used);
            parsed += used;
            if (r == FrameParser::COMPLETE) {
                std::unique_ptr<ServerFrame> f(model.takeFrame());
                *dumped = checkedDump(*f);
                return FRAME;
            }
            if (r == FrameParser::MALFORMED) return MALFORMED;
        }
        if (!closed) return MORE;
        // The end of the stream drops a half-read frame.
        model.reset();
        if (reset && !resetReported) {
            resetReported = true;
            return RESET;
        }
        return END;
    }

    long long timeoutFor(int choice, Kind kind) {
        switch (choice) {
        case ZERO: return 0;
        case FOREVER: return kind == MORE ? 1 : -1;
        case ONE_MS:
            if (longWaitUsed) return 1;
            longWaitUsed = true;
            return 1000;
        default: return 1;
        }
    }

    // waitForInput without waiting: a read may find something when bytes
    // wait that the parser has not taken, or the stream has ended. Bytes
    // already received (in the read-ahead buffer rather than the socket)
    // answer at once, and the wake descriptor is not looked at then.
    void checkWait(bool woken) {
        char byte = 0;
        if (woken && ::write(wake[1], &byte, 1) != 1) fail("write to the wake pipe");
        const bool received = pending.size() - parsed > static_cast<size_t>(peer.queued());
        bool readable = false;
        bool wakeSeen = false;
        FUZZ_CHECK(connection.waitForInput(wake[0], true, 0, &readable, &wakeSeen) == APR_SUCCESS,
                   "waitForInput on a connected socket succeeds");
        FUZZ_CHECK(wakeSeen == (woken && !received),
                   "waitForInput reports a readable wake descriptor unless received bytes answer at once");
        FUZZ_CHECK(readable == (parsed < pending.size() || closed),
                   "waitForInput says a read may find something exactly when bytes wait or the stream ended");
        if (woken && ::read(wake[0], &byte, 1) != 1) fail("read from the wake pipe");
    }

    // One read; its status and frame must be what the model predicts.
    Kind readOnce(int mode, int timeoutChoice) {
        if (mode == 0 && (timeoutChoice & 1)) checkWait(timeoutChoice & 2);
        std::string expected;
        const Kind kind = predict(&expected);
        const bool block = mode != 0;
        long long timeout = 0;
        long long* timeoutArg = nullptr;
        if (mode == 1) {
            timeout = timeoutFor(timeoutChoice, kind);
            timeoutArg = &timeout;
        } else if (mode == 2 && kind == MORE && socketTimeout < 0) {
            timeout = 1; // the socket's own would wait for ever
            timeoutArg = &timeout;
        }
        const long long effective = timeoutArg ? *timeoutArg : socketTimeout;

        ServerFrame* out = nullptr;
        const apr_status_t rc = connection.read(&out, block, timeoutArg);
        std::unique_ptr<ServerFrame> frame(out);
        switch (kind) {
        case FRAME:
            FUZZ_CHECK(rc == APR_SUCCESS && frame, "a frame that has arrived is read");
            FUZZ_CHECK(checkedDump(*frame) == expected, "the frame read is the one written");
            break;
        case MALFORMED: FUZZ_CHECK(rc == APR_EGENERAL && !frame, "a malformed frame gives 20014"); break;
        case MORE:
            if (!block || effective == 0)
                FUZZ_CHECK(rc == APR_EAGAIN && !frame, "a read that may not wait and finds no frame gives 11");
            else
                FUZZ_CHECK(rc == APR_TIMEUP && !frame, "a blocking read that finds no frame in time gives APR_TIMEUP");
            break;
        case RESET: FUZZ_CHECK(rc == ECONNRESET && !frame, "the peer's reset is reported"); break;
        case END: FUZZ_CHECK(rc == APR_EOF && !frame, "the peer's close gives APR_EOF"); break;
        }
        // A blocking read given a time-out leaves it on the socket after a
        // heart-beat only; otherwise it puts back the one from connect.
        if (block && timeoutArg)
            socketTimeout = kind == FRAME && frame->command().empty() ? *timeoutArg : kSocketTimeoutUs;
        return kind;
    }

    // Reads until a read needs more bytes or has seen the end of the stream.
    void readUntilMore(int mode, int timeoutChoice) {
        for (size_t reads = 0;; ++reads) {
            FUZZ_CHECK(reads <= kMaxStream + 2, "every frame or error takes at least one byte");
            const Kind kind = readOnce(mode, timeoutChoice);
            if (kind == MORE || kind == END) return;
        }
    }

    Peer peer;
    Connection connection;
    int wake[2] = {-1, -1}; // the wake descriptor that waitForInput watches besides the socket
    FrameParser model;
    std::string pending; // every byte written in this input
    size_t parsed = 0;   // how many of them the model has taken
    bool closed = false; // the stream has ended (interrupt, close or reset)
    bool reset = false;  // by the peer's reset
    bool resetReported = false;
    bool longWaitUsed = false;
    long long socketTimeout = kSocketTimeoutUs; // the socket's time-out as the model has it
    int checkCountdown = 0;                     // inputs since descriptors and threads were last counted
    std::string descriptors;
    int threadCount = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Harness* harness = new Harness(); // lives as long as the process
    if (size == 0) return 0;
    harness->run(data, size);
    return 0;
}
