// SPDX-License-Identifier: Apache-2.0
// A stand-in broker that does nothing with messages, so that a send
// measurement against it shows the client's own cost: it answers CONNECT (or
// STOMP) with CONNECTED carrying "server", "version", "heart-beat" and
// "session", answers every frame that has a "receipt" header with a RECEIPT,
// and discards everything else. One thread per connection.
//
//   discard_server [PORT]     (0 or none: a free port; prints "PORT p")

#include "wire.h"

#include <pthread.h>

#include <atomic>
#include <string>

namespace {

std::atomic<long> sessions{0};

// The highest of 1.0, 1.1 and 1.2 that the client accepts (1.0 when it names none).
std::string chooseVersion(std::string_view accept) {
    if (accept.find("1.2") != std::string_view::npos) return "1.2";
    if (accept.find("1.1") != std::string_view::npos) return "1.1";
    return "1.0";
}

void* serve(void* arg) {
    const int fd = static_cast<int>(reinterpret_cast<intptr_t>(arg));
    wire::setNoDelay(fd);
    wire::Reader reader(fd);
    std::string out;
    bool open = true;
    while (open) {
        if (reader.fill() <= 0) break;
        wire::Frame f;
        while (reader.next(&f)) {
            if (f.command == "CONNECT" || f.command == "STOMP") {
                out += "CONNECTED\nserver:bench-discard/1\nversion:" + chooseVersion(f.header("accept-version")) +
                       "\nheart-beat:0,0\nsession:discard-" + std::to_string(++sessions) + "\n\n";
                out.push_back('\0');
                continue;
            }
            wire::answerReceipt(f, &out);
            if (f.command == "DISCONNECT") open = false;
        }
        if (!out.empty()) {
            if (!wire::writeAll(fd, out)) break;
            out.clear();
        }
    }
    close(fd);
    return nullptr;
}

} // namespace

int main(int argc, char** argv) {
    wire::serveForever(argc > 1 ? std::atoi(argv[1]) : 0, [](int fd) {
        pthread_t thread;
        pthread_attr_t attr;
        pthread_attr_init(&attr);
        pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
        if (pthread_create(&thread, &attr, serve, reinterpret_cast<void*>(static_cast<intptr_t>(fd))) != 0) close(fd);
        pthread_attr_destroy(&attr);
    });
}
