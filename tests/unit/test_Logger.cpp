#include <tavren/Logger.h>

#include <gtest/gtest.h>

#include <pthread.h>

#include <regex>
#include <string>
#include <vector>

namespace {

using tavren::Logger;

const std::regex kTimeStamp("^\\d{4}-\\d{2}-\\d{2} \\d{2}:\\d{2}$");

TEST(Logger, TimeStringIsDateHoursAndMinutes) {
    Logger logger;
    EXPECT_TRUE(std::regex_match(logger.get_time_string(), kTimeStamp)) << logger.get_time_string();
}

TEST(Logger, InfoLineGoesToStandardOutput) {
    Logger logger;
    testing::internal::CaptureStdout();
    logger.safe_log_info("Connected.");
    const std::string out = testing::internal::GetCapturedStdout();
    const std::regex line("^INFO: \\d{4}-\\d{2}-\\d{2} \\d{2}:\\d{2}: Connected\\.\n$");
    EXPECT_TRUE(std::regex_match(out, line)) << out;
}

TEST(Logger, ErrorLineGoesToStandardError) {
    Logger logger;
    testing::internal::CaptureStderr();
    logger.safe_log_error("Disconnected!");
    const std::string err = testing::internal::GetCapturedStderr();
    const std::regex line("^ERROR: \\d{4}-\\d{2}-\\d{2} \\d{2}:\\d{2}: Disconnected!\n$");
    EXPECT_TRUE(std::regex_match(err, line)) << err;
}

TEST(Logger, EmptyMessageStillHasPrefixAndTime) {
    Logger logger;
    testing::internal::CaptureStdout();
    logger.logInfo("");
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(std::regex_match(out, std::regex("^INFO: \\d{4}-\\d{2}-\\d{2} \\d{2}:\\d{2}: \n$"))) << out;
}

class Recording : public Logger {
public:
    void logInfo(const std::string& m) override { lines.push_back("i:" + m); }
    void logError(const std::string& m) override { lines.push_back("e:" + m); }
    std::vector<std::string> lines;
};

TEST(Logger, OverrideReceivesTheBareMessage) {
    Recording logger;
    logger.safe_log_info("Connected.");
    logger.safe_log_error("Disconnected!");
    EXPECT_EQ(logger.lines, (std::vector<std::string>{"i:Connected.", "e:Disconnected!"}));
}

// Counts overlapping calls: the wrappers must never let two run at once.
class Overlap : public Logger {
public:
    void logInfo(const std::string&) override { enter(); }
    void logError(const std::string&) override { enter(); }
    int inside = 0;
    int maxInside = 0;
    int calls = 0;

private:
    void enter() {
        // Plain ints: under the logger's lock they are never touched by two threads.
        ++inside;
        if (inside > maxInside) maxInside = inside;
        ++calls;
        for (volatile int i = 0; i < 200; ++i) {
        }
        --inside;
    }
};

void* hammer(void* arg) {
    Overlap* logger = static_cast<Overlap*>(arg);
    for (int i = 0; i < 500; ++i) {
        if (i % 2) logger->safe_log_info("x");
        else logger->safe_log_error("y");
    }
    return nullptr;
}

TEST(Logger, SafeWrappersSerialiseInfoAndErrorLines) {
    Overlap logger;
    pthread_t threads[4];
    for (pthread_t& t : threads) pthread_create(&t, nullptr, hammer, &logger);
    for (pthread_t& t : threads) pthread_join(t, nullptr);
    EXPECT_EQ(logger.calls, 2000);
    EXPECT_EQ(logger.maxInside, 1);
}

} // namespace
