// SPDX-License-Identifier: Apache-2.0
// Plain-socket helpers shared by the comparison programs (raw client, relay,
// discard server): a buffered STOMP frame reader that parses in place, the
// monotonic clock, and socket set-up. No libtavren code is used here, so the
// programs measure the path without the library.
#ifndef TAVREN_BENCH_WIRE_H
#define TAVREN_BENCH_WIRE_H

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace wire {

inline double now() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec + ts.tv_nsec * 1e-9;
}

[[noreturn]] inline void die(const char* what) {
    std::fprintf(stderr, "%s: %s\n", what, std::strerror(errno));
    std::exit(1);
}

inline void setNoDelay(int fd) {
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

inline int connectTo(const char* host, int port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) die("socket");
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    if (inet_pton(AF_INET, host, &addr.sin_addr) != 1) {
        std::fprintf(stderr, "bad address %s\n", host);
        std::exit(2);
    }
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) die("connect");
    return fd;
}

// A socket listening on 127.0.0.1:port (0: any free port); *bound gets the port.
inline int listenOn(int port, int* bound) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) die("socket");
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) die("bind");
    if (listen(fd, 64) != 0) die("listen");
    socklen_t len = sizeof addr;
    getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    *bound = ntohs(addr.sin_port);
    return fd;
}

// A stand-in server's main loop: listens on 127.0.0.1:port (0: a free one),
// prints "PORT p", and hands each accepted connection to serve(fd).
template <typename Serve>
[[noreturn]] void serveForever(int port, Serve serve) {
    signal(SIGPIPE, SIG_IGN);
    int bound = 0;
    const int listener = listenOn(port, &bound);
    std::printf("PORT %d\n", bound);
    std::fflush(stdout);
    for (;;) {
        const int fd = accept(listener, nullptr, nullptr);
        if (fd < 0) {
            if (errno == EINTR) continue;
            die("accept");
        }
        serve(fd);
    }
}

inline bool writeAll(int fd, const char* data, size_t size) {
    while (size > 0) {
        ssize_t n = send(fd, data, size, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

inline bool writeAll(int fd, const std::string& s) { return writeAll(fd, s.data(), s.size()); }

// One parsed frame; every view points into the reader's buffer and is valid
// until the next call of Reader::fill().
struct Frame {
    std::string_view command;
    std::string_view headerBlock; // the header lines, without the command line
    std::string_view body;

    // The first value of header name (the first occurrence wins), or empty.
    std::string_view header(std::string_view name) const {
        size_t pos = 0;
        while (pos < headerBlock.size()) {
            size_t end = headerBlock.find('\n', pos);
            if (end == std::string_view::npos) end = headerBlock.size();
            std::string_view line = headerBlock.substr(pos, end - pos);
            if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
            if (line.size() > name.size() && line[name.size()] == ':' && line.compare(0, name.size(), name) == 0)
                return line.substr(name.size() + 1);
            pos = end + 1;
        }
        return {};
    }
};

// Reads frames from a socket through one growing buffer. next() parses a
// complete frame in place; heart-beat end-of-lines between frames are skipped.
class Reader {
public:
    explicit Reader(int fd) : fd(fd), buf(1 << 16) {}

    // Reads what the socket has (blocking once). Returns bytes read, 0 on EOF, -1 on error.
    ssize_t fill() {
        if (start > 0 && start == end) start = end = 0;
        if (end == buf.size()) {
            if (start > 0) {
                std::memmove(buf.data(), buf.data() + start, end - start);
                end -= start;
                start = 0;
            } else {
                buf.resize(buf.size() * 2);
            }
        }
        for (;;) {
            ssize_t n = recv(fd, buf.data() + end, buf.size() - end, 0);
            if (n < 0 && errno == EINTR) continue;
            if (n > 0) end += static_cast<size_t>(n);
            return n;
        }
    }

    // The next complete frame in the buffer, if there is one.
    bool next(Frame* frame) {
        while (start < end && (buf[start] == '\n' || buf[start] == '\r')) ++start;
        if (start == end) return false;
        std::string_view data(buf.data() + start, end - start);
        size_t headEnd = data.find("\n\n");
        size_t sep = 2;
        size_t crlf = data.find("\r\n\r\n");
        if (crlf != std::string_view::npos && (headEnd == std::string_view::npos || crlf < headEnd)) {
            headEnd = crlf;
            sep = 4;
        }
        if (headEnd == std::string_view::npos) return false;
        std::string_view head = data.substr(0, headEnd);
        size_t cmdEnd = head.find('\n');
        if (cmdEnd == std::string_view::npos) cmdEnd = head.size();
        frame->command = head.substr(0, cmdEnd);
        if (!frame->command.empty() && frame->command.back() == '\r') frame->command.remove_suffix(1);
        frame->headerBlock = cmdEnd < head.size() ? head.substr(cmdEnd + 1) : std::string_view();
        const size_t bodyStart = headEnd + sep;
        std::string_view length = frame->header("content-length");
        size_t bodyEnd;
        if (!length.empty()) {
            bodyEnd = bodyStart + std::strtoul(std::string(length).c_str(), nullptr, 10);
            if (bodyEnd + 1 > data.size()) return false;
        } else {
            bodyEnd = data.find('\0', bodyStart);
            if (bodyEnd == std::string_view::npos) return false;
        }
        frame->body = data.substr(bodyStart, bodyEnd - bodyStart);
        start += bodyEnd + 1;
        return true;
    }

    // Bytes received but not yet parsed into frames.
    size_t pending() const { return end - start; }

private:
    int fd;
    std::vector<char> buf;
    size_t start = 0;
    size_t end = 0;
};

// Appends a RECEIPT for frame to out when it asks for one ("receipt" header).
inline void answerReceipt(const Frame& frame, std::string* out) {
    std::string_view receipt = frame.header("receipt");
    if (receipt.empty()) return;
    *out += "RECEIPT\nreceipt-id:";
    *out += receipt;
    *out += "\n\n";
    out->push_back('\0');
}

// True when a line arrived on standard input (or it closed) within timeoutMs.
inline bool stdinReady(int timeoutMs) {
    pollfd p{0, POLLIN, 0};
    return poll(&p, 1, timeoutMs) > 0;
}

// Reads and drops one line from standard input.
inline void consumeStdinLine() {
    char c;
    while (read(0, &c, 1) == 1 && c != '\n') {
    }
}

} // namespace wire

#endif
