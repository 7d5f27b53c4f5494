// SPDX-License-Identifier: Apache-2.0
// A process adding to a file outbox under Crash is killed at random moments
// (about 4 s; over 20 s under the sanitizers, which add nothing to it here):
// every message whose add had returned is in the file afterwards.
#include "support/Memory.h"
#include "support/OutboxFiles.h"
#include "support/TempFolder.h"

#include <kelvra/utility/Version.h>
#include <tavren/StompClient.h>

#include <gtest/gtest.h>

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <random>
#include <set>

namespace tavren {
namespace test {
namespace {

#ifdef TAVREN_FILE_OUTBOX

/** The child: adds numbered messages from first on and writes each number to out once its add returned. */
[[noreturn]] void addUntilKilled(const std::string& path, int first, int out) {
    try {
        tavren::OutboxOptions options = fileOptions(path, tavren::OutboxOptions::Crash);
        options.maxMessages = 10000000;
        options.maxBytes = 1024 * 1024 * 1024;
        auto store = internal::openFileOutbox(options, nullptr);
        for (int n = first;; ++n) {
            store->add("/queue/numbers", HeaderMap{{"n", std::to_string(n)}}, "message " + std::to_string(n), nullptr);
            if (write(out, &n, sizeof n) != sizeof n) _exit(2);
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "the child failed: %s\n", e.what());
        _exit(3);
    }
}

/** A log that goes nowhere, for the client in the child. */
class QuietLogger : public tavren::Logger {
public:
    void logInfo(const std::string&) override {}
    void logError(const std::string&) override {}
};

/** The child: sends numbered messages through a client's file outbox, with no broker, reporting each sent. */
[[noreturn]] void sendUntilKilled(const std::string& path, int first, int out) {
    try {
        QuietLogger log;
        // Port 1 refuses at once; the next attempt is a minute away.
        tavren::StompClient client("127.0.0.1", 1, &log, nullptr);
        tavren::OutboxOptions options = fileOptions(path, tavren::OutboxOptions::Crash);
        options.maxMessages = 10000000;
        options.maxBytes = 1024 * 1024 * 1024;
        client.useOutbox(options);
        client.openConnection(60000, kelvra::utility::Version("1.2"));
        for (int n = first;; ++n) {
            client.sendToQueue("numbers", ("message " + std::to_string(n)).c_str(), nullptr);
            if (write(out, &n, sizeof n) != sizeof n) _exit(2);
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "the child failed: %s\n", e.what());
        _exit(3);
    }
}

/** The numbers the child reported, read until it is gone. */
std::vector<int> reported(int in) {
    std::vector<int> numbers;
    int n;
    while (read(in, &n, sizeof n) == sizeof n) numbers.push_back(n);
    return numbers;
}

/** Twenty times: a child started by run(path, first, pipe) is killed at a random moment; nothing it reported is lost.
 */
void killTwentyTimes(void (*run)(const std::string&, int, int), int (*numberOf)(const internal::OutboxEntry&)) {
    TempFolder folder;
    const std::string path = folder.file("outbox.db");
    std::mt19937 random(std::random_device{}());
    std::uniform_int_distribution<int> delayMs(5, 150);
    std::set<int> accepted;
    for (int round = 0; round < 20; ++round) {
        int pipeEnds[2];
        ASSERT_EQ(0, pipe(pipeEnds));
        const pid_t child = fork();
        ASSERT_LE(0, child);
        if (child == 0) {
            close(pipeEnds[0]);
            run(path, round * 1000000, pipeEnds[1]);
        }
        close(pipeEnds[1]);
        // Killed once it has added something, at a random moment after.
        pollfd ready{pipeEnds[0], POLLIN, 0};
        ASSERT_EQ(1, poll(&ready, 1, 20000)) << "the child added nothing";
        usleep(static_cast<useconds_t>(delayMs(random)) * 1000);
        ASSERT_EQ(0, kill(child, SIGKILL));
        int status = 0;
        ASSERT_EQ(child, waitpid(child, &status, 0));
        ASSERT_TRUE(WIFSIGNALED(status)) << "the child ended by itself: " << status;
        const std::vector<int> numbers = reported(pipeEnds[0]);
        close(pipeEnds[0]);
        ASSERT_FALSE(numbers.empty());
        accepted.insert(numbers.begin(), numbers.end());

        auto store = openOutbox(fileOptions(path, tavren::OutboxOptions::Crash));
        std::set<int> found;
        std::uint64_t previous = 0;
        for (const internal::OutboxEntry& entry : readAll(*store)) {
            EXPECT_LT(previous, entry.sequence);
            previous = entry.sequence;
            found.insert(numberOf(entry));
        }
        for (int n : accepted) ASSERT_EQ(1u, found.count(n)) << "message " << n << " was lost in round " << round;
        EXPECT_EQ(found.size(), store->count());
    }
}

TEST(OutboxCrash, EveryMessageAddedBeforeAKillIsKept) {
    SKIP_UNDER_VALGRIND();
    killTwentyTimes(&addUntilKilled, [](const internal::OutboxEntry& e) { return std::stoi(e.headers.at("n")); });
}

TEST(OutboxCrash, EveryMessageSentBeforeAKillIsKept) {
    SKIP_UNDER_VALGRIND();
    killTwentyTimes(&sendUntilKilled, [](const internal::OutboxEntry& e) { return std::stoi(e.body.substr(8)); });
}

#endif

} // namespace
} // namespace test
} // namespace tavren
