// SPDX-License-Identifier: Apache-2.0
// A program the application starts does not inherit the library's
// descriptors: the connection to the broker ends with the client, not when
// the last such program ends.

#include "support/EngineFixture.h"
#include "support/RecordingListener.h"
#include "support/TempFolder.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <set>
#include <string>

extern char** environ;

namespace {

using tavren::OutboxOptions;
using tavren::test::EngineTest;
using tavren::test::RecordingListener;
using tavren::test::TempFolder;

/** The open descriptors of this process. */
std::set<int> openDescriptors() {
    std::set<int> fds;
    DIR* dir = opendir("/proc/self/fd");
    if (!dir) return fds;
    const int own = dirfd(dir);
    while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] == '.') continue;
        const int fd = std::atoi(entry->d_name);
        if (fd != own) fds.insert(fd);
    }
    closedir(dir);
    return fds;
}

/** What fd is, as /proc names it ("socket:[123]", a file's path). */
std::string whatIs(int fd) {
    char target[512] = {};
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    const ssize_t n = readlink(link.c_str(), target, sizeof target - 1);
    return n > 0 ? std::string(target, static_cast<size_t>(n)) : "?";
}

/** A child program that lives until it is ended: sleep, started with posix_spawn. */
class ChildProgram {
public:
    ChildProgram() {
        char sleepName[] = "sleep";
        char seconds[] = "60";
        char* argv[] = {sleepName, seconds, nullptr};
        started = posix_spawnp(&pid, "sleep", nullptr, nullptr, argv, environ) == 0;
    }
    ~ChildProgram() {
        if (!started) return;
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    bool started = false;
    pid_t pid = -1;
};

class Descriptors : public EngineTest {
protected:
    /** A connected client with a file outbox, a listener and one message each way. */
    void connectWithEverything() {
        broker.setSendReply(tavren::test::FakeBroker::ReceiptReply::Receipt);
        makeClient();
        OutboxOptions options;
        options.file = folder.file("outbox.db");
        client->useOutbox(options);
        connect();
        listen("in", &listener);
        ASSERT_TRUE(broker.pushMessage("/queue/in", "hello"));
        ASSERT_TRUE(listener.waitFinished(1));
        client->sendToQueue("out", "hello", nullptr);
        ASSERT_TRUE(client->waitForConfirmations(5000));
    }

    TempFolder folder;
    RecordingListener listener;
};

TEST_F(Descriptors, EveryDescriptorTheLibraryOpensIsClosedOnExec) {
    const std::set<int> before = openDescriptors();
    connectWithEverything();
    int opened = 0;
    for (int fd : openDescriptors()) {
        if (before.count(fd)) continue;
        ++opened;
        const int flags = fcntl(fd, F_GETFD);
        EXPECT_TRUE(flags >= 0 && (flags & FD_CLOEXEC)) << "descriptor " << fd << " (" << whatIs(fd) << ")";
    }
    // The socket, the listen thread's wake-up and the outbox's files at least.
    EXPECT_GE(opened, 3);
}

TEST_F(Descriptors, TheConnectionEndsWithTheClientThoughAProgramStartedMeanwhileRuns) {
    connectWithEverything();
    ChildProgram child;
    ASSERT_TRUE(child.started);
    // closeConnection leaves the socket as it is; the client's end closes it.
    client.reset();
    // With the socket passed on to the child, the broker would see the
    // connection end only with the child.
    EXPECT_TRUE(broker.waitForClientClosed(5000));
}

} // namespace
