// SPDX-License-Identifier: Apache-2.0
// The least an application needs to receive the messages of a queue.
//
//   minimal_listener HOST PORT QUEUE [SECONDS]
#include <tavren/tavren.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace {

class Printer : public tavren::Listener {
    // Runs on a worker thread of the library, once for every message.
    int onMessage(kelvra::SharedPtr<tavren::Message> message) override {
        std::printf("%s\n", message->text());
        std::fflush(stdout);
        return 0; // processed: the library acknowledges it
    }
};

} // namespace

int main(int argc, char** argv) {
    if (argc < 4) {
        std::fprintf(stderr, "usage: %s HOST PORT QUEUE [SECONDS]\n", argv[0]);
        return 2;
    }
    const int seconds = argc > 4 ? std::atoi(argv[4]) : 30;
    tavren::Logger logger;
    Printer printer; // declared before the client, so it outlives it
    tavren::StompClient client(argv[1], std::atoi(argv[2]), &logger, nullptr);
    client.openConnection(1000, kelvra::utility::Version("1.2"));
    // Registered even while not connected: the client subscribes it once
    // the connection stands, and again after every reconnect.
    client.listenOnQueue(argv[3], &printer);
    sleep(static_cast<unsigned>(seconds));
    client.closeConnection();
    return 0;
}
