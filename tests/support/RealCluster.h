// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_TEST_REALCLUSTER_H
#define TAVREN_TEST_REALCLUSTER_H

#include "support/RealBroker.h"

#include <string>

namespace tavren {
namespace test {

/**
 * The three-node RabbitMQ cluster of scripts/rabbitmq-cluster.sh on
 * loopback: node n (1 to 3) takes STOMP on 61640 + n; the virtual host
 * "tavren-field" makes every queue declared in it a quorum queue.
 */
class RealCluster {
public:
    static constexpr int nodes = 3;
    static const char* virtualHost() { return "tavren-field"; }

    static int port(int node) { return 61640 + node; }
    /** The node whose STOMP port is port; 0 for none. */
    static int nodeOfPort(int port) { return port > 61640 && port <= 61640 + nodes ? port - 61640 : 0; }
    static RealBroker node(int n) { return RealBroker::clusterNode(n); }

    /** True when every node answers a STOMP CONNECT. */
    static bool answers();
    /** "start": returns once three nodes run in one cluster; true on success. */
    static bool start();
    /** SIGKILL to node n's Erlang VM; true on success. */
    static bool kill(int n);
    /** Starts node n again and waits until the cluster counts three running nodes. */
    static bool restart(int n);
    /** rabbitmqctl on node 1, for example "list_queues -p tavren-field name type". */
    static bool control(const std::string& arguments, std::string* output = nullptr) {
        return node(1).control(arguments, output);
    }
    /** What to tell a reader whose cluster does not run. */
    static std::string howToStart();
};

} // namespace test
} // namespace tavren

#endif
