// SPDX-License-Identifier: Apache-2.0
#include "support/RecordingRelay.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

namespace tavren {
namespace test {

namespace {

sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

bool sendAll(int fd, const char* data, size_t size) {
    while (size > 0) {
        const ssize_t n = send(fd, data, size, MSG_NOSIGNAL);
        if (n <= 0) return false;
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

} // namespace

RecordingRelay::RecordingRelay(int brokerPort) : brokerPort(brokerPort) {
    listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = loopback(0);
    if (listener < 0 || bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener, 16) != 0) {
        throw std::runtime_error("relay: cannot listen on 127.0.0.1");
    }
    start();
}

RecordingRelay::RecordingRelay(int brokerPort, int listeningSocket) : brokerPort(brokerPort) {
    listener = listeningSocket;
    start();
}

void RecordingRelay::start() {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    if (pipe(stopPipe) != 0) throw std::runtime_error("relay: pipe");
    if (getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        throw std::runtime_error("relay: the listening socket has no address");
    }
    listenPort = ntohs(address.sin_port);
    acceptor = std::thread([this] { acceptLoop(); });
}

RecordingRelay::~RecordingRelay() {
    stopping = true;
    const char wake = 0;
    (void)!write(stopPipe[1], &wake, 1);
    acceptor.join();
    for (std::thread& t : pumps) t.join();
    close(listener);
    close(stopPipe[0]);
    close(stopPipe[1]);
}

void RecordingRelay::acceptLoop() {
    while (!stopping) {
        pollfd fds[2] = {{listener, POLLIN, 0}, {stopPipe[0], POLLIN, 0}};
        if (poll(fds, 2, -1) < 0 || (fds[1].revents & POLLIN)) return;
        const int client = accept(listener, nullptr, nullptr);
        if (client < 0) continue;
        const int broker = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address = loopback(brokerPort);
        if (broker < 0 || connect(broker, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            // The broker is down: the client sees its connection end, as it would without the relay.
            if (broker >= 0) close(broker);
            close(client);
            continue;
        }
        pumps.emplace_back([this, client, broker] { pump(client, broker); });
    }
}

// Passes bytes both ways until either side closes or the relay stops.
void RecordingRelay::pump(int client, int broker) {
    char buffer[65536];
    for (;;) {
        pollfd fds[3] = {{client, POLLIN, 0}, {broker, POLLIN, 0}, {stopPipe[0], POLLIN, 0}};
        if (poll(fds, 3, -1) < 0 || (fds[2].revents & POLLIN)) break;
        if (fds[0].revents) {
            const ssize_t n = recv(client, buffer, sizeof buffer, 0);
            if (n <= 0 || !sendAll(broker, buffer, static_cast<size_t>(n))) break;
        }
        if (fds[1].revents) {
            const ssize_t n = recv(broker, buffer, sizeof buffer, 0);
            if (n <= 0) break;
            {
                std::lock_guard<std::mutex> lock(mutex);
                recorded.append(buffer, static_cast<size_t>(n));
            }
            if (!sendAll(client, buffer, static_cast<size_t>(n))) break;
        }
    }
    close(client);
    close(broker);
}

std::string RecordingRelay::fromBroker() {
    std::lock_guard<std::mutex> lock(mutex);
    return recorded;
}

std::vector<std::string> RecordingRelay::headerValuesFromBroker(const std::string& name) {
    const std::string bytes = fromBroker();
    const std::string key = "\n" + name + ":";
    std::vector<std::string> values;
    for (size_t at = bytes.find(key); at != std::string::npos; at = bytes.find(key, at + 1)) {
        const size_t start = at + key.size();
        const size_t end = bytes.find('\n', start);
        if (end == std::string::npos) break;
        values.push_back(bytes.substr(start, end - start));
    }
    return values;
}

} // namespace test
} // namespace tavren
