#ifndef TAVREN_LOGGER_H
#define TAVREN_LOGGER_H

#include <pthread.h>

#include <string>

namespace tavren {

/**
 * Where the library writes its progress and error lines.
 *
 * By default an information line goes to standard output as
 * "INFO: 2015-03-02 14:07: Connected." and an error line to standard error
 * as "ERROR: 2015-03-02 14:07: Disconnected!". Derive from it and override
 * logInfo and logError to send the lines elsewhere: the library always calls
 * them through safe_log_info and safe_log_error, which serialise the calls,
 * so an override never runs on two threads at once. An override must not
 * throw.
 *
 * The logger must outlive the StompClient that writes to it.
 */
class Logger {
public:
    Logger();
    virtual ~Logger();
    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

    /** Writes "ERROR: ", the time, ": " and message to standard error. */
    virtual void logError(const std::string& message);
    /** Writes "INFO: ", the time, ": " and message to standard output. */
    virtual void logInfo(const std::string& message);

    /** logError under the logger's lock. */
    void safe_log_error(const std::string& message);
    /** logInfo under the logger's lock. */
    void safe_log_info(const std::string& message);

    /** The local time as "%Y-%m-%d %H:%M". */
    std::string get_time_string();

private:
    pthread_mutex_t* mutex;
};

} // namespace tavren

#endif
