// Speaks STOMP to a broker with the library's frames and connection: connect,
// subscribe to a queue, send a few messages to it, read them back, ACK them,
// disconnect. Everything read is printed.
//
//   frames_demo HOST PORT [QUEUE]
#include "frames/AckFrame.h"
#include "frames/ConnectFrame.h"
#include "frames/DisconnectFrame.h"
#include "frames/SendFrame.h"
#include "frames/Session.h"
#include "frames/SubscribeFrame.h"
#include "transport/AprException.h"
#include "transport/StompConnection.h"

#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

using namespace tavren::internal;

namespace {

void check(apr_status_t rc, const char* what) {
    if (rc == 0) return;
    AprException e(rc);
    std::cerr << "demo: " << what << " failed: " << e.apr_reason() << ": " << e.what() << std::endl;
    std::exit(1);
}

// Reads the next frame that is not a heart-beat, waiting at most three seconds.
std::unique_ptr<ServerFrame> nextFrame(StompConnection& connection) {
    for (;;) {
        ServerFrame* frame = nullptr;
        long long timeout = 3000000;
        check(connection.read(&frame, true, &timeout), "read");
        if (!frame->command().empty()) return std::unique_ptr<ServerFrame>(frame);
        delete frame;
    }
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::cerr << "usage: " << argv[0] << " HOST PORT [QUEUE]" << std::endl;
        return 2;
    }
    const std::string destination = std::string("/queue/") + (argc > 3 ? argv[3] : "demo");
    StompConnection connection;
    check(connection.connect(argv[1], std::atoi(argv[2]), nullptr, nullptr), "connect");
    std::cout << "demo: connected to " << argv[1] << ":" << argv[2] << " from " << connection.getLocalIp()
              << std::endl;

    ConnectFrame connect;
    connect.setAcceptVersions(std::vector<kelvra::utility::Version>{kelvra::utility::Version("1.2")});
    connect.setHeartbeat("0", "0");
    check(connection.write(&connect, nullptr), "write CONNECT");
    std::unique_ptr<ServerFrame> connected = nextFrame(connection);
    if (connected->command() != "CONNECTED") {
        std::cerr << "demo: the broker answered " << connected->command() << std::endl;
        return 1;
    }
    const tavren::HeaderMap& h = connected->headers();
    Session session(h.count("server") ? h.at("server") : "", h.count("version") ? h.at("version") : "1.0",
                    h.count("heart-beat") ? h.at("heart-beat") : "0,0", h.count("session") ? h.at("session") : "");
    std::cout << "demo: session negotiated" << std::endl << session;

    SubscribeFrame subscribe(destination, SubscribeFrame::CLIENT_INDIVIDUAL);
    subscribe.requestReceipt();
    check(connection.write(&subscribe, nullptr), "write SUBSCRIBE");
    std::unique_ptr<ServerFrame> receipt = nextFrame(connection);
    std::cout << "demo: subscribed to " << destination << ", broker answered " << receipt->command() << std::endl;

    const char* texts[] = {"hello from libtavren", "second message", "third and last"};
    for (const char* text : texts) {
        std::string copy(text);
        SendFrame send;
        send.setText(&copy[0]);
        send.setDestination(destination);
        check(connection.write(&send, nullptr), "write SEND");
        std::cout << "demo: sent \"" << text << "\"" << std::endl;
    }
    for (int i = 0; i < 3; ++i) {
        std::unique_ptr<ServerFrame> message = nextFrame(connection);
        std::cout << "demo: received " << message->command() << " \"" << (message->body() ? message->body() : "")
                  << "\"" << std::endl;
        if (message->command() != "MESSAGE") continue;
        AckFrame ack(message.get(), &session, AckFrame::ACK);
        check(connection.write(&ack, nullptr), "write ACK");
        std::cout << "demo: acknowledged it with " << ack.command() << " " << session.ackHeaderKey() << ":"
                  << ack.headers().at(session.ackHeaderKey()) << std::endl;
    }

    DisconnectFrame disconnect;
    check(connection.write(&disconnect, nullptr), "write DISCONNECT");
    check(connection.disconnect(), "disconnect");
    std::cout << "demo: disconnected" << std::endl;
    return 0;
}
