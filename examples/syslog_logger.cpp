// SPDX-License-Identifier: Apache-2.0
// A Logger that sends the library's lines to syslog, as a daemon on a device
// would, instead of standard output and standard error. The library calls
// logInfo and logError one at a time (under the logger's lock), on whatever
// thread met the event, so the overrides need no lock of their own.
//
//   syslog_logger HOST PORT QUEUE TEXT     (then: journalctl -t tavren-example)
#include <tavren/tavren.h>

#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

class SyslogLogger : public tavren::Logger {
public:
    explicit SyslogLogger(const char* ident) { openlog(ident, LOG_PID, LOG_DAEMON); }
    ~SyslogLogger() override { closelog(); }

    // syslog adds its own time stamp, so the message goes as it is.
    void logInfo(const std::string& message) override { syslog(LOG_INFO, "%s", message.c_str()); }
    void logError(const std::string& message) override { syslog(LOG_ERR, "%s", message.c_str()); }
};

} // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        std::fprintf(stderr, "usage: %s HOST PORT QUEUE TEXT\n", argv[0]);
        return 2;
    }
    SyslogLogger logger("tavren-example");
    tavren::StompClient client(argv[1], std::atoi(argv[2]), &logger, nullptr);
    client.openConnection(1000, kelvra::utility::Version("1.2"));
    for (int i = 0; i < 50 && !client.isConnected(); ++i) usleep(100 * 1000);
    if (!client.isConnected()) {
        std::fprintf(stderr, "not connected; see the system log (tag tavren-example)\n");
        return 1;
    }
    client.sendToQueue(argv[3], argv[4], nullptr);
    client.closeConnection();
    return 0;
}
