// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_TEST_TOOLPROCESS_H
#define TAVREN_TEST_TOOLPROCESS_H

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <string>
#include <vector>

namespace tavren {
namespace test {

/** How a command-line tool ended and what it printed. */
struct ToolResult {
    int status = -1; // exit status, or 128 + signal, or -1 when it could not run
    std::string out;
    std::string err;
    double seconds = 0; // how long it ran
};

/**
 * Runs the program at path with args, feeding it input on standard input,
 * and collects both outputs. A run longer than timeoutMs is ended with
 * SIGKILL (status 137). Plain fork and exec: the child calls nothing else
 * before exec, so the test's own threads do not matter.
 */
inline ToolResult runTool(const std::string& path, const std::vector<std::string>& args, const std::string& input = "",
                          int timeoutMs = 60000) {
    ToolResult result;
    const auto started = std::chrono::steady_clock::now();
    std::vector<std::string> words{path};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& w : words) argv.push_back(&w[0]);
    argv.push_back(nullptr);

    int in[2], out[2], err[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) return result;
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(in[0], 0);
        dup2(out[1], 1);
        dup2(err[1], 2);
        execv(argv[0], argv.data());
        _exit(126);
    }
    close(in[0]);
    close(out[1]);
    close(err[1]);
    if (pid < 0) {
        close(in[1]);
        close(out[0]);
        close(err[0]);
        return result;
    }
    // A tool that exits without reading its input must not stop us with SIGPIPE.
    signal(SIGPIPE, SIG_IGN);
    size_t written = 0;
    int inFd = in[1];
    if (input.empty()) {
        close(inFd);
        inFd = -1;
    }
    int outFd = out[0], errFd = err[0];
    const auto deadline = started + std::chrono::milliseconds(timeoutMs);
    bool killed = false;
    while (outFd >= 0 || errFd >= 0) {
        const int left = static_cast<int>(
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count());
        if (left <= 0 && !killed) {
            kill(pid, SIGKILL);
            killed = true;
        }
        struct pollfd fds[3] = {{outFd, POLLIN, 0}, {errFd, POLLIN, 0}, {inFd, POLLOUT, 0}};
        if (poll(fds, 3, left > 0 ? left : 1000) < 0) continue;
        char buffer[4096];
        for (int i = 0; i < 2; ++i) {
            int& fd = i == 0 ? outFd : errFd;
            if (fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
            const ssize_t n = read(fd, buffer, sizeof buffer);
            if (n > 0) {
                (i == 0 ? result.out : result.err).append(buffer, static_cast<size_t>(n));
            } else {
                close(fd);
                fd = -1;
            }
        }
        if (inFd >= 0 && (fds[2].revents & (POLLOUT | POLLERR | POLLHUP))) {
            const ssize_t n = write(inFd, input.data() + written, input.size() - written);
            if (n > 0) written += static_cast<size_t>(n);
            if (n <= 0 || written == input.size()) {
                close(inFd);
                inFd = -1;
            }
        }
    }
    if (inFd >= 0) close(inFd);
    int status = 0;
    waitpid(pid, &status, 0);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    return result;
}

/** runTool on a thread of its own, for a test that plays the broker meanwhile. */
inline std::future<ToolResult> startTool(const std::string& path, const std::vector<std::string>& args,
                                         const std::string& input = "", int timeoutMs = 60000) {
    return std::async(std::launch::async, [=] { return runTool(path, args, input, timeoutMs); });
}

} // namespace test
} // namespace tavren

#endif
