// SPDX-License-Identifier: Apache-2.0
#include "support/FakeBroker.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace tavren {
namespace test {

namespace {

const char* const kOmit = "<omit>";
const int kPollMs = 10;
const int kSendTimeoutSeconds = 5;
// Longer than the send time-out, so that a slow write ends before the caller gives up.
const int kTaskTimeoutMs = 10000;
const int kRebindMs = 2000;

HeaderMap defaultConnectedHeaders() {
    return {{"server", "FakeBroker/1.0"}, {"version", "1.2"}, {"heart-beat", "0,0"}};
}

std::string headerOr(const HeaderMap& headers, const std::string& name, const std::string& fallback) {
    HeaderMap::const_iterator found = headers.find(name);
    return found == headers.end() ? fallback : found->second;
}

// Only plain decimal digits count: anything else means "no usable length".
bool parseLength(const std::string& text, size_t* length) {
    if (text.empty() || text.size() > 18) return false;
    size_t value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
        value = value * 10 + static_cast<size_t>(c - '0');
    }
    *length = value;
    return true;
}

// One line starting at *pos, without its "\n" or "\r\n"; false if the line is not complete yet.
bool nextLine(const std::string& input, size_t* pos, std::string* line) {
    const size_t end = input.find('\n', *pos);
    if (end == std::string::npos) return false;
    size_t stop = end;
    if (stop > *pos && input[stop - 1] == '\r') --stop;
    line->assign(input, *pos, stop - *pos);
    *pos = end + 1;
    return true;
}

size_t skipHeartBeats(const std::string& input, size_t pos) {
    while (pos < input.size()) {
        if (input[pos] == '\n') {
            ++pos;
        } else if (input.compare(pos, 2, "\r\n") == 0) {
            pos += 2;
        } else {
            break;
        }
    }
    return pos;
}

int boundPort(int fd) {
    struct sockaddr_in addr = {};
    socklen_t len = sizeof addr;
    if (fd < 0 || ::getsockname(fd, reinterpret_cast<struct sockaddr*>(&addr), &len) != 0) return 0;
    return ntohs(addr.sin_port);
}

} // namespace

struct FakeBroker::Task {
    std::function<bool()> work;
    bool done = false;
    bool result = false;
};

FakeBroker::FakeBroker() : FakeBroker("127.0.0.1") {}

FakeBroker::FakeBroker(const std::string& address)
    : listenFd(-1),
      clientFd(-1),
      wakeFds{-1, -1},
      listenPort(0),
      messageCounter(0),
      readingStopped(false),
      stopping(false),
      accepted(0),
      clientOpen(false),
      connectReply(ConnectReply::Connected),
      connectedHeaders(defaultConnectedHeaders()),
      generateSession(true),
      connectErrorMessage("Bad credentials"),
      connectErrorBody("Access refused for user"),
      resetAfterConnected(false),
      subscribeReply(ReceiptReply::Receipt),
      unsubscribeReply(ReceiptReply::Receipt),
      receiptErrorMessage("Subscription refused"),
      receiptErrorBody("Destination is not allowed"),
      bindAddress(address) {
    if (::pipe2(wakeFds, O_NONBLOCK | O_CLOEXEC) != 0) wakeFds[0] = wakeFds[1] = -1;
    openListener(0);
    listenPort = boundPort(listenFd);
    server = std::thread(&FakeBroker::serve, this);
}

FakeBroker::~FakeBroker() {
    {
        std::lock_guard<std::mutex> lock(mutex);
        stopping = true;
    }
    wake();
    server.join();
    // The serving thread is gone: its sockets can be closed from here.
    closeClient(false);
    if (listenFd >= 0) ::close(listenFd);
    if (wakeFds[0] >= 0) ::close(wakeFds[0]);
    if (wakeFds[1] >= 0) ::close(wakeFds[1]);
}

void FakeBroker::setConnectReply(ConnectReply reply) {
    std::lock_guard<std::mutex> lock(mutex);
    connectReply = reply;
}

void FakeBroker::setConnectedHeaders(const HeaderMap& headers) {
    std::lock_guard<std::mutex> lock(mutex);
    connectedHeaders = headers;
    generateSession = false;
}

void FakeBroker::setConnectError(const std::string& message, const std::string& body) {
    std::lock_guard<std::mutex> lock(mutex);
    connectErrorMessage = message;
    connectErrorBody = body;
}

