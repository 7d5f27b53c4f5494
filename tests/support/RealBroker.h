// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_TEST_REALBROKER_H
#define TAVREN_TEST_REALBROKER_H

#include <string>

namespace tavren {
namespace test {

/**
 * A real broker on loopback, started and stopped by its script in scripts/
 * (scripts/rabbitmq.sh, scripts/activemq.sh). The port is the script's own
 * default unless the script's port variable overrides it for both.
 */
class RealBroker {
public:
    static RealBroker rabbitmq();
    static RealBroker activemq();

    const std::string& name() const { return brokerName; }
    int port() const { return stompPort; }
    bool isActiveMQ() const { return brokerName == "ActiveMQ"; }

    /** True when a CONNECT as guest is answered with CONNECTED within 3 s. */
    bool answers() const;

    /** Runs the script with "start" (returns once CONNECT is answered) or "stop"; true on success. */
    bool start() const;
    bool stop() const;

    /** What to tell a reader whose broker does not answer. */
    std::string howToStart() const;

private:
    RealBroker(std::string name, std::string script, const char* portVariable, int defaultPort);
    bool run(const char* action) const;

    std::string brokerName;
    std::string script;
    int stompPort;
};

} // namespace test
} // namespace tavren

#endif
