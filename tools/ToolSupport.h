// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_TOOLS_TOOLSUPPORT_H
#define TAVREN_TOOLS_TOOLSUPPORT_H

// What tavren-send and tavren-listen share: exit codes, the connection
// options and their parsing, a logger that stays quiet unless asked, and the
// connect-or-give-up step. Public API of libtavren only.

#include <tavren/TlsOptions.h>
#include <tavren/tavren.h>

#include <getopt.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace tavren_tools {

// Documented in the man pages; the tests check them.
enum ExitCode {
    kExitOk = 0,
    kExitFailure = 1,       // anything else: the broker refused a subscription, an unexpected error
    kExitUsage = 2,         // wrong arguments, unreadable input
    kExitCannotConnect = 3, // no session within the connect time-out
    kExitTimedOut = 4,      // tavren-listen: fewer than -n messages before -t or an interrupt
    kExitSendFailed = 5,    // tavren-send: connection lost, message refused or not confirmed
    kExitKept = 6           // tavren-send --outbox: not all confirmed, the rest kept for the next run
};

/** A wrong argument; main prints what() with the usage hint and exits with kExitUsage. */
class UsageError : public std::runtime_error {
public:
    explicit UsageError(const std::string& what) : std::runtime_error(what) {}
};

/** Where to connect and how; the same options for every tool. */
struct ConnectionOptions {
    std::string host = "127.0.0.1";
    int port = 61613;
    std::string login;
    std::string passcode;
    bool credentials = false;     // --login or --passcode given
    std::string protocol = "1.2"; // the one version offered in CONNECT
    std::pair<std::string, std::string> heartbeat{"0", "0"};
    double connectTimeout = 5; // seconds
    bool verbose = false;
    bool tls = false;            // --tls, or implied by --ca, --cert or --key
    tavren::TlsOptions tlsFiles; // the files of --ca, --cert and --key
};

// Option ids of the shared long options; a tool's own options use
// characters or ids below these.
enum CommonOptionId {
    kOptHost = 1000,
    kOptPort,
    kOptLogin,
    kOptPasscode,
    kOptProtocol,
    kOptHeartbeat,
    kOptConnectTimeout,
    kOptHelp,
    kOptVerbose,
    kOptTls,
    kOptCa,
    kOptCert,
    kOptKey
};

/** own, followed by the shared options and the terminating entry, for getopt_long. */
std::vector<struct option> withCommonOptions(std::vector<struct option> own);

/** The shared options' lines for --help. */
const char* commonOptionsHelp();

/** Applies a shared option; false when id is none of them. Throws UsageError for a bad value. */
bool applyCommonOption(int id, const char* value, ConnectionOptions* options);

/**
 * What every tool does with a getopt_long result that is not one of its own
 * options: -v, -h and --help (printHelp, then exit 0), a missing value or an
 * unknown option (UsageError), and the shared options.
 */
void applyOtherOption(int id, char* const argv[], void (*printHelp)(), ConnectionOptions* options);

/**
 * Checks the shared options together once all are parsed: --cert and --key
 * go together, and the files of --ca, --cert and --key must be readable
 * (UsageError otherwise, before anything reaches the broker).
 */
void checkCommonOptions(const ConnectionOptions& options);

/** A whole decimal number within [min, max]; what names it in the error. */
long parseInteger(const char* text, const char* what, long min, long max);
/** Seconds, fractions allowed, more than 0. */
double parseSeconds(const char* text, const char* what);

/**
 * The QUEUE argument as the library takes it: "orders" for "orders" and
 * "/queue/orders" (the library adds the prefix itself). UsageError when empty.
 */
std::string queueArgument(const std::string& queue);

/**
 * Keeps the library's log off the terminal unless verbose (then it goes to
 * standard error as "[tavren] ..."), and watches it: the library has no
 * error returns for what happens on the connection, only its log lines.
 */
class ToolLogger : public tavren::Logger {
public:
    ToolLogger(std::string tool, bool verbose);

    void logInfo(const std::string& message) override;
    void logError(const std::string& message) override;

    /** The last error line, without the library's "Failed to connect on first try, " lead. */
    std::string lastError() const;
    /** Whether a line equal to text, or starting with it, was logged. */
    bool sawLineStartingWith(const std::string& text) const;
    /** How often the library logged "Disconnected!" (a connection lost, not closed). */
    int disconnections() const;

    /** The broker's reason for the first message it refused (the library logs each), empty if none. */
    std::string refusal() const;

private:
    void note(const std::string& line);

    const std::string tool;
    const bool verbose;
    mutable std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::string> lines;
    std::string last;
    int lost = 0;
    std::string refused;
};

/** A client whose first connection attempt runs on a thread of its own, so that waiting for it is bounded. */
class OpenedClient {
public:
    OpenedClient(const ConnectionOptions& options, ToolLogger& logger, const tavren::OutboxOptions* outbox);
    ~OpenedClient();
    OpenedClient(const OpenedClient&) = delete;
    OpenedClient& operator=(const OpenedClient&) = delete;

    tavren::StompClient& client() { return *stompClient; }
    /**
     * Waits up to options.connectTimeout, the first attempt (TCP, TLS
     * handshake and CONNECTED) included, for the connection to stand. On
     * failure prints why to standard error and returns false.
     */
    bool waitConnected(const char* tool);
    /**
     * Ends the process with status. When the first attempt is still under
     * way (a broker that accepts and never answers), the client cannot be
     * closed before it ends: the process then ends without waiting for it.
     */
    [[noreturn]] void exitWith(int status);

private:
    const ConnectionOptions& options;
    ToolLogger& logger;
    std::unique_ptr<tavren::StompClient> stompClient;
    std::thread opener;
    std::string openFailureText();

    std::atomic<bool> openReturned{false};
    std::mutex failureMutex;
    std::string openFailure; // what openConnection threw, if it did
};

/** Polls done() every 20 ms for up to seconds (forever when seconds < 0); returns done(). */
template <typename Done>
bool waitUntil(Done done, double seconds) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!done()) {
        if (seconds >= 0 && std::chrono::steady_clock::now() >= until) return done();
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

} // namespace tavren_tools

#endif
