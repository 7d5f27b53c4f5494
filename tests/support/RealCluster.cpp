// SPDX-License-Identifier: Apache-2.0
#include "support/RealCluster.h"

#include <cstdlib>
#include <string>

#ifndef TAVREN_SOURCE_DIR
#error "TAVREN_SOURCE_DIR must name the source tree, whose scripts/ start the brokers"
#endif

namespace tavren {
namespace test {

namespace {

const std::string script = std::string(TAVREN_SOURCE_DIR) + "/scripts/rabbitmq-cluster.sh";

bool run(const std::string& arguments) {
    const std::string command = "bash '" + script + "' " + arguments + " >&2";
    return std::system(command.c_str()) == 0;
}

} // namespace

bool RealCluster::answers() {
    for (int n = 1; n <= nodes; ++n) {
        if (!node(n).answers()) return false;
    }
    return true;
}

bool RealCluster::start() { return run("start"); }
bool RealCluster::kill(int n) { return run("kill " + std::to_string(n)); }
bool RealCluster::restart(int n) { return run("restart " + std::to_string(n)); }

std::string RealCluster::howToStart() {
    return "the RabbitMQ cluster does not answer STOMP on 127.0.0.1:61641-61643; start it with `bash " + script +
           " start` (scripts/test.sh starts it for the plain build)";
}

} // namespace test
} // namespace tavren
