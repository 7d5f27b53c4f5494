// SPDX-License-Identifier: Apache-2.0
#include <tavren/Logger.h>

#include <ctime>
#include <iostream>

namespace tavren {

Logger::Logger() : mutex(new pthread_mutex_t) { pthread_mutex_init(mutex, nullptr); }

Logger::~Logger() {
    pthread_mutex_destroy(mutex);
    delete mutex;
}

void Logger::logError(const std::string& message) {
    std::cerr << "ERROR: " << get_time_string() << ": " << message << std::endl;
}

void Logger::logInfo(const std::string& message) {
    std::cout << "INFO: " << get_time_string() << ": " << message << std::endl;
}

void Logger::safe_log_error(const std::string& message) {
    pthread_mutex_lock(mutex);
    logError(message);
    pthread_mutex_unlock(mutex);
}

void Logger::safe_log_info(const std::string& message) {
    pthread_mutex_lock(mutex);
    logInfo(message);
    pthread_mutex_unlock(mutex);
}

std::string Logger::get_time_string() {
    time_t now = time(nullptr);
    // localtime_r: the line may be written by a direct call of logInfo too,
    // outside the logger's lock, so the shared buffer of localtime is avoided.
    struct tm local;
    localtime_r(&now, &local);
    char buffer[80];
    strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M", &local);
    return buffer;
}

} // namespace tavren
