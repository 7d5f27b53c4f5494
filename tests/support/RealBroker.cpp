// SPDX-License-Identifier: Apache-2.0
#include "support/RealBroker.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#ifndef TAVREN_SOURCE_DIR
#error "TAVREN_SOURCE_DIR must name the source tree, whose scripts/ start the brokers"
#endif

namespace tavren {
namespace test {

namespace {

int portFrom(const char* variable, int fallback) {
    const char* value = std::getenv(variable);
    return value && *value ? std::atoi(value) : fallback;
}

// A TCP socket to 127.0.0.1:port with 3 s for the connect, each send and
// each receive; -1 when the connect failed.
int connectWithin3s(int port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    timeval limit{3, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

} // namespace

RealBroker::RealBroker(std::string name, std::string script, const char* portVariable, int defaultPort,
                       const char* tlsPortVariable, int defaultTlsPort)
    : brokerName(std::move(name)),
      script(std::string(TAVREN_SOURCE_DIR) + "/scripts/" + script),
      stompPort(portFrom(portVariable, defaultPort)),
      stompTlsPort(portFrom(tlsPortVariable, defaultTlsPort)) {}

RealBroker RealBroker::rabbitmq() {
    return RealBroker("RabbitMQ", "rabbitmq.sh", "TAVREN_RABBITMQ_PORT", 61623, "TAVREN_RABBITMQ_TLS_PORT", 61624);
}

RealBroker RealBroker::activemq() {
    return RealBroker("ActiveMQ", "activemq.sh", "TAVREN_ACTIVEMQ_PORT", 61633, "TAVREN_ACTIVEMQ_TLS_PORT", 61634);
}

RealBroker RealBroker::clusterNode(int n) {
    return RealBroker("RabbitMQ cluster node " + std::to_string(n), "rabbitmq-cluster.sh", "", 61640 + n, "", 0);
}

bool RealBroker::answers() const {
    const int fd = connectWithin3s(stompPort);
    if (fd < 0) return false;
    bool connected = false;
    static const char frame[] = "CONNECT\naccept-version:1.2\nhost:/\nlogin:guest\npasscode:guest\n\n";
    static const char disconnect[] = "DISCONNECT\n\n";
    if (send(fd, frame, sizeof frame, MSG_NOSIGNAL) == static_cast<ssize_t>(sizeof frame)) {
        char reply[10] = {0};
        size_t got = 0;
        while (got < 9) {
            const ssize_t n = recv(fd, reply + got, 9 - got, 0);
            if (n <= 0) break;
            got += static_cast<size_t>(n);
        }
        connected = got == 9 && std::memcmp(reply, "CONNECTED", 9) == 0;
        send(fd, disconnect, sizeof disconnect, MSG_NOSIGNAL);
    }
    close(fd);
    return connected;
}

bool RealBroker::run(const char* action) const {
    const std::string command = "bash '" + script + "' " + action + " >&2";
    return std::system(command.c_str()) == 0;
}

bool RealBroker::start() const { return run("start"); }

bool RealBroker::control(const std::string& arguments, std::string* output) const {
    const std::string command = "bash '" + script + "' ctl " + arguments + " 2>&1";
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) return false;
    std::string text;
    char buffer[4096];
    size_t n;
    while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) text.append(buffer, n);
    const int status = pclose(pipe);
    if (output) *output = text;
    return status == 0;
}

bool RealBroker::stop() const { return run("stop"); }

std::string RealBroker::howToStart() const {
    return brokerName + " does not answer STOMP on 127.0.0.1:" + std::to_string(stompPort) + "; start it with `bash " +
           script + " start` (scripts/test.sh starts both brokers for the integration tests)";
}

bool RealBroker::listensForTls() const {
    const int fd = connectWithin3s(stompTlsPort);
    if (fd < 0) return false;
    close(fd);
    return true;
}

std::string RealBroker::howToStartTls() const {
    return brokerName + " does not listen for STOMP over TLS on 127.0.0.1:" + std::to_string(stompTlsPort) +
           "; a broker started before its script had the TLS listener needs `bash " + script + " stop` and `bash " +
           script + " start`";
}

std::string RealBroker::certificateDir() {
    const char* dir = std::getenv("TAVREN_BROKER_DIR");
    return std::string(dir && *dir ? dir : "/var/tmp/tavren-brokers") + "/tls";
}

std::string RealBroker::certificateFile(const std::string& name) { return certificateDir() + "/" + name; }

} // namespace test
} // namespace tavren
