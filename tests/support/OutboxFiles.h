// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_TEST_OUTBOXFILES_H
#define TAVREN_TEST_OUTBOXFILES_H

#include "outbox/FileOutbox.h"
#include "outbox/OutboxStore.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace tavren {
namespace test {

/** Options of a file outbox in path. */
inline tavren::OutboxOptions
fileOptions(const std::string& path, tavren::OutboxOptions::Durability durability = tavren::OutboxOptions::PowerLoss) {
    tavren::OutboxOptions options;
    options.file = path;
    options.durability = durability;
    return options;
}

/** Opens a file outbox; a line logged is a failure of the test unless lines is given to collect it. */
inline std::unique_ptr<internal::OutboxStore> openOutbox(const tavren::OutboxOptions& options,
                                                         std::vector<std::string>* lines = nullptr,
                                                         const std::string& vfs = std::string()) {
    return internal::openFileOutbox(
        options,
        [lines](const std::string& line) {
            if (lines) {
                lines->push_back(line);
            } else {
                ADD_FAILURE() << "logged: " << line;
            }
        },
        vfs);
}

/** Every message kept, in order. */
inline std::vector<internal::OutboxEntry> readAll(internal::OutboxStore& store) {
    std::vector<internal::OutboxEntry> out;
    store.readAfter(0, static_cast<std::size_t>(-1), &out);
    return out;
}

/** The bodies of every message kept, in order. */
inline std::vector<std::string> bodiesOf(internal::OutboxStore& store) {
    std::vector<std::string> out;
    for (const internal::OutboxEntry& entry : readAll(store)) out.push_back(entry.body);
    return out;
}

} // namespace test
} // namespace tavren

#endif
