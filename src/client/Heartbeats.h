// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_INTERNAL_HEARTBEATS_H
#define TAVREN_INTERNAL_HEARTBEATS_H

#include <string>

namespace tavren {
namespace internal {

/**
 * The heart-beats a connection agreed on: how often the client must write
 * something, and how often the broker promised to. 0 switches a direction
 * off.
 */
struct Heartbeats {
    long long sendEveryMs = 0;   // the client writes at least this often
    long long expectEveryMs = 0; // the broker writes at least this often

    /**
     * From the client's CONNECT figures (what it can send, what it wants)
     * and the broker's CONNECTED figures (what it sends, what it wants):
     * each direction runs at the larger of its two figures when both are
     * above 0, and is off otherwise. A figure that is not a number counts
     * as 0.
     */
    static Heartbeats agree(const std::string& clientSends, const std::string& clientWants,
                            const std::string& brokerSends, const std::string& brokerWants);

    /** A figure as a count of milliseconds; 0 for anything that is not a positive number. */
    static long long figure(const std::string& text);
};

} // namespace internal
} // namespace tavren

#endif
