// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_INTERNAL_OUTBOXHEADERS_H
#define TAVREN_INTERNAL_OUTBOXHEADERS_H

#include <tavren/HeaderMap.h>

#include <string>

namespace tavren {
namespace internal {

/** A message's headers as one blob of a file outbox: for each, the length of the name (4 bytes), the name, the
 * length of the value and the value. */
std::string encodeOutboxHeaders(const HeaderMap& headers);
/** The headers of a blob encodeOutboxHeaders made; what does not fit that form is left out. */
HeaderMap decodeOutboxHeaders(const std::string& blob);

} // namespace internal
} // namespace tavren

#endif
