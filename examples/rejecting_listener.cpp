// SPDX-License-Identifier: Apache-2.0
// A listener that takes only what it understands: messages of the form
// "ITEM COUNT" (for example "apples 2"). Anything else it rejects by
// returning non-zero, and the library answers the broker with a NACK, so
// the message goes back to the broker instead of being lost. What then is
// the broker's choice: RabbitMQ hands it out again at once, to this listener
// too, so the rejections repeat until another consumer takes it; ActiveMQ
// may move it to its dead-letter queue.
//
//   rejecting_listener HOST PORT QUEUE [SECONDS]
#include <tavren/tavren.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace {

class OrderListener : public tavren::Listener {
public:
    int onMessage(kelvra::SharedPtr<tavren::Message> message) override {
        char item[64];
        int count = 0;
        char rest = 0;
        // Several messages may be handled at once, on different threads.
        std::lock_guard<std::mutex> lock(mutex);
        if (std::sscanf(message->text(), "%63s %d %c", item, &count, &rest) != 2 || count < 1) {
            std::printf("rejected: \"%s\"\n", message->text());
            std::fflush(stdout);
            return 1; // not processed: NACK
        }
        std::printf("order: %d x %s\n", count, item);
        std::fflush(stdout);
        return 0; // processed: ACK
    }

private:
    std::mutex mutex;
};

} // namespace

int main(int argc, char** argv) {
    if (argc < 4) {
        std::fprintf(stderr, "usage: %s HOST PORT QUEUE [SECONDS]\n", argv[0]);
        return 2;
    }
    tavren::Logger logger;
    OrderListener listener;
    tavren::StompClient client(argv[1], std::atoi(argv[2]), &logger, nullptr);
    client.openConnection(1000, kelvra::utility::Version("1.2"));
    client.listenOnQueue(argv[3], &listener);
    sleep(static_cast<unsigned>(argc > 4 ? std::atoi(argv[4]) : 30));
    client.closeConnection();
    return 0;
}
