// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_INTERNAL_FILEOUTBOX_H
#define TAVREN_INTERNAL_FILEOUTBOX_H

#include "outbox/OutboxStore.h"

#include <functional>
#include <memory>
#include <string>

namespace tavren {
namespace internal {

/**
 * openFileOutbox through the SQLite VFS named (registered with
 * sqlite3_vfs_register; empty: the default): how the tests put the store on
 * a storage layer that fails or loses power.
 */
std::unique_ptr<OutboxStore> openFileOutbox(const tavren::OutboxOptions& options,
                                            const std::function<void(const std::string&)>& logError,
                                            const std::string& vfs);

} // namespace internal
} // namespace tavren

#endif
