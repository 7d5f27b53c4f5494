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
    double timeout = 10; // seconds to wait for the broker's receipt
};

void printHelp() {
    std::printf("Usage: tavren-send [OPTIONS] QUEUE [TEXT]\n"
                "Sends TEXT to the queue QUEUE (destination /queue/QUEUE) of a STOMP broker;\n"
                "without TEXT, the content of -f FILE as one message, or else each line of\n"
                "standard input as a message of its own. Waits for the broker's receipt.\n"
                "\n"
                "Message:\n"
                "  -f, --file FILE              send the content of FILE as one message\n"
                "  -H, --header NAME:VALUE      add a header to every message (repeatable)\n"
                "  -t, --timeout SECS           wait SECS for the broker's receipt (default 10)\n"
                "\n%s"
                "\n"
                "Exit status: 0 sent and confirmed, 2 wrong arguments or unreadable input,\n"
                "3 cannot connect, 5 connection lost, message refused or not confirmed in time,\n"
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

// Sends the messages one by one; each asks for a receipt, and the broker
// answers them in order, so the receipt of the last one confirms them all.
class Sender {
public:
    Sender(tavren::StompClient& client, ToolLogger& logger, const SendOptions& options)
        : client(client),
          logger(logger),
          options(options),
          prefix(kTool + std::string("-") + std::to_string(getpid()) + "-") {}

    // False once the connection went (the library logged "Disconnected!").
    bool send(const std::string& text) {
        tavren::HeaderMap headers = options.headers;
        const std::string receipt = prefix + std::to_string(++sent);
        headers["receipt"] = receipt;
        logger.expectReceipt(receipt);
        client.sendToQueue(options.queue, text.c_str(), &headers);
        return logger.disconnections() == 0;
    }

    int confirm() {
        if (sent == 0) return kExitOk;
        std::string detail;
        const ToolLogger::Receipt answer = logger.waitForReceipt(options.timeout, &detail);
        // A broker that refuses a message usually closes the connection too.
        if (answer == ToolLogger::Receipt::Refused) {
            std::fprintf(stderr, "%s: the broker refused the message: %s\n", kTool, detail.c_str());
            return kExitSendFailed;
        }
        if (logger.disconnections() > 0) return lost();
        if (answer == ToolLogger::Receipt::Waiting) {
            std::fprintf(stderr, "%s: the broker did not confirm %d message%s within %g s\n", kTool, sent,
                         sent == 1 ? "" : "s", options.timeout);
            return kExitSendFailed;
        }
        return kExitOk;
    }

    int lost() const {
        std::fprintf(stderr, "%s: the connection was lost while sending message %d: %s\n", kTool, sent,
                     logger.lastError().c_str());
        return kExitSendFailed;
    }

private:
    tavren::StompClient& client;
    ToolLogger& logger;
    const SendOptions& options;
    const std::string prefix;
    int sent = 0;
};

int run(const SendOptions& options) {
    // Read a file before connecting: a wrong path is a usage error, not a failed send.
    std::string fileText;
    if (!options.file.empty()) fileText = readFile(options.file);

    ToolLogger logger(kTool, options.connection.verbose);
    std::unique_ptr<tavren::StompClient> client = connectOrGiveUp(options.connection, logger, kTool);
    if (!client) return kExitCannotConnect;

    Sender sender(*client, logger, options);
    int status = kExitOk;
    if (options.hasText || !options.file.empty()) {
        if (!sender.send(options.hasText ? options.text : fileText)) status = sender.lost();
    } else {
        std::string line;
        while (std::getline(std::cin, line)) {
            if (hasBadByte(line, '\0')) {
                std::fprintf(stderr, "%s: a line of standard input contains a NUL byte; only text can be sent\n",
                             kTool);
                status = kExitUsage;
                break;
            }
            if (!sender.send(line)) {
                status = sender.lost();
                break;
            }
        }
    }
    // Even after a bad line, what went out is confirmed, so the operator
    // knows whether the lines before it arrived.
    if (status != kExitSendFailed) {
        const int confirmed = sender.confirm();
        if (status == kExitOk) status = confirmed;
    }
    client->closeConnection();
    return status;
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
