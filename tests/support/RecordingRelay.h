// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_TEST_RECORDINGRELAY_H
#define TAVREN_TEST_RECORDINGRELAY_H

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace tavren {
namespace test {

/**
 * A TCP relay on an ephemeral 127.0.0.1 port in front of a real broker: it
 * passes every byte both ways unchanged and keeps a copy of what the broker
 * sent, so a test can see the order in which frames crossed the wire (the
 * client hands each message to its listener on a thread of its own, so the
 * order of the listener's calls is not the order of the wire).
 */
class RecordingRelay {
public:
    explicit RecordingRelay(int brokerPort);
    /**
     * A relay that accepts on listeningSocket (bound and listening, e.g.
     * made inside a TestNetwork's namespace) and takes it over; the
     * connections to the broker are made in this process's own network.
     */
    RecordingRelay(int brokerPort, int listeningSocket);
    ~RecordingRelay();
    RecordingRelay(const RecordingRelay&) = delete;
    RecordingRelay& operator=(const RecordingRelay&) = delete;

    int port() const { return listenPort; }

    /** Every byte the broker has sent so far, over all connections. */
    std::string fromBroker();

    /** The values of header name in the order they crossed, as "\nname:value" lines. */
    std::vector<std::string> headerValuesFromBroker(const std::string& name);

    /**
     * From now on every chunk read, either way, is passed on ms milliseconds
     * later, plus up to jitterMs at random; the bytes keep their order (a
     * stream cannot reorder), so a later chunk never overtakes an earlier
     * one. 0 and 0: passed on at once.
     */
    void setDelay(int ms, int jitterMs);

    /** From now on keeps no copy of what the broker sends (for runs of hours, whose copy would only grow). */
    void stopRecording() { recording = false; }

private:
    /** Joins the pumps whose connection has ended (the caller holds mutex). */
    void reapFinished();

    void start();
    void acceptLoop();
    void pump(int client, int broker);

    const int brokerPort;
    int listener = -1;
    int listenPort = 0;
    int stopPipe[2] = {-1, -1};
    std::atomic<bool> stopping{false};
    std::atomic<int> delayMs{0};
    std::atomic<int> jitterMs{0};
    std::atomic<bool> recording{true};
    std::mutex mutex;
    std::string recorded;
    std::vector<std::thread> pumps;
    std::vector<std::thread::id> finished; // pumps whose connection has ended, to be joined
    std::thread acceptor;
};

} // namespace test
} // namespace tavren

#endif
