// SPDX-License-Identifier: Apache-2.0
#include "outbox/OutboxFileLock.h"

#include <tavren/OutboxException.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <set>
#include <utility>

namespace tavren {
namespace internal {
namespace {

typedef std::pair<unsigned long long, unsigned long long> FileId;

std::mutex registryLock;
std::set<FileId>& lockedFiles() {
    static std::set<FileId> files;
    return files;
}

OutboxException usedByAnother(const std::string& path) {
    return OutboxException("The outbox file " + path + " is used by another client.");
}

} // namespace

OutboxFileLock::OutboxFileLock(const std::string& path) {
    std::lock_guard<std::mutex> guard(registryLock);
    struct stat st;
    if (::stat(path.c_str(), &st) == 0 && lockedFiles().count(FileId(st.st_dev, st.st_ino))) throw usedByAnother(path);
    bool writable = true;
    fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0 && (errno == EACCES || errno == EROFS)) {
        // A file that cannot be written is still opened, to send what it keeps; adding to it fails.
        writable = false;
        fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    }
    if (fd < 0) {
        throw OutboxException("The outbox file " + path + " cannot be opened (" + std::strerror(errno) + ").");
    }
    struct flock range = {};
    range.l_type = writable ? F_WRLCK : F_RDLCK;
    range.l_whence = SEEK_SET;
    range.l_start = 0;
    range.l_len = 1;
    if (::fcntl(fd, F_OFD_SETLK, &range) != 0) {
        const int error = errno;
        ::close(fd);
        if (error == EAGAIN || error == EACCES) throw usedByAnother(path);
        throw OutboxException("The outbox file " + path + " cannot be locked (" + std::strerror(error) + ").");
    }
    ::fstat(fd, &st);
    device = st.st_dev;
    inode = st.st_ino;
    lockedFiles().insert(FileId(device, inode));
}

OutboxFileLock::~OutboxFileLock() {
    std::lock_guard<std::mutex> guard(registryLock);
    lockedFiles().erase(FileId(device, inode));
    ::close(fd);
}

} // namespace internal
} // namespace tavren
