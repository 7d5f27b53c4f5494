// SPDX-License-Identifier: Apache-2.0
#include <tavren/Logger.h>

#include <gtest/gtest.h>

#include <pthread.h>

#include <cctype>

#include <string>
#include <vector>

namespace {

using tavren::Logger;

// True when text is a time stamp shaped "2015-03-02 14:07".
bool isTimeStamp(const std::string& text) {
    const std::string shape = "dddd-dd-dd dd:dd";
    if (text.size() != shape.size()) return false;
    for (size_t i = 0; i < shape.size(); ++i) {
        if (shape[i] == 'd' ? !isdigit(static_cast<unsigned char>(text[i])) : text[i] != shape[i]) return false;
    }
    return true;
}

// True when line is prefix, a time stamp, ": ", message and a line feed.
bool isLogLine(const std::string& line, const std::string& prefix, const std::string& message) {
    const size_t stamp = prefix.size();
    const size_t rest = stamp + 16;
    return line.compare(0, stamp, prefix) == 0 && line.size() >= rest && isTimeStamp(line.substr(stamp, 16)) &&
           line.substr(rest) == ": " + message + "\n";
}

TEST(Logger, TimeStringIsDateHoursAndMinutes) {
    Logger logger;
    EXPECT_TRUE(isTimeStamp(logger.get_time_string())) << logger.get_time_string();
}

TEST(Logger, InfoLineGoesToStandardOutput) {
    Logger logger;
    testing::internal::CaptureStdout();
    logger.safe_log_info("Connected.");
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(isLogLine(out, "INFO: ", "Connected.")) << out;
}

TEST(Logger, ErrorLineGoesToStandardError) {
    Logger logger;
    testing::internal::CaptureStderr();
    logger.safe_log_error("Disconnected!");
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(isLogLine(err, "ERROR: ", "Disconnected!")) << err;
}

TEST(Logger, EmptyMessageStillHasPrefixAndTime) {
    Logger logger;
    testing::internal::CaptureStdout();
    logger.logInfo("");
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(isLogLine(out, "INFO: ", "")) << out;
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
        if (i % 2)
            logger->safe_log_info("x");
        else
            logger->safe_log_error("y");
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