void FakeBroker::setSubscribeReply(ReceiptReply reply) {
    std::lock_guard<std::mutex> lock(mutex);
    subscribeReply = reply;
}

void FakeBroker::setUnsubscribeReply(ReceiptReply reply) {
    std::lock_guard<std::mutex> lock(mutex);
    unsubscribeReply = reply;
}

void FakeBroker::setSendReply(ReceiptReply reply) {
    std::lock_guard<std::mutex> lock(mutex);
    sendReply = reply;
}

void FakeBroker::refuseSendWithBody(const std::string& refusedBody) {
    std::lock_guard<std::mutex> lock(mutex);
    refusedSendBody = refusedBody;
}

void FakeBroker::setReceiptError(const std::string& message, const std::string& body) {
    std::lock_guard<std::mutex> lock(mutex);
    receiptErrorMessage = message;
    receiptErrorBody = body;
}

bool FakeBroker::pushMessage(const std::string& destination, const std::string& body, const HeaderMap& extra,
                             std::string* messageId) {
    // Owned by the task, not by this frame: the serving thread may outlive a timed-out wait.
    std::shared_ptr<std::string> id = std::make_shared<std::string>();
    const bool written =
        runOnServer([this, destination, body, extra, id] { return writeMessage(destination, body, extra, id.get()); });
    if (written && messageId) *messageId = *id;
    return written;
}

bool FakeBroker::sendRaw(const std::string& bytes) {
    return runOnServer([this, bytes] { return writeAll(bytes); });
}

bool FakeBroker::sendStream(const std::string& head, size_t count, char fill, const std::string& tail, size_t* written,
                            size_t chunk) {
    // Owned by the task, not by this frame: the serving thread may outlive a timed-out wait.
    std::shared_ptr<size_t> sent = std::make_shared<size_t>(0);
    const bool done = runOnServer([this, head, count, fill, tail, chunk, sent] {
        if (!writeBytes(head.data(), head.size(), sent.get())) return false;
        const std::string piece(std::min(chunk, count), fill);
        for (size_t left = count; left > 0;) {
            const size_t n = std::min(left, piece.size());
            if (!writeBytes(piece.data(), n, sent.get())) return false;
            left -= n;
        }
        return writeBytes(tail.data(), tail.size(), sent.get());
    });
    if (written) *written = *sent;
    return done;
}

void FakeBroker::dropConnection() {
    runOnServer([this] {
        // Unread input would turn close() into a reset; read it first so the client sees a clean end.
        readPending();
        closeClient(false);
        return true;
    });
}

void FakeBroker::stopReading() {
    runOnServer([this] {
        readingStopped = true;
        return true;
    });
}

void FakeBroker::setResetAfterConnected(bool reset) {
    std::lock_guard<std::mutex> lock(mutex);
    resetAfterConnected = reset;
}

void FakeBroker::resetConnection() {
    runOnServer([this] {
        closeClient(true);
        return true;
    });
}

void FakeBroker::refuseConnections() {
    runOnServer([this] {
        if (listenFd >= 0) ::close(listenFd);
        listenFd = -1;
        return true;
    });
}

bool FakeBroker::acceptConnections() {
    return runOnServer([this] {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kRebindMs);
        // The port may be briefly held by a socket the kernel has not let go of yet.
        while (listenFd < 0 && !openListener(listenPort) && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return listenFd >= 0;
    });
}

bool FakeBroker::isClientConnected() const {
    std::lock_guard<std::mutex> lock(mutex);
    return clientOpen;
}

int FakeBroker::connectionCount() const {
    std::lock_guard<std::mutex> lock(mutex);
    return accepted;
}

int FakeBroker::heartBeatsReceived() const {
    std::lock_guard<std::mutex> lock(mutex);
    return heartBeats;
}

std::vector<RecordedFrame> FakeBroker::frames() const {
    std::lock_guard<std::mutex> lock(mutex);
    return recorded;
}

std::vector<RecordedFrame> FakeBroker::framesWithCommand(const std::string& command) const {
    std::vector<RecordedFrame> found;
    std::lock_guard<std::mutex> lock(mutex);
    for (const RecordedFrame& frame : recorded) {
        if (frame.command == command) found.push_back(frame);
    }
    return found;
}

