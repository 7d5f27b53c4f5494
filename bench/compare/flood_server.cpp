// SPDX-License-Identifier: Apache-2.0
// A stand-in broker that floods its one subscriber, so that a receive
// measurement against it shows the client's own cost (its CPU per message,
// its system calls) without a broker's: it answers CONNECT (or STOMP) with
// CONNECTED, answers every frame that has a "receipt" header with a
// RECEIPT, and after the first SUBSCRIBE sends COUNT MESSAGE frames of 100
// bytes (with "bench-seq" 1..COUNT, as the benchmark's producer does) as
// fast as the client reads them, while it counts the ACKs and NACKs that
// come back. One connection at a time.
//
//   flood_server COUNT [PORT]     (PORT 0 or none: a free port; prints "PORT p")
//
// Prints "DONE acks nacks seconds" once every message has been answered
// (seconds from the first MESSAGE written to the last answer read), then
// serves the next connection.

#include "wire.h"

#include <fcntl.h>

#include <string>

namespace {

const char* kBody =
    "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789abcdefghijklmnopqrstuvwxyzAB";

std::string messageFrame(std::string_view subscription, std::string_view destination, long seq) {
    const std::string n = std::to_string(seq);
    std::string frame = "MESSAGE\nsubscription:";
    frame += subscription;
    frame += "\ndestination:";
    frame += destination;
    frame += "\nmessage-id:flood-" + n + "\nack:flood-" + n + "\nbench-seq:" + n + "\ncontent-length:100\n\n";
    frame += kBody;
    frame.push_back('\0');
    return frame;
}

// Serves one connection until the client closes it or every message is answered and it disconnects.
void serve(int fd, long count) {
    wire::setNoDelay(fd);
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    wire::Reader reader(fd);
    std::string out;
    size_t written = 0;
    long next = 0; // the last message put into out; 0: not subscribed yet
    std::string subscription, destination;
    long acks = 0, nacks = 0;
    double started = 0;
    bool reported = false;
    for (;;) {
        // Messages are added in slices of about 64 KiB while the socket takes them.
        while (next > 0 && next < count && out.size() - written < (1 << 16)) {
            out += messageFrame(subscription, destination, ++next);
        }
        pollfd p{fd, POLLIN, 0};
        if (written < out.size()) p.events |= POLLOUT;
        if (poll(&p, 1, -1) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        if (p.revents & POLLOUT) {
            const ssize_t n = send(fd, out.data() + written, out.size() - written, MSG_NOSIGNAL);
            if (n < 0 && errno != EAGAIN && errno != EINTR) break;
            if (n > 0) written += static_cast<size_t>(n);
            if (written == out.size()) {
                out.clear();
                written = 0;
            }
        }
        if (!(p.revents & (POLLIN | POLLHUP | POLLERR))) continue;
        const ssize_t got = reader.fill();
        if (got == 0 || (got < 0 && errno != EAGAIN)) break;
        wire::Frame f;
        bool disconnect = false;
        while (reader.next(&f)) {
            if (f.command == "CONNECT" || f.command == "STOMP") {
                out += "CONNECTED\nserver:bench-flood/1\nversion:1.2\nheart-beat:0,0\nsession:flood\n\n";
                out.push_back('\0');
            } else if (f.command == "ACK" || f.command == "NACK") {
                ++(f.command == "ACK" ? acks : nacks);
            } else if (f.command == "SUBSCRIBE" && next == 0 && count > 0) {
                subscription = std::string(f.header("id"));
                destination = std::string(f.header("destination"));
                next = 0;
                started = wire::now();
                out += messageFrame(subscription, destination, ++next);
            } else if (f.command == "DISCONNECT") {
                disconnect = true;
            }
            wire::answerReceipt(f, &out);
        }
        if (!reported && acks + nacks >= count && next > 0) {
            reported = true;
            std::printf("DONE %ld %ld %.6f\n", acks, nacks, wire::now() - started);
            std::fflush(stdout);
        }
        if (disconnect) {
            // The receipt of the DISCONNECT, if asked for, goes out before the close.
            fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
            wire::writeAll(fd, out.data() + written, out.size() - written);
            break;
        }
    }
    if (!reported) std::printf("ENDED %ld %ld\n", acks, nacks);
    std::fflush(stdout);
    close(fd);
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s COUNT [PORT]\n", argv[0]);
        return 2;
    }
    const long count = std::atol(argv[1]);
    wire::serveForever(argc > 2 ? std::atoi(argv[2]) : 0, [count](int fd) { serve(fd, count); });
}
