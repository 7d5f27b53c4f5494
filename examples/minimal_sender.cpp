// SPDX-License-Identifier: Apache-2.0
// The least an application needs to send a message.
//
//   minimal_sender HOST PORT QUEUE TEXT
#include <tavren/tavren.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv) {
    if (argc != 5) {
        std::fprintf(stderr, "usage: %s HOST PORT QUEUE TEXT\n", argv[0]);
        return 2;
    }
    tavren::Logger logger; // INFO lines to standard output, ERROR lines to standard error
    tavren::StompClient client(argv[1], std::atoi(argv[2]), &logger, nullptr);
    client.openConnection(1000, kelvra::utility::Version("1.2"));
    // The first attempt has run; later ones go on in the background.
    for (int i = 0; i < 50 && !client.isConnected(); ++i) usleep(100 * 1000);
    if (!client.isConnected()) return 1;

    client.sendToQueue(argv[3], argv[4], nullptr);
    // sendToQueue returns once the frame is written; a failure would have
    // been logged and would have dropped the connection.
    const bool sent = client.isConnected();
    client.closeConnection();
    return sent ? 0 : 1;
}
