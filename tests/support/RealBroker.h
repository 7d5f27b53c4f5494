// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_TEST_REALBROKER_H
#define TAVREN_TEST_REALBROKER_H

#include <string>

namespace tavren {
namespace test {

/**
 * A real broker on loopback, started and stopped by its script in scripts/
 * (scripts/rabbitmq.sh, scripts/activemq.sh). The ports are the script's own
 * defaults unless the script's port variables override them for both.
 */
class RealBroker {
public:
    static RealBroker rabbitmq();
    static RealBroker activemq();
    /** Node n (1 to 3) of the cluster of scripts/rabbitmq-cluster.sh: STOMP on 61640 + n, no TLS. */
    static RealBroker clusterNode(int n);

    const std::string& name() const { return brokerName; }
    int port() const { return stompPort; }
    /** The port of STOMP over TLS, where the broker asks for a client certificate. */
    int tlsPort() const { return stompTlsPort; }
    bool isActiveMQ() const { return brokerName == "ActiveMQ"; }

    /** True when a CONNECT as guest is answered with CONNECTED within 3 s. */
    bool answers() const;

    /** Runs the script with "start" (returns once CONNECT is answered) or "stop"; true on success. */
    bool start() const;
    bool stop() const;

    /**
     * Runs the broker's control tool through its script ("ctl", RabbitMQ's
     * rabbitmqctl), for example "list_queues name type"; its output goes to
     * *output when given. True when it exited with 0.
     */
    bool control(const std::string& arguments, std::string* output = nullptr) const;

    /** What to tell a reader whose broker does not answer. */
    std::string howToStart() const;

    /** True when something accepts TCP connections on tlsPort() within 3 s (no handshake). */
    bool listensForTls() const;
    /** What to tell a reader whose broker has no TLS listener. */
    std::string howToStartTls() const;

    /**
     * The folder of the test certificates the broker scripts make
     * (scripts/brokers/tls-certs.sh): $TAVREN_BROKER_DIR/tls, by default
     * /var/tmp/tavren-brokers/tls. Its files: ca.pem, server.pem, client.pem
     * and client.key, other-ca.pem.
     */
    static std::string certificateDir();
    /** certificateDir() + "/" + name. */
    static std::string certificateFile(const std::string& name);

private:
    RealBroker(std::string name, std::string script, const char* portVariable, int defaultPort,
               const char* tlsPortVariable, int defaultTlsPort);
    bool run(const char* action) const;

    std::string brokerName;
    std::string script;
    int stompPort;
    int stompTlsPort;
};

} // namespace test
} // namespace tavren

#endif