void FakeBroker::clearFrames() {
    std::lock_guard<std::mutex> lock(mutex);
    recorded.clear();
}

bool FakeBroker::waitForFrames(const std::string& command, size_t count, int timeoutMs) const {
    return waitUntil(timeoutMs, [&] {
        const auto same = [&](const RecordedFrame& frame) { return frame.command == command; };
        return static_cast<size_t>(std::count_if(recorded.begin(), recorded.end(), same)) >= count;
    });
}

bool FakeBroker::waitForConnections(int count, int timeoutMs) const {
    return waitUntil(timeoutMs, [&] { return accepted >= count; });
}

bool FakeBroker::waitFor(const std::function<bool()>& predicate, int timeoutMs) const {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!predicate()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

bool FakeBroker::waitForSubscription(const std::string& destination, int timeoutMs) const {
    return waitUntil(timeoutMs, [&] { return subscriptions.count(destination) > 0; });
}

bool FakeBroker::waitForClientClosed(int timeoutMs) const {
    return waitUntil(timeoutMs, [&] { return !clientOpen; });
}

template <typename Predicate>
bool FakeBroker::waitUntil(int timeoutMs, Predicate ready) const {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), ready);
}

bool FakeBroker::runOnServer(std::function<bool()> work) {
    std::shared_ptr<Task> task = std::make_shared<Task>();
    task->work = std::move(work);
    {
        std::lock_guard<std::mutex> lock(mutex);
        tasks.push_back(task);
    }
    wake();
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait_for(lock, std::chrono::milliseconds(kTaskTimeoutMs), [&] { return task->done; });
    return task->done && task->result;
}

void FakeBroker::wake() {
    const char byte = 1;
    // A full pipe already holds a pending wake-up, so a failed write is harmless.
    const ssize_t written = ::write(wakeFds[1], &byte, 1);
    (void)written;
}

void FakeBroker::serve() {
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (stopping) return;
        }
        // poll() skips negative descriptors, so a closed listener or absent client needs no special case.
        struct pollfd fds[3] = {{wakeFds[0], POLLIN, 0},
                                {readingStopped ? -1 : clientFd, POLLIN, 0},
                                {listenFd, POLLIN, 0}};
        if (::poll(fds, 3, kPollMs) > 0) {
            if (fds[0].revents) drainWakeUps();
            if (fds[1].revents) readClient();
            if (fds[2].revents) acceptClient();
        }
        runTasks();
    }
}

void FakeBroker::drainWakeUps() {
    char buf[64];
    while (::read(wakeFds[0], buf, sizeof buf) > 0) {
    }
}

void FakeBroker::runTasks() {
    std::deque<std::shared_ptr<Task>> pending;
    {
        std::lock_guard<std::mutex> lock(mutex);
        pending.swap(tasks);
    }
    for (const std::shared_ptr<Task>& task : pending) {
        const bool result = task->work();
        std::lock_guard<std::mutex> lock(mutex);
        task->result = result;
        task->done = true;
        changed.notify_all();
    }
}

void FakeBroker::acceptClient() {
    // The listener is non-blocking, so a client that gave up before accept() costs nothing.
    const int fd = ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) return;
    // Bounds a write to a client that stopped reading.
    struct timeval limit = {kSendTimeoutSeconds, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    closeClient(false);
    clientFd = fd;
    readingStopped = false;
    std::lock_guard<std::mutex> lock(mutex);
    ++accepted;
    clientOpen = true;
    changed.notify_all();
}

void FakeBroker::readClient() {
    char buf[65536];
    const ssize_t got = ::recv(clientFd, buf, sizeof buf, MSG_DONTWAIT);
    if (got < 0 && (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK)) return;
    if (got <= 0) {
        closeClient(false); // the client closed its socket, or the connection broke
        return;
    }
    input.append(buf, static_cast<size_t>(got));
    parseFrames();
}

void FakeBroker::readPending() {
    char buf[65536];
    ssize_t got;
    while (clientFd >= 0 && (got = ::recv(clientFd, buf, sizeof buf, MSG_DONTWAIT)) > 0) {
        input.append(buf, static_cast<size_t>(got));
    }
    parseFrames();
}

