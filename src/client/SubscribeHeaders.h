// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_INTERNAL_SUBSCRIBEHEADERS_H
#define TAVREN_INTERNAL_SUBSCRIBEHEADERS_H

#include <tavren/HeaderMap.h>

namespace tavren {
namespace internal {

/**
 * Throws std::invalid_argument naming the first header of headers that the
 * library writes on a SUBSCRIBE itself ("destination", "id", "ack",
 * "receipt", and the prefetch bounds "prefetch-count" and
 * "activemq.prefetchSize"). An application's header must not contradict
 * what the library relies on to route, acknowledge and await.
 */
void refuseLibraryHeaders(const HeaderMap& headers);

} // namespace internal
} // namespace tavren

#endif
