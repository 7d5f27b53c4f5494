// SPDX-License-Identifier: Apache-2.0
// A small application of libtavren, written against the public headers only.
// It connects to a broker, listens on a queue, sends a few messages to that
// queue, prints each message its listener receives and the library's log,
// and closes.
//
//   queue_demo HOST PORT [QUEUE] [COUNT] [LOGIN PASSCODE]

#include <tavren/tavren.h>

#include <pthread.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

namespace {

// Prints the library's lines, marked so they stand apart from the demo's own.
class PrintingLogger : public tavren::Logger {
public:
    void logInfo(const std::string& message) override { std::printf("  [tavren] %s\n", message.c_str()); }
    void logError(const std::string& message) override { std::printf("  [tavren] ERROR %s\n", message.c_str()); }
};

// Prints every message and counts them; runs on the library's worker threads.
class PrintingListener : public tavren::Listener {
public:
    PrintingListener() { pthread_mutex_init(&mutex, nullptr); }
    ~PrintingListener() { pthread_mutex_destroy(&mutex); }

    int onMessage(kelvra::SharedPtr<tavren::Message> message) override {
        const tavren::HeaderMap& headers = message->headers();
        auto id = headers.find("message-id");
        pthread_mutex_lock(&mutex);
        ++received;
        std::printf("received \"%s\" (message-id %s)\n", message->text(),
                    id == headers.end() ? "?" : id->second.c_str());
        std::fflush(stdout);
        pthread_mutex_unlock(&mutex);
        return 0; // processed: the library ACKs it
    }

    int count() {
        pthread_mutex_lock(&mutex);
        const int n = received;
        pthread_mutex_unlock(&mutex);
        return n;
    }

private:
    pthread_mutex_t mutex;
    int received = 0;
};

// Waits up to seconds for condition; true when it held in time.
template <typename Condition>
bool waitFor(Condition condition, int seconds) {
    const time_t until = time(nullptr) + seconds;
    while (!condition()) {
        if (time(nullptr) > until) return false;
        usleep(50 * 1000);
    }
    return true;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s HOST PORT [QUEUE] [COUNT] [LOGIN PASSCODE]\n", argv[0]);
        return 2;
    }
    setvbuf(stdout, nullptr, _IOLBF, 0); // line by line, also into a pipe, so the output keeps its order
    const std::string host = argv[1];
    const int port = std::atoi(argv[2]);
    const std::string queue = argc > 3 ? argv[3] : "tavren-demo";
    const int count = argc > 4 ? std::atoi(argv[4]) : 3;

    PrintingLogger logger;
    PrintingListener listener;
    tavren::StompClient* client = argc > 6 ? new tavren::StompClient(host, port, argv[5], argv[6], &logger, nullptr)
                                           : new tavren::StompClient(host, port, &logger, nullptr);

    std::printf("connecting to %s:%d (STOMP 1.2)\n", host.c_str(), port);
    client->openConnection(1000, kelvra::utility::Version("1.2"));
    if (!waitFor([&] { return client->isConnected(); }, 15)) {
        std::printf("could not connect within 15 seconds\n");
        delete client;
        return 1;
    }

    std::printf("listening on queue %s\n", queue.c_str());
    client->listenOnQueue(queue, &listener);

    for (int i = 1; i <= count; ++i) {
        const std::string text = "hello " + std::to_string(i) + " of " + std::to_string(count);
        tavren::HeaderMap extra;
        extra["demo-sequence"] = std::to_string(i);
        std::printf("sending \"%s\"\n", text.c_str());
        client->sendToQueue(queue, text.c_str(), &extra);
    }

    const bool all = waitFor([&] { return listener.count() >= count; }, 15);
    std::printf("%d of %d messages received\n", listener.count(), count);
    // The library acknowledges each message just after its listener returned;
    // a moment's wait lets the last ACK reach the broker before the
    // unsubscription, or the broker would hand that message out again.
    usleep(300 * 1000);

    client->stopListeningOnQueue(queue);
    client->closeConnection();
    delete client;
    return all ? 0 : 1;
}
