// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_TEST_TESTNETWORK_H
#define TAVREN_TEST_TESTNETWORK_H

#include <functional>
#include <string>
#include <vector>

namespace tavren {
namespace test {

/**
 * A second host for tests in which the peer vanishes without closing: a
 * network namespace of its own, joined to this one by a veth pair on a
 * private /30 of 10.231.0.0/16 that no route of this machine covers. The
 * test reaches the peer at peerAddress(); peerVanishes() takes the
 * namespace's end down, so that every packet to the peer is lost, and
 * peerReturns() brings it up again.
 *
 * This side keeps a fixed neighbour entry for the peer: without it the
 * system would look for the vanished peer by ARP, fail, and report "No
 * route to host" to the sockets after about 3 s. With it, the peer is
 * silent like a host behind a router that crashed or lost its path: the
 * packets go out and nothing answers.
 *
 * For the bad-network tests the pair can lose packets at random
 * (dropRandomly), be slow (limitRate) and go down and up (peerVanishes,
 * peerReturns).
 *
 * Needs root (CAP_NET_ADMIN and CAP_SYS_ADMIN) and iproute2's `ip`; when the
 * network cannot be made, usable() is false and problem() says why, for
 * GTEST_SKIP. Names carry the process id and a counter, so that processes
 * running side by side do not meet; the destructor removes the namespace
 * and both ends of the pair, whatever the test did.
 */
class TestNetwork {
public:
    TestNetwork();  // makes the namespace and the pair, both ends up
    ~TestNetwork(); // removes what the constructor made
    TestNetwork(const TestNetwork&) = delete;
    TestNetwork& operator=(const TestNetwork&) = delete;

    bool usable() const { return ready; }
    /** Why the network could not be made; empty when usable. */
    const std::string& problem() const { return why; }

    /** The namespace's address, where a broker made by runInside listens. */
    const std::string& peerAddress() const { return peer; }
    /** This side's address. */
    const std::string& hostAddress() const { return host; }
    const std::string& namespaceName() const { return name; }

    /** Takes the namespace's end down: the peer vanishes without a word. False (and problem()) on failure. */
    bool peerVanishes();
    /** Brings the namespace's end up again. False (and problem()) on failure. */
    bool peerReturns();

    /**
     * Drops percent of the packets at random in each direction (nftables
     * in the namespace: `numgen random mod 100 < percent drop` on its input
     * and its output). Needs `nft`; false (and problem()) otherwise.
     */
    bool dropRandomly(int percent);
    /**
     * Limits each direction of the pair to rate (tc's token bucket on both
     * ends, e.g. "256kbit", burst 16 kbit, 400 ms of queue).
     */
    bool limitRate(const std::string& rate);
    /** A TCP socket of the namespace listening on peerAddress() at a free port, or -1 (and problem()). */
    int listenInside();

    /**
     * Runs work on a new thread that has entered the namespace, and waits for
     * it. Sockets made by work belong to the namespace for their whole life,
     * and so does every thread work starts. False (and problem()) if the
     * namespace could not be entered; work did not run then.
     */
    bool runInside(const std::function<void()>& work);

private:
    bool make();
    bool pickSubnet(int k);
    bool ip(const std::vector<std::string>& args, std::string* output = nullptr);
    /** Runs program (a full path) with args; its output (and error) to output. */
    bool run(const std::string& program, const std::vector<std::string>& args, std::string* output = nullptr);
    /** Runs program with args inside the namespace (`ip netns exec`). */
    bool inside(const std::vector<std::string>& command);

    std::string ipPath;
    std::string name;     // the namespace
    std::string hostLink; // the pair's end on this side
    std::string peerLink; // the pair's end in the namespace
    std::string host;
    std::string peer;
    bool namespaceMade = false;
    bool linkMade = false;
    bool ready = false;
    std::string why;
};

} // namespace test
} // namespace tavren

#endif
