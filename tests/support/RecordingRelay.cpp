// SPDX-License-Identifier: Apache-2.0
#include "support/RecordingRelay.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <deque>
#include <random>
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
    listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
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
    if (pipe2(stopPipe, O_CLOEXEC) != 0) throw std::runtime_error("relay: pipe");
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
        // Close-on-exec, as every socket here: a broker the test starts again
        // (a restarted cluster node) would otherwise inherit the relay's
        // sockets and hold the connections open that the relay closes.
        const int client = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0) continue;
        const int broker = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address = loopback(brokerPort);
        if (broker < 0 || connect(broker, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            // The broker is down: the client sees its connection end, as it would without the relay.
            if (broker >= 0) close(broker);
            close(client);
            continue;
        }
        std::lock_guard<std::mutex> lock(mutex);
        reapFinished();
        pumps.emplace_back([this, client, broker] {
            pump(client, broker);
            std::lock_guard<std::mutex> ended(mutex);
            finished.push_back(std::this_thread::get_id());
        });
    }
}

void RecordingRelay::reapFinished() {
    for (const std::thread::id id : finished) {
        auto it = std::find_if(pumps.begin(), pumps.end(), [id](const std::thread& t) { return t.get_id() == id; });
        if (it == pumps.end()) continue;
        it->join();
        pumps.erase(it);
    }
    finished.clear();
}

namespace {

using Clock = std::chrono::steady_clock;

// The chunks read from one side, each with the moment it is to be passed on.
struct DelayLine {
    std::deque<std::pair<Clock::time_point, std::string>> chunks;
    Clock::time_point last; // chunks leave in order: none is due before the one ahead of it

    void add(const char* data, size_t size, Clock::time_point due) {
        due = std::max(due, last);
        last = due;
        chunks.emplace_back(due, std::string(data, size));
    }
    // Sends what is due to fd; false when fd failed.
    bool sendDue(int fd) {
        while (!chunks.empty() && chunks.front().first <= Clock::now()) {
            if (!sendAll(fd, chunks.front().second.data(), chunks.front().second.size())) return false;
            chunks.pop_front();
        }
        return true;
    }
    // Milliseconds until the next chunk is due (rounded up), or -1 with none.
    int wait() const {
        if (chunks.empty()) return -1;
        const auto left = std::chrono::duration_cast<std::chrono::microseconds>(chunks.front().first - Clock::now());
        return left.count() <= 0 ? 0 : static_cast<int>((left.count() + 999) / 1000);
    }
};

int earliest(int a, int b) {
    if (a < 0) return b;
    if (b < 0) return a;
    return std::min(a, b);
}

} // namespace

void RecordingRelay::setDelay(int ms, int jitter) {
    delayMs = ms;
    jitterMs = jitter;
}

// Passes bytes both ways until either side closes or the relay stops.
void RecordingRelay::pump(int client, int broker) {
    char buffer[65536];
    DelayLine toBroker, toClient;
    std::minstd_rand random(static_cast<unsigned>(client * 7919 + broker));
    auto due = [&] {
        const int jitter = jitterMs;
        const int extra = jitter > 0 ? static_cast<int>(random() % static_cast<unsigned>(jitter + 1)) : 0;
        return Clock::now() + std::chrono::milliseconds(delayMs + extra);
    };
    for (;;) {
        pollfd fds[3] = {{client, POLLIN, 0}, {broker, POLLIN, 0}, {stopPipe[0], POLLIN, 0}};
        if (poll(fds, 3, earliest(toBroker.wait(), toClient.wait())) < 0 || (fds[2].revents & POLLIN)) break;
        if (fds[0].revents) {
            const ssize_t n = recv(client, buffer, sizeof buffer, 0);
            if (n <= 0) break;
            toBroker.add(buffer, static_cast<size_t>(n), due());
        }
        if (fds[1].revents) {
            const ssize_t n = recv(broker, buffer, sizeof buffer, 0);
            if (n <= 0) break;
            if (recording) {
                std::lock_guard<std::mutex> lock(mutex);
                recorded.append(buffer, static_cast<size_t>(n));
            }
            toClient.add(buffer, static_cast<size_t>(n), due());
        }
        if (!toBroker.sendDue(broker) || !toClient.sendDue(client)) break;
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
