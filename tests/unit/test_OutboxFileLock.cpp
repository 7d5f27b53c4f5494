// SPDX-License-Identifier: Apache-2.0
// The lock that keeps an outbox file to one store, where taking it fails.
#include "outbox/OutboxFileLock.h"

#include "support/TempFolder.h"

#include <tavren/OutboxException.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <string>

namespace tavren {
namespace test {
namespace {

using internal::OutboxFileLock;

std::string refusal(const std::string& path) {
    try {
        OutboxFileLock lock(path);
    } catch (const OutboxException& e) {
        return e.what();
    }
    return "";
}

TEST(OutboxFileLock, AFileThatCannotBeMadeIsRefusedWithTheReason) {
    EXPECT_EQ(refusal("/nonexistent-tavren-folder/outbox.db"),
              "The outbox file /nonexistent-tavren-folder/outbox.db cannot be opened (No such file or directory).");
}

TEST(OutboxFileLock, AFileLockedThroughAnotherOpenFileIsUsedByAnotherClient) {
    TempFolder folder;
    const std::string path = folder.file("outbox.db");
    // An open file description of its own, as another process holds it.
    const int other = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_GE(other, 0);
    struct flock range = {};
    range.l_type = F_WRLCK;
    range.l_whence = SEEK_SET;
    range.l_len = 1;
    ASSERT_EQ(0, ::fcntl(other, F_OFD_SETLK, &range));
    EXPECT_EQ(refusal(path), "The outbox file " + path + " is used by another client.");
    ::close(other);
    EXPECT_EQ(refusal(path), "");
}

TEST(OutboxFileLock, AFileOnAReadOnlyFileSystemIsLockedForReading) {
    TempFolder folder;
    if (!folder.mountTmpfs(64)) GTEST_SKIP() << "mounting a tmpfs needs root";
    const std::string path = folder.file("outbox.db");
    const int made = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_GE(made, 0);
    ::close(made);
    ASSERT_EQ(0, mount("tmpfs", folder.path.c_str(), "tmpfs", MS_REMOUNT | MS_RDONLY, nullptr));
    {
        OutboxFileLock reader(path);
        // Still one store a file within the process.
        EXPECT_EQ(refusal(path), "The outbox file " + path + " is used by another client.");
    }
    EXPECT_EQ(refusal(path), "");
}

} // namespace
} // namespace test
} // namespace tavren
