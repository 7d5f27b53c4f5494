// SPDX-License-Identifier: Apache-2.0
#include "ToolSupport.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace tavren_tools {

namespace {

// Retry period while the tool waits for its first connection, and for the
// library's reconnects afterwards (milliseconds). Short, because an operator
// waits at the terminal and the connect time-out bounds the whole wait.
const int kReconnectPeriodMs = 500;

// The library logs a broker's RECEIPT or ERROR that no call of its own waits
// for as one error line that holds the frame's headers; a SEND's receipt is
// one of those.
const char* const kRefusedLead = "The broker refused the message ";
const char* const kRefusedTail = ". It is not sent again.";
const char* const kFirstTryLead = "Failed to connect on first try, ";
const char* const kRetryLead = "Reconnect failed with: ";

bool startsWith(const std::string& text, const std::string& lead) { return text.compare(0, lead.size(), lead) == 0; }

// One line for the terminal: the library's lines may hold a broker's
// multi-line text.
std::string oneLine(const std::string& text) {
    std::string line;
    for (char c : text) {
        const bool space = c == '\n' || c == '\r' || c == '\t' || c == ' ';
        if (space && (line.empty() || line.back() == ' ')) continue;
        line += space ? ' ' : c;
    }
    while (!line.empty() && line.back() == ' ') line.pop_back();
    return line;
}

} // namespace

std::vector<struct option> withCommonOptions(std::vector<struct option> own) {
    const struct option common[] = {
        {"host", required_argument, nullptr, kOptHost},
        {"port", required_argument, nullptr, kOptPort},
        {"login", required_argument, nullptr, kOptLogin},
        {"passcode", required_argument, nullptr, kOptPasscode},
        {"protocol", required_argument, nullptr, kOptProtocol},
        {"heart-beat", required_argument, nullptr, kOptHeartbeat},
        {"connect-timeout", required_argument, nullptr, kOptConnectTimeout},
        {"tls", no_argument, nullptr, kOptTls},
        {"ca", required_argument, nullptr, kOptCa},
        {"cert", required_argument, nullptr, kOptCert},
        {"key", required_argument, nullptr, kOptKey},
        {"verbose", no_argument, nullptr, kOptVerbose},
        {"help", no_argument, nullptr, kOptHelp},
    };
    for (const struct option& o : common) own.push_back(o);
    own.push_back({nullptr, 0, nullptr, 0});
    return own;
}

const char* commonOptionsHelp() {
    return "Connection:\n"
           "      --host HOST              broker host (default 127.0.0.1)\n"
           "      --port PORT              broker STOMP port (default 61613)\n"
           "      --login LOGIN            login sent in CONNECT\n"
           "      --passcode PASSCODE      passcode sent in CONNECT\n"
           "      --protocol VERSION       STOMP version to offer: 1.0, 1.1 or 1.2 (default 1.2)\n"
           "      --heart-beat CX,CY       heart-beat header of CONNECT, in ms (default 0,0)\n"
           "      --connect-timeout SECS   give up when not connected after SECS (default 5)\n"
           "      --tls                    connect over TLS (1.2 or later); the broker's certificate\n"
           "                               must come from a CA the system trusts and name HOST\n"
           "      --ca FILE                trust the CAs in FILE (PEM) instead; implies --tls\n"
           "      --cert FILE              present the client certificate in FILE (PEM); implies --tls\n"
           "      --key FILE               the private key of --cert (PEM, not encrypted); implies --tls\n"
           "  -v, --verbose                print the library's log on standard error\n"
           "  -h, --help                   print this help and exit\n";
}

long parseInteger(const char* text, const char* what, long min, long max) {
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(text, &end, 10);
    if (*text == '\0' || *end != '\0' || errno != 0 || value < min || value > max) {
        throw UsageError(std::string(what) + " must be a whole number from " + std::to_string(min) + " to " +
                         std::to_string(max) + ", not '" + text + "'");
    }
    return value;
}