void FakeBroker::closeClient(bool reset) {
    if (clientFd < 0) return;
    if (reset) {
        struct linger lg = {1, 0};
        ::setsockopt(clientFd, SOL_SOCKET, SO_LINGER, &lg, sizeof lg);
    }
    ::close(clientFd);
    clientFd = -1;
    input.clear();
    std::lock_guard<std::mutex> lock(mutex);
    clientOpen = false;
    subscriptions.clear();
    changed.notify_all();
}

bool FakeBroker::openListener(int port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    int one = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    struct sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    if (::inet_pton(AF_INET, bindAddress.c_str(), &addr.sin_addr) != 1 ||
        ::bind(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) != 0 || ::listen(fd, 16) != 0) {
        ::close(fd);
        return false;
    }
    listenFd = fd;
    return true;
}

void FakeBroker::parseFrames() {
    size_t pos = 0;
    for (;;) {
        const size_t from = pos;
        pos = skipHeartBeats(input, pos);
        int feeds = 0;
        for (size_t i = from; i < pos; ++i) feeds += input[i] == '\n';
        if (feeds > 0) {
            std::lock_guard<std::mutex> lock(mutex);
            heartBeats += feeds - (frameJustEnded ? 1 : 0);
            frameJustEnded = false;
        }
        RecordedFrame frame;
        if (!parseFrame(&pos, &frame)) break;
        frameJustEnded = true;
        handleFrame(std::move(frame));
        if (clientFd < 0) return; // the frame's answer closed the connection, and its input with it
    }
    input.erase(0, pos);
}

bool FakeBroker::parseFrame(size_t* pos, RecordedFrame* frame) const {
    size_t at = *pos;
    if (!nextLine(input, &at, &frame->command)) return false;
    std::string line;
    for (;;) {
        if (!nextLine(input, &at, &line)) return false;
        if (line.empty()) break;
        const size_t colon = line.find(':');
        // emplace keeps an existing entry: the first value of a repeated header wins.
        if (colon == std::string::npos) {
            frame->headers.emplace(line, std::string());
        } else {
            frame->headers.emplace(line.substr(0, colon), line.substr(colon + 1));
        }
    }
    size_t end;
    size_t length;
    HeaderMap::const_iterator declared = frame->headers.find("content-length");
    if (declared != frame->headers.end() && parseLength(declared->second, &length)) {
        if (input.size() - at < length + 1) return false;
        end = at + length;
    } else {
        end = input.find('\0', at);
        if (end == std::string::npos) return false;
    }
    frame->body.assign(input, at, end - at);
    *pos = end + 1;
    return true;
}

void FakeBroker::handleFrame(RecordedFrame frame) {
    ReceiptReply subscribe;
    ReceiptReply unsubscribe;
    ReceiptReply send;
    {
        std::lock_guard<std::mutex> lock(mutex);
        // The current client is always the latest accepted one.
        frame.connection = accepted;
        recorded.push_back(frame);
        subscribe = subscribeReply;
        unsubscribe = unsubscribeReply;
        send = !refusedSendBody.empty() && frame.body == refusedSendBody ? ReceiptReply::Error : sendReply;
        changed.notify_all();
    }
    if (frame.command == "CONNECT" || frame.command == "STOMP") {
        answerConnect();
    } else if (frame.command == "SUBSCRIBE") {
        // Held only once answered: a test that saw the subscription may push to it at once.
        answerReceiptRequest(frame, subscribe);
        if (!refuses(frame, subscribe)) holdSubscription(frame);
    } else if (frame.command == "UNSUBSCRIBE") {
        if (!refuses(frame, unsubscribe)) forgetSubscription(headerOr(frame.headers, "id", ""));
        // Answered only once forgotten: a client that got the receipt finds the subscription gone.
        answerReceiptRequest(frame, unsubscribe);
    } else if (frame.command == "SEND") {
        answerReceiptRequest(frame, send);
    }
}

void FakeBroker::holdSubscription(const RecordedFrame& subscribe) {
    std::lock_guard<std::mutex> lock(mutex);
    subscriptions[headerOr(subscribe.headers, "destination", "")] = headerOr(subscribe.headers, "id", "");
    changed.notify_all();
}

void FakeBroker::forgetSubscription(const std::string& id) {
    std::lock_guard<std::mutex> lock(mutex);
    for (HeaderMap::iterator it = subscriptions.begin(); it != subscriptions.end();) {
        it = it->second == id ? subscriptions.erase(it) : std::next(it);
    }
    changed.notify_all();
}

