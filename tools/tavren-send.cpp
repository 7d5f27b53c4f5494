// SPDX-License-Identifier: Apache-2.0
// tavren-send: sends text to a queue of a STOMP broker. See tools/man/tavren-send.1.
//
//   tavren-send [OPTIONS] QUEUE [TEXT]

#include "ToolSupport.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

using namespace tavren_tools;

namespace {

const char* const kTool = "tavren-send";

struct SendOptions {
    ConnectionOptions connection;
    std::string queue;
    std::string text;
    bool hasText = false;
    std::string file;
    tavren::HeaderMap headers;
    double timeout = 10; // seconds to wait for the broker's receipts
    std::string outbox;  // --outbox FILE: what is not confirmed is kept there for the next run
};

void printHelp() {
    std::printf("Usage: tavren-send [OPTIONS] QUEUE [TEXT]\n"
                "Sends TEXT to the queue QUEUE (destination /queue/QUEUE) of a STOMP broker;\n"
                "without TEXT, the content of -f FILE as one message, or else each line of\n"
                "standard input as a message of its own. Waits until the broker has\n"
                "confirmed every message; a lost connection is made again and what it did\n"
                "not confirm is sent again.\n"
                "\n"
                "Message:\n"
                "  -f, --file FILE              send the content of FILE as one message\n"
                "  -H, --header NAME:VALUE      add a header to every message (repeatable)\n"
                "  -t, --timeout SECS           wait SECS for the broker's receipts (default 10)\n"
                "      --outbox FILE            keep the messages in FILE until confirmed; what is\n"
                "                               not confirmed in time is sent by the next run\n"
                "\n%s"
                "\n"
                "Exit status: 0 sent and confirmed, 2 wrong arguments or unreadable input,\n"
                "3 cannot connect, 5 connection lost, message refused or not confirmed in time,\n"
                "6 with --outbox: not all confirmed in time, the rest kept in FILE,\n"
                "1 any other failure.\n",
                commonOptionsHelp());
}

bool hasBadByte(const std::string& text, char bad) { return text.find(bad) != std::string::npos; }

SendOptions parse(int argc, char** argv) {
    SendOptions options;
    std::vector<struct option> table = withCommonOptions({
        {"file", required_argument, nullptr, 'f'},
        {"header", required_argument, nullptr, 'H'},
        {"timeout", required_argument, nullptr, 't'},
        {"outbox", required_argument, nullptr, 'o'},
    });
    opterr = 0; // our own messages
    int id;
    while ((id = getopt_long(argc, argv, ":f:H:t:vh", table.data(), nullptr)) != -1) {
        switch (id) {
        case 'f': options.file = optarg; break;
        case 'H': {
            const std::string header = optarg;
            const size_t colon = header.find(':');
            if (colon == std::string::npos || colon == 0)
                throw UsageError("--header must be NAME:VALUE, not '" + header + "'");
            if (hasBadByte(header, '\n') || hasBadByte(header, '\r'))
                throw UsageError("--header must not contain a line break");
            options.headers[header.substr(0, colon)] = header.substr(colon + 1);
            break;
        }
        case 't': options.timeout = parseSeconds(optarg, "--timeout"); break;
        case 'o':
            if (*optarg == '\0') throw UsageError("--outbox needs a FILE");
            options.outbox = optarg;
            break;
        default: applyOtherOption(id, argv, &printHelp, &options.connection);
        }
    }
    const int rest = argc - optind;
    if (rest < 1) throw UsageError("no QUEUE given");
    if (rest > 2) throw UsageError("too many arguments (put a TEXT with spaces in quotes)");
    options.queue = queueArgument(argv[optind]);
    checkCommonOptions(options.connection);
    if (rest == 2) {
        options.text = argv[optind + 1];
        options.hasText = true;
    }
    if (options.hasText && !options.file.empty()) throw UsageError("give either TEXT or --file, not both");
    return options;
}

// The library sends a C string, so a message ends at its first NUL byte.
std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw UsageError("cannot read " + path + ": " + std::strerror(errno));
    std::ostringstream content;
    content << in.rdbuf();
    if (in.bad()) throw UsageError("cannot read " + path);
    const std::string text = content.str();
    if (hasBadByte(text, '\0')) throw UsageError(path + " contains a NUL byte; only text can be sent");
    return text;
}

