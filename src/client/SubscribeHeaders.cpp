// SPDX-License-Identifier: Apache-2.0
#include "client/SubscribeHeaders.h"

#include <stdexcept>
#include <string>

namespace tavren {
namespace internal {

namespace {

const char* const kLibraryHeaders[] = {"destination",          "id", "ack", "receipt", "prefetch-count",
                                       "activemq.prefetchSize"};

} // namespace

void refuseLibraryHeaders(const HeaderMap& headers) {
    for (const char* name : kLibraryHeaders) {
        if (headers.count(name)) {
            throw std::invalid_argument(std::string("The header \"") + name +
                                        "\" is written by the library and cannot be given to listenOnQueue.");
        }
    }
}

} // namespace internal
} // namespace tavren
