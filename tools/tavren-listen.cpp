// SPDX-License-Identifier: Apache-2.0
// tavren-listen: prints the messages of a queue of a STOMP broker. See
// tools/man/tavren-listen.1.
//
//   tavren-listen [OPTIONS] QUEUE

#include "ToolSupport.h"

#include <signal.h>

#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

using namespace tavren_tools;

namespace {

const char* const kTool = "tavren-listen";

// After the last message's listener returned, the library writes its ACK
// within about 20 ms; this much wait lets it reach the broker before the
// connection is closed.
const int kAckSettleMs = 300;

volatile sig_atomic_t interrupted = 0;

void onSignal(int) { interrupted = 1; }

struct ListenOptions {
    ConnectionOptions connection;
    std::string queue;
    bool headers = false;
    bool nack = false;
    long count = 0;      // 0: no limit
    double timeout = -1; // seconds; below 0: none
};

void printHelp() {
    std::printf("Usage: tavren-listen [OPTIONS] QUEUE\n"
                "Prints every message of the queue QUEUE (destination /queue/QUEUE) of a STOMP\n"
                "broker, one message body per line, and acknowledges each one after printing it.\n"
                "Runs until -n messages came, -t passed, or an interrupt (Ctrl-C).\n"
                "\n"
                "Messages:\n"
                "  -n, --count N                stop after N messages\n"
                "  -t, --timeout SECS           stop after SECS\n"
                "      --headers                print each message's headers (NAME:VALUE lines),\n"
                "                               an empty line, the body and an empty line\n"
                "      --nack                   reject (NACK) each message instead of acknowledging it\n"
                "\n%s"
                "\n"
                "Exit status: 0 got N messages (or listened until -t or an interrupt without -n),\n"
                "2 wrong arguments, 3 cannot connect, 4 fewer than N messages before -t or an\n"
                "interrupt, 1 any other failure (the broker refused the subscription).\n",
                commonOptionsHelp());
}

enum OwnOptionId { kOptHeaders = 500, kOptNack };

ListenOptions parse(int argc, char** argv) {
    ListenOptions options;
    std::vector<struct option> table = withCommonOptions({
        {"count", required_argument, nullptr, 'n'},
        {"timeout", required_argument, nullptr, 't'},
        {"headers", no_argument, nullptr, kOptHeaders},
        {"nack", no_argument, nullptr, kOptNack},
    });
    opterr = 0; // our own messages
    int id;
    while ((id = getopt_long(argc, argv, ":n:t:vh", table.data(), nullptr)) != -1) {
        switch (id) {
        case 'n': options.count = parseInteger(optarg, "--count", 1, 1000000000); break;
        case 't': options.timeout = parseSeconds(optarg, "--timeout"); break;
        case kOptHeaders: options.headers = true; break;
        case kOptNack: options.nack = true; break;
        default: applyOtherOption(id, argv, &printHelp, &options.connection);
        }
    }
    const int rest = argc - optind;
    if (rest < 1) throw UsageError("no QUEUE given");
    if (rest > 1) throw UsageError("too many arguments");
    options.queue = queueArgument(argv[optind]);
    checkCommonOptions(options.connection);
    return options;
}

// Prints each message and answers it. The client runs one listener call at a
// time (setMaxWorkers(1)), so messages print in the order the broker sent
// them. A message beyond the count is held, unprinted, until the connection
// is closed: the library then leaves it unacknowledged and the broker keeps it.
class Printer : public tavren::Listener {
public:
    Printer(const ListenOptions& options) : options(options) {}

    int onMessage(kelvra::SharedPtr<tavren::Message> message) override {
        std::unique_lock<std::mutex> lock(mutex);
        if (closing || (options.count > 0 && printed >= options.count)) {
            ++held;
            changed.wait(lock, [this] { return released; });
            --held;
            changed.notify_all();
            return 1;
        }
        if (options.headers) {
            for (const auto& header : message->headers())
                std::printf("%s:%s\n", header.first.c_str(), header.second.c_str());
            std::printf("\n%s\n\n", message->text());
        } else {
            std::printf("%s\n", message->text());
        }
        std::fflush(stdout);
        ++printed;
        changed.notify_all();
        return options.nack ? 1 : 0;
    }

    long count() {
        std::lock_guard<std::mutex> lock(mutex);
        return printed;
    }

    /** From now on every call is held. */
    void close() {
        std::lock_guard<std::mutex> lock(mutex);
        closing = true;
    }

    /** Lets held calls return (the connection is closed by then) and waits until they did. */
    void release() {
        std::unique_lock<std::mutex> lock(mutex);
        released = true;
        changed.notify_all();
        changed.wait(lock, [this] { return held == 0; });
    }

private:
    const ListenOptions& options;
    std::mutex mutex;
    std::condition_variable changed;
    long printed = 0;
    int held = 0;
    bool closing = false;
    bool released = false;
};

int run(const ListenOptions& options) {
    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);

    ToolLogger logger(kTool, options.connection.verbose);
    Printer printer(options);
    OpenedClient opened(options.connection, logger, nullptr);
    if (!opened.waitConnected(kTool)) opened.exitWith(kExitCannotConnect);
    tavren::StompClient* client = &opened.client();
    client->setMaxWorkers(1);

    client->listenOnQueue(options.queue, &printer);
    int status = kExitOk;
    if (logger.sawLineStartingWith("Failed to subscribe to destination ")) {
        std::fprintf(stderr, "%s: the broker refused the subscription to /queue/%s: %s\n", kTool, options.queue.c_str(),
                     logger.lastError().c_str());
        status = kExitFailure;
    } else {
        const bool done = waitUntil(
            [&] { return interrupted || (options.count > 0 && printer.count() >= options.count); }, options.timeout);
        if (options.count > 0 && printer.count() < options.count) {
            std::fprintf(stderr, "%s: %ld of %ld messages %s\n", kTool, printer.count(), options.count,
                         done ? "before the interrupt" : "before the time-out");
            status = kExitTimedOut;
        }
    }
    printer.close();
    if (printer.count() > 0) std::this_thread::sleep_for(std::chrono::milliseconds(kAckSettleMs));
    client->closeConnection();
    printer.release();
    return status;
}

} // namespace

int main(int argc, char** argv) {
    try {
        return run(parse(argc, argv));
    } catch (UsageError& e) {
        std::fprintf(stderr, "%s: %s\nTry '%s --help'.\n", kTool, e.what(), kTool);
        return kExitUsage;
    } catch (std::exception& e) {
        std::fprintf(stderr, "%s: %s\n", kTool, e.what());
        return kExitFailure;
    }
}