// Hands the messages to the client's outbox, which keeps each until the
// broker confirms it and sends again what a lost connection took.
class Sender {
public:
    Sender(tavren::StompClient& client, ToolLogger& logger, const SendOptions& options)
        : client(client), logger(logger), options(options) {}

    void send(const std::string& text) {
        tavren::HeaderMap headers = options.headers;
        client.sendToQueue(options.queue, text.c_str(), &headers);
        ++sent;
    }

    int confirm() {
        const bool all = client.waitForConfirmations(static_cast<long>(options.timeout * 1000));
        const std::string refusal = logger.refusal();
        if (!refusal.empty()) {
            std::fprintf(stderr, "%s: the broker refused the message: %s\n", kTool, refusal.c_str());
            return kExitSendFailed;
        }
        if (all) return kExitOk;
        const size_t left = client.pendingMessages();
        if (!options.outbox.empty()) {
            std::fprintf(stderr, "%s: %zu message%s not confirmed within %g s; kept in %s for the next run\n", kTool,
                         left, left == 1 ? "" : "s", options.timeout, options.outbox.c_str());
            return kExitKept;
        }
        if (logger.disconnections() > 0) {
            std::fprintf(stderr, "%s: the connection was lost while sending message %d: %s\n", kTool, sent,
                         logger.lastError().c_str());
            return kExitSendFailed;
        }
        std::fprintf(stderr, "%s: the broker did not confirm %zu message%s within %g s\n", kTool, left,
                     left == 1 ? "" : "s", options.timeout);
        return kExitSendFailed;
    }

private:
    tavren::StompClient& client;
    ToolLogger& logger;
    const SendOptions& options;
    int sent = 0;
};

int run(const SendOptions& options) {
    // Read a file before connecting: a wrong path is a usage error, not a failed send.
    std::string fileText;
    if (!options.file.empty()) fileText = readFile(options.file);

    ToolLogger logger(kTool, options.connection.verbose);
    tavren::OutboxOptions outbox;
    outbox.file = options.outbox;
    OpenedClient opened(options.connection, logger, &outbox);
    // With a file the messages are kept even when no broker answers: the
    // next run sends them.
    if (!opened.waitConnected(kTool) && options.outbox.empty()) opened.exitWith(kExitCannotConnect);

    Sender sender(opened.client(), logger, options);
    int status = kExitOk;
    if (options.hasText || !options.file.empty()) {
        sender.send(options.hasText ? options.text : fileText);
    } else {
        std::string line;
        while (std::getline(std::cin, line)) {
            if (hasBadByte(line, '\0')) {
                std::fprintf(stderr, "%s: a line of standard input contains a NUL byte; only text can be sent\n",
                             kTool);
                status = kExitUsage;
                break;
            }
            sender.send(line);
        }
    }
    // Even after a bad line, what went out is confirmed, so the operator
    // knows whether the lines before it arrived.
    const int confirmed = sender.confirm();
    if (status == kExitOk) status = confirmed;
    opened.client().closeConnection();
    opened.exitWith(status);
}

} // namespace

int main(int argc, char** argv) {
    SendOptions options;
    try {
        options = parse(argc, argv);
        return run(options);
    } catch (UsageError& e) {
        std::fprintf(stderr, "%s: %s\nTry '%s --help'.\n", kTool, e.what(), kTool);
        return kExitUsage;
    } catch (std::exception& e) {
        std::fprintf(stderr, "%s: %s\n", kTool, e.what());
        return kExitFailure;
    }
}
