// SPDX-License-Identifier: Apache-2.0
// Sends one message to a queue and waits for it to come back through a
// listener on the same queue, using the installed headers and library only.
//
//   tavren_consumer HOST PORT QUEUE
#include <tavren/tavren.h>

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

class Quiet : public tavren::Logger {
public:
    void logInfo(const std::string&) override {}
    void logError(const std::string& message) override { std::fprintf(stderr, "[tavren] %s\n", message.c_str()); }
};

class Catcher : public tavren::Listener {
public:
    int onMessage(kelvra::SharedPtr<tavren::Message> message) override {
        if (std::strcmp(message->text(), "hello from an installed libtavren") == 0) got = true;
        return 0;
    }
    std::atomic<bool> got{false};
};

template <typename Done>
bool within(int ms, Done done) {
    for (int waited = 0; !done(); waited += 20) {
        if (waited >= ms) return false;
        usleep(20 * 1000);
    }
    return true;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s HOST PORT QUEUE\n", argv[0]);
        return 2;
    }
    std::printf("headers %s, library %s\n", TAVREN_VERSION_STRING, tavren::libraryVersion());
    Quiet logger;
    Catcher catcher;
    bool ok = false;
    {
        tavren::StompClient client(argv[1], std::atoi(argv[2]), &logger, nullptr);
        client.openConnection(500, kelvra::utility::Version("1.2"));
        if (within(5000, [&] { return client.isConnected(); })) {
            client.listenOnQueue(argv[3], &catcher);
            client.sendToQueue(argv[3], "hello from an installed libtavren", nullptr);
            ok = within(5000, [&] { return catcher.got.load(); });
            usleep(100 * 1000); // the ACK goes out just after the listener returned
            client.closeConnection();
        }
    }
    std::printf("%s\n", ok ? "message came back" : "no message");
    return ok ? 0 : 1;
}