double parseSeconds(const char* text, const char* what) {
    char* end = nullptr;
    errno = 0;
    const double value = std::strtod(text, &end);
    if (*text == '\0' || *end != '\0' || errno != 0 || !(value > 0) || value > 86400.0 * 365) {
        throw UsageError(std::string(what) + " must be a number of seconds above 0, not '" + text + "'");
    }
    return value;
}

bool applyCommonOption(int id, const char* value, ConnectionOptions* options) {
    switch (id) {
    case kOptHost:
        if (*value == '\0') throw UsageError("--host must not be empty");
        options->host = value;
        return true;
    case kOptPort: options->port = static_cast<int>(parseInteger(value, "--port", 1, 65535)); return true;
    case kOptLogin:
        options->login = value;
        options->credentials = true;
        return true;
    case kOptPasscode:
        options->passcode = value;
        options->credentials = true;
        return true;
    case kOptProtocol: {
        const std::string v = value;
        if (v != "1.0" && v != "1.1" && v != "1.2")
            throw UsageError("--protocol must be 1.0, 1.1 or 1.2, not '" + v + "'");
        options->protocol = v;
        return true;
    }
    case kOptHeartbeat: {
        const std::string v = value;
        const size_t comma = v.find(',');
        if (comma == std::string::npos) throw UsageError("--heart-beat must be CX,CY (milliseconds), not '" + v + "'");
        const std::string cx = v.substr(0, comma);
        const std::string cy = v.substr(comma + 1);
        parseInteger(cx.c_str(), "--heart-beat CX", 0, 86400000);
        parseInteger(cy.c_str(), "--heart-beat CY", 0, 86400000);
        options->heartbeat = {cx, cy};
        return true;
    }
    case kOptConnectTimeout: options->connectTimeout = parseSeconds(value, "--connect-timeout"); return true;
    case kOptTls: options->tls = true; return true;
    case kOptCa:
    case kOptCert:
    case kOptKey: {
        const char* name = id == kOptCa ? "--ca" : id == kOptCert ? "--cert" : "--key";
        if (*value == '\0') throw UsageError(std::string(name) + " must not be empty");
        std::string& file = id == kOptCa     ? options->tlsFiles.caFile
                            : id == kOptCert ? options->tlsFiles.certificateFile
                                             : options->tlsFiles.privateKeyFile;
        file = value;
        options->tls = true;
        return true;
    }
    case kOptVerbose: options->verbose = true; return true;
    default: return false;
    }
}

void applyOtherOption(int id, char* const argv[], void (*printHelp)(), ConnectionOptions* options) {
    switch (id) {
    case 'v': options->verbose = true; return;
    case 'h':
    case kOptHelp: printHelp(); std::exit(kExitOk);
    case ':': throw UsageError(std::string("option ") + argv[optind - 1] + " needs a value");
    case '?': throw UsageError(std::string("unknown option ") + argv[optind - 1]);
    default: applyCommonOption(id, optarg, options);
    }
}

void checkCommonOptions(const ConnectionOptions& options) {
    const tavren::TlsOptions& files = options.tlsFiles;
    if (files.certificateFile.empty() != files.privateKeyFile.empty()) throw UsageError("--cert and --key go together");
    // Only whether each opens: the library reads them at every connection
    // attempt, and the key's content is never printed.
    for (const std::string* file : {&files.caFile, &files.certificateFile, &files.privateKeyFile}) {
        if (file->empty()) continue;
        std::ifstream in(*file);
        if (!in) throw UsageError("cannot read " + *file + ": " + std::strerror(errno));
    }
}

std::string queueArgument(const std::string& queue) {
    const std::string prefix = "/queue/";
    const std::string bare = startsWith(queue, prefix) ? queue.substr(prefix.size()) : queue;
    if (bare.empty()) throw UsageError("QUEUE must not be empty");
    return bare;
}

ToolLogger::ToolLogger(std::string tool, bool verbose) : tool(std::move(tool)), verbose(verbose) {}

void ToolLogger::logInfo(const std::string& message) {
    if (verbose) std::fprintf(stderr, "[tavren] %s\n", message.c_str());
    note(message);
}

