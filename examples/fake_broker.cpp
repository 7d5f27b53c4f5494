// SPDX-License-Identifier: Apache-2.0
// A minimal STOMP broker for the demo: one client at a time on 127.0.0.1.
// It answers CONNECT with CONNECTED, SUBSCRIBE/UNSUBSCRIBE/DISCONNECT with a
// RECEIPT when one is asked for, and hands every SEND to the subscriber of
// its destination as a MESSAGE. It logs each frame it receives.
//
//   fake_broker PORT [PORTFILE]   (PORT 0: any free port, written to PORTFILE)
#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace {

struct Frame {
    std::string command;
    std::map<std::string, std::string> headers;
    std::string body;
};

bool sendAll(int fd, const std::string& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

std::string serialise(const Frame& f) {
    std::string out = f.command + "\n";
    for (const auto& h : f.headers) out += h.first + ":" + h.second + "\n";
    return out + "\n" + f.body + std::string("\0\n", 2);
}

// Reads one frame (skipping heart-beat line feeds); false when the client is gone.
bool readFrame(int fd, std::string& pending, Frame* frame) {
    char buf[4096];
    for (;;) {
        while (!pending.empty() && (pending[0] == '\n' || pending[0] == '\r')) pending.erase(0, 1);
        const size_t headEnd = pending.find("\n\n");
        if (headEnd != std::string::npos) {
            const size_t nul = pending.find('\0', headEnd + 2);
            if (nul != std::string::npos) {
                const std::string head = pending.substr(0, headEnd);
                frame->body = pending.substr(headEnd + 2, nul - headEnd - 2);
                pending.erase(0, nul + 1);
                frame->headers.clear();
                size_t pos = head.find('\n');
                frame->command = head.substr(0, pos);
                while (pos != std::string::npos) {
                    const size_t next = head.find('\n', pos + 1);
                    const std::string line = head.substr(pos + 1, next == std::string::npos ? next : next - pos - 1);
                    const size_t colon = line.find(':');
                    if (colon != std::string::npos && !frame->headers.count(line.substr(0, colon)))
                        frame->headers[line.substr(0, colon)] = line.substr(colon + 1);
                    pos = next;
                }
                return true;
            }
        }
        const ssize_t n = ::recv(fd, buf, sizeof buf, 0);
        if (n <= 0) return false;
        pending.append(buf, static_cast<size_t>(n));
    }
}

void serve(int fd) {
    std::string pending;
    std::map<std::string, std::string> subscriptions; // destination -> subscription id
    int nextMessage = 1;
    Frame in;
    while (readFrame(fd, pending, &in)) {
        std::printf("broker: received %s", in.command.c_str());
        if (in.headers.count("destination")) std::printf(" for %s", in.headers["destination"].c_str());
        if (!in.body.empty()) std::printf(": \"%s\"", in.body.c_str());
        std::printf("\n");
        std::fflush(stdout);
        Frame out;
        if (in.command == "CONNECT" || in.command == "STOMP") {
            out.command = "CONNECTED";
            out.headers["server"] = "FakeBroker/0.1 demo";
            out.headers["version"] = "1.2";
            out.headers["heart-beat"] = "0,0";
            out.headers["session"] = "session-1";
            if (!sendAll(fd, serialise(out))) return;
            continue;
        }
        if (in.command == "SUBSCRIBE") subscriptions[in.headers["destination"]] = in.headers["id"];
        if (in.command == "UNSUBSCRIBE")
            for (auto it = subscriptions.begin(); it != subscriptions.end(); ++it)
                if (it->second == in.headers["id"]) {
                    subscriptions.erase(it);
                    break;
                }
        if (in.command == "SEND" && subscriptions.count(in.headers["destination"])) {
            out.command = "MESSAGE";
            out.headers["destination"] = in.headers["destination"];
            out.headers["subscription"] = subscriptions[in.headers["destination"]];
            out.headers["message-id"] = std::to_string(nextMessage);
            out.headers["ack"] = "ack-" + std::to_string(nextMessage++);
            out.headers["content-length"] = std::to_string(in.body.size());
            out.body = in.body;
            if (!sendAll(fd, serialise(out))) return;
            out = Frame();
        }
        if (in.headers.count("receipt")) {
            out.command = "RECEIPT";
            out.headers["receipt-id"] = in.headers["receipt"];
            if (!sendAll(fd, serialise(out))) return;
        }
        if (in.command == "DISCONNECT") return;
    }
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s PORT [PORTFILE]\n", argv[0]);
        return 2;
    }
    const int listenFd = ::socket(AF_INET, SOCK_STREAM, 0);
    int one = 1;
    ::setsockopt(listenFd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    struct sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(std::atoi(argv[1])));
    if (::bind(listenFd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || ::listen(listenFd, 4) != 0) {
        std::perror("fake_broker: bind/listen");
        return 1;
    }
    socklen_t len = sizeof addr;
    ::getsockname(listenFd, reinterpret_cast<sockaddr*>(&addr), &len);
    if (argc > 2) {
        FILE* f = std::fopen(argv[2], "w");
        if (f) {
            std::fprintf(f, "%d\n", ntohs(addr.sin_port));
            std::fclose(f);
        }
    }
    std::printf("broker: listening on 127.0.0.1:%d\n", ntohs(addr.sin_port));
    std::fflush(stdout);
    for (;;) {
        const int fd = ::accept(listenFd, nullptr, nullptr);
        if (fd < 0) continue;
        serve(fd);
        ::close(fd);
    }
}