void FakeBroker::answerConnect() {
    bool reset;
    ConnectReply reply;
    HeaderMap headers;
    std::string message;
    std::string body;
    {
        std::lock_guard<std::mutex> lock(mutex);
        reply = connectReply;
        headers = connectedHeaders;
        if (generateSession) headers["session"] = "session-" + std::to_string(accepted);
        message = connectErrorMessage;
        body = connectErrorBody;
        reset = resetAfterConnected;
    }
    switch (reply) {
    case ConnectReply::Connected:
        writeFrame("CONNECTED", headers, "");
        if (reset) closeClient(true);
        break;
    case ConnectReply::Error: writeFrame("ERROR", {{"message", message}}, body); break;
    case ConnectReply::Silence: break;
    case ConnectReply::Other: writeFrame("RECEIPT", {{"receipt-id", "unexpected"}}, ""); break;
    }
}

bool FakeBroker::refuses(const RecordedFrame& frame, ReceiptReply reply) {
    const bool error = reply == ReceiptReply::Error || reply == ReceiptReply::ErrorWithoutReceiptId ||
                       reply == ReceiptReply::RefuseAndClose;
    return error && frame.headers.count("receipt") > 0;
}

void FakeBroker::answerReceiptRequest(const RecordedFrame& frame, ReceiptReply reply) {
    HeaderMap::const_iterator receipt = frame.headers.find("receipt");
    if (receipt == frame.headers.end()) return;
    HeaderMap error;
    std::string body;
    {
        std::lock_guard<std::mutex> lock(mutex);
        error["message"] = receiptErrorMessage;
        body = receiptErrorBody;
    }
    switch (reply) {
    case ReceiptReply::Receipt: writeFrame("RECEIPT", {{"receipt-id", receipt->second}}, ""); break;
    case ReceiptReply::Error:
        error["receipt-id"] = receipt->second;
        writeFrame("ERROR", error, body);
        break;
    case ReceiptReply::ErrorWithoutReceiptId: writeFrame("ERROR", error, body); break;
    case ReceiptReply::Silence: break;
    case ReceiptReply::RefuseAndClose:
        writeFrame("ERROR", error, body);
        writeFrame("RECEIPT", {{"receipt-id", receipt->second}}, "");
        closeClient(false);
        break;
    }
}

bool FakeBroker::writeMessage(const std::string& destination, const std::string& body, const HeaderMap& extra,
                              std::string* messageId) {
    if (clientFd < 0) return false;
    const std::string k = std::to_string(++messageCounter);
    HeaderMap headers = {{"destination", destination},
                         {"message-id", "msg-" + k},
                         {"ack", "ack-" + k},
                         {"content-length", std::to_string(body.size())}};
    {
        std::lock_guard<std::mutex> lock(mutex);
        headers["subscription"] = headerOr(subscriptions, destination, "none");
    }
    for (const auto& header : extra) headers[header.first] = header.second;
    for (HeaderMap::iterator it = headers.begin(); it != headers.end();) {
        it = it->second == kOmit ? headers.erase(it) : std::next(it);
    }
    *messageId = headerOr(headers, "message-id", "");
    return writeFrame("MESSAGE", headers, body);
}

bool FakeBroker::writeFrame(const std::string& command, const HeaderMap& headers, const std::string& body) {
    std::string bytes = command + "\n";
    for (const auto& header : headers) bytes += header.first + ":" + header.second + "\n";
    bytes += "\n";
    bytes += body;
    // Real brokers follow the NUL with a newline; clients must take it as a heart-beat.
    bytes.append(1, '\0');
    bytes += "\n";
    return writeAll(bytes);
}

bool FakeBroker::writeAll(const std::string& bytes) {
    size_t written = 0;
    return writeBytes(bytes.data(), bytes.size(), &written);
}

// Adds to *written what it wrote.
bool FakeBroker::writeBytes(const char* data, size_t size, size_t* written) {
    size_t done = 0;
    while (clientFd >= 0 && done < size) {
        const ssize_t n = ::send(clientFd, data + done, size - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        // A failed write means the client is gone; reading notices that and closes.
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
        *written += static_cast<size_t>(n);
    }
    return clientFd >= 0;
}

} // namespace test
} // namespace tavren