void ToolLogger::logError(const std::string& message) {
    if (verbose) std::fprintf(stderr, "[tavren] ERROR %s\n", message.c_str());
    note(message);
    std::lock_guard<std::mutex> lock(mutex);
    last = oneLine(message);
    if (startsWith(last, kFirstTryLead)) last.erase(0, std::string(kFirstTryLead).size());
    if (startsWith(last, kRetryLead)) last.erase(0, std::string(kRetryLead).size());
    if (message == "Disconnected!") ++lost;
    // "The broker refused the message ID to DESTINATION: REASON. It is not sent again."
    if (refused.empty() && startsWith(message, kRefusedLead)) {
        const size_t from = message.find(": ");
        const size_t to = message.rfind(kRefusedTail);
        if (from != std::string::npos && to != std::string::npos && to >= from + 2) {
            refused = message.substr(from + 2, to - from - 2);
        }
        if (refused.empty()) refused = "(no reason given)";
    }
    changed.notify_all();
}

void ToolLogger::note(const std::string& line) {
    std::lock_guard<std::mutex> lock(mutex);
    lines.push_back(line);
}

std::string ToolLogger::lastError() const {
    std::lock_guard<std::mutex> lock(mutex);
    return last;
}

bool ToolLogger::sawLineStartingWith(const std::string& text) const {
    std::lock_guard<std::mutex> lock(mutex);
    for (const std::string& line : lines)
        if (startsWith(line, text)) return true;
    return false;
}

int ToolLogger::disconnections() const {
    std::lock_guard<std::mutex> lock(mutex);
    return lost;
}

std::string ToolLogger::refusal() const {
    std::lock_guard<std::mutex> lock(mutex);
    return refused;
}

OpenedClient::OpenedClient(const ConnectionOptions& o, ToolLogger& l, const tavren::OutboxOptions* outbox)
    : options(o), logger(l) {
    std::pair<std::string, std::string> heartbeat = options.heartbeat;
    stompClient.reset(options.credentials ? new tavren::StompClient(options.host, options.port, options.login,
                                                                    options.passcode, &logger, &heartbeat)
                                          : new tavren::StompClient(options.host, options.port, &logger, &heartbeat));
    if (options.tls) stompClient->useTls(options.tlsFiles);
    if (outbox) stompClient->useOutbox(*outbox);
    opener = std::thread([this] {
        try {
            stompClient->openConnection(kReconnectPeriodMs, kelvra::utility::Version(options.protocol));
        } catch (std::exception& e) {
            // A CONNECTED frame without the headers the library needs.
            std::lock_guard<std::mutex> lock(failureMutex);
            openFailure = e.what();
        }
        openReturned = true;
    });
}

OpenedClient::~OpenedClient() {
    if (opener.joinable()) opener.join();
}

bool OpenedClient::waitConnected(const char* tool) {
    // The first attempt runs on the opener's thread: its TCP connect, TLS
    // handshake and wait for CONNECTED all count against the time-out.
    waitUntil([&] { return stompClient->isConnected() || !openFailureText().empty(); }, options.connectTimeout);
    if (stompClient->isConnected()) return true;
    std::string why = openFailureText();
    if (!why.empty()) {
        std::fprintf(stderr, "%s: cannot connect to %s:%d: %s\n", tool, options.host.c_str(), options.port,
                     why.c_str());
        return false;
    }
    why = logger.lastError();
    if (why.empty()) why = "no answer";
    std::fprintf(stderr, "%s: cannot connect to %s:%d within %g s: %s\n", tool, options.host.c_str(), options.port,
                 options.connectTimeout, why.c_str());
    return false;
}

std::string OpenedClient::openFailureText() {
    std::lock_guard<std::mutex> lock(failureMutex);
    return openFailure;
}

void OpenedClient::exitWith(int status) {
    std::fflush(stdout);
    std::fflush(stderr);
    if (!openReturned) std::_Exit(status);
    opener.join();
    stompClient.reset();
    std::exit(status);
}

} // namespace tavren_tools
