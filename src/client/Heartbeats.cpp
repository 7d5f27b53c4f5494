// SPDX-License-Identifier: Apache-2.0
#include "client/Heartbeats.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace tavren {
namespace internal {

long long Heartbeats::figure(const std::string& text) {
    if (text.empty()) return 0;
    errno = 0;
    char* end = nullptr;
    const long long value = std::strtoll(text.c_str(), &end, 10);
    if (errno != 0 || end == text.c_str() || *end != '\0' || value < 0) return 0;
    return value;
}

Heartbeats Heartbeats::agree(const std::string& clientSends, const std::string& clientWants,
                             const std::string& brokerSends, const std::string& brokerWants) {
    const auto direction = [](long long sender, long long receiver) {
        return sender > 0 && receiver > 0 ? std::max(sender, receiver) : 0;
    };
    Heartbeats agreed;
    agreed.sendEveryMs = direction(figure(clientSends), figure(brokerWants));
    agreed.expectEveryMs = direction(figure(brokerSends), figure(clientWants));
    return agreed;
}

} // namespace internal
} // namespace tavren
