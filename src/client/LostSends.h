// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_INTERNAL_LOSTSENDS_H
#define TAVREN_INTERNAL_LOSTSENDS_H

#include <chrono>
#include <string>

namespace tavren {
namespace internal {

/**
 * The messages sent while no connection stood, during one outage (until the
 * next CONNECTED). The first is handled and logged as any failed send; the
 * later ones are only counted, and the count is logged at most once per
 * reconnect period while they go on, and once when a connection stands
 * again. Used under the engine lock.
 */
class LostSends {
public:
    /** A send was lost; true when it is the first of this outage. */
    bool lost();
    /** "N messages sent while disconnected were lost so far." when a period passed since the last line; else "". */
    std::string dueLine(int periodMs);
    /** A connection stands: the outage's last line ("" unless messages were lost quietly), and a new count. */
    std::string connected();

private:
    long long count = 0;
    long long reported = 0;
    std::chrono::steady_clock::time_point lastLine;
};

} // namespace internal
} // namespace tavren

#endif
