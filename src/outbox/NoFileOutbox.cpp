// SPDX-License-Identifier: Apache-2.0
// openFileOutbox in a library built without SQLite (TAVREN_FILE_OUTBOX=OFF).
#include "outbox/FileOutbox.h"

#include <stdexcept>

namespace tavren {
namespace internal {

std::unique_ptr<OutboxStore> openFileOutbox(const tavren::OutboxOptions&,
                                            const std::function<void(const std::string&)>&, const std::string&) {
    throw std::logic_error("File outboxes are not built into this library: useOutbox needs an empty file.");
}

std::unique_ptr<OutboxStore> openFileOutbox(const tavren::OutboxOptions& options,
                                            const std::function<void(const std::string&)>& logError) {
    return openFileOutbox(options, logError, std::string());
}

} // namespace internal
} // namespace tavren
