// SPDX-License-Identifier: Apache-2.0
#include "support/TestVfs.h"

#include <sqlite3.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>
#include <vector>

namespace tavren {
namespace test {
namespace {

struct Write {
    sqlite3_int64 offset;
    std::string bytes;
};

struct State {
    std::mutex lock;
    long long writesLeft = -1;
    int failure = SQLITE_FULL;
    bool holding = false, powerLost = false;
    long syncs = 0;
};

State state;
sqlite3_vfs vfs;
sqlite3_vfs* base = nullptr;

struct File {
    sqlite3_file file;
    std::vector<Write>* pending;
    sqlite3_file* real() { return reinterpret_cast<sqlite3_file*>(this + 1); }
};

File* of(sqlite3_file* f) { return reinterpret_cast<File*>(f); }

int xClose(sqlite3_file* f) {
    File* file = of(f);
    delete file->pending;
    return file->real()->pMethods->xClose(file->real());
}

int xRead(sqlite3_file* f, void* out, int amount, sqlite3_int64 offset) {
    File* file = of(f);
    int rc = file->real()->pMethods->xRead(file->real(), out, amount, offset);
    std::lock_guard<std::mutex> guard(state.lock);
    bool covered = false;
    for (const Write& w : *file->pending) {
        const sqlite3_int64 from = std::max(offset, w.offset);
        const sqlite3_int64 to = std::min(offset + amount, w.offset + static_cast<sqlite3_int64>(w.bytes.size()));
        if (from >= to) continue;
        std::memcpy(static_cast<char*>(out) + (from - offset), w.bytes.data() + (from - w.offset), to - from);
        if (from == offset && to == offset + amount) covered = true;
    }
    // A read the held writes fill entirely is not short.
    if (covered && rc == SQLITE_IOERR_SHORT_READ) rc = SQLITE_OK;
    return rc;
}

int xWrite(sqlite3_file* f, const void* data, int amount, sqlite3_int64 offset) {
    File* file = of(f);
    {
        std::lock_guard<std::mutex> guard(state.lock);
        if (state.powerLost) return SQLITE_OK;
        if (state.writesLeft >= 0) {
            if (state.writesLeft < amount) return state.failure;
            state.writesLeft -= amount;
        }
        if (state.holding) {
            file->pending->push_back(Write{offset, std::string(static_cast<const char*>(data), amount)});
            return SQLITE_OK;
        }
    }
    return file->real()->pMethods->xWrite(file->real(), data, amount, offset);
}

int flushPending(File* file) {
    for (const Write& w : *file->pending) {
        const int rc =
            file->real()->pMethods->xWrite(file->real(), w.bytes.data(), static_cast<int>(w.bytes.size()), w.offset);
        if (rc != SQLITE_OK) return rc;
    }
    file->pending->clear();
    return SQLITE_OK;
}

int xTruncate(sqlite3_file* f, sqlite3_int64 size) {
    File* file = of(f);
    std::lock_guard<std::mutex> guard(state.lock);
    if (state.powerLost) return SQLITE_OK;
    // Taken as a sync point: what was held is written first.
    const int rc = flushPending(file);
    return rc != SQLITE_OK ? rc : file->real()->pMethods->xTruncate(file->real(), size);
}

int xSync(sqlite3_file* f, int flags) {
    File* file = of(f);
    std::lock_guard<std::mutex> guard(state.lock);
    if (state.powerLost) return SQLITE_OK;
    ++state.syncs;
    const int rc = flushPending(file);
    return rc != SQLITE_OK ? rc : file->real()->pMethods->xSync(file->real(), flags);
}

int xFileSize(sqlite3_file* f, sqlite3_int64* size) {
    File* file = of(f);
    const int rc = file->real()->pMethods->xFileSize(file->real(), size);
    std::lock_guard<std::mutex> guard(state.lock);
    for (const Write& w : *file->pending) {
        *size = std::max(*size, w.offset + static_cast<sqlite3_int64>(w.bytes.size()));
    }
    return rc;
}

int xLock(sqlite3_file* f, int level) { return of(f)->real()->pMethods->xLock(of(f)->real(), level); }
int xUnlock(sqlite3_file* f, int level) { return of(f)->real()->pMethods->xUnlock(of(f)->real(), level); }
int xCheckReservedLock(sqlite3_file* f, int* out) {
    return of(f)->real()->pMethods->xCheckReservedLock(of(f)->real(), out);
}
int xFileControl(sqlite3_file* f, int op, void* arg) {
    // The size hint would extend the real file past what is held.
    if (op == SQLITE_FCNTL_SIZE_HINT) return SQLITE_OK;
    return of(f)->real()->pMethods->xFileControl(of(f)->real(), op, arg);
}
int xSectorSize(sqlite3_file* f) { return of(f)->real()->pMethods->xSectorSize(of(f)->real()); }
int xDeviceCharacteristics(sqlite3_file* f) { return of(f)->real()->pMethods->xDeviceCharacteristics(of(f)->real()); }
int xShmMap(sqlite3_file* f, int region, int size, int extend, void volatile** out) {
    return of(f)->real()->pMethods->xShmMap(of(f)->real(), region, size, extend, out);
}
int xShmLock(sqlite3_file* f, int offset, int n, int flags) {
    return of(f)->real()->pMethods->xShmLock(of(f)->real(), offset, n, flags);
}
void xShmBarrier(sqlite3_file* f) { of(f)->real()->pMethods->xShmBarrier(of(f)->real()); }
int xShmUnmap(sqlite3_file* f, int deleteFlag) { return of(f)->real()->pMethods->xShmUnmap(of(f)->real(), deleteFlag); }
int xFetch(sqlite3_file*, sqlite3_int64, int, void** out) {
    *out = nullptr;
    return SQLITE_OK;
}
int xUnfetch(sqlite3_file*, sqlite3_int64, void*) { return SQLITE_OK; }

const sqlite3_io_methods methods = {3,
                                    xClose,
                                    xRead,
                                    xWrite,
                                    xTruncate,
                                    xSync,
                                    xFileSize,
                                    xLock,
                                    xUnlock,
                                    xCheckReservedLock,
                                    xFileControl,
                                    xSectorSize,
                                    xDeviceCharacteristics,
                                    xShmMap,
                                    xShmLock,
                                    xShmBarrier,
                                    xShmUnmap,
                                    xFetch,
                                    xUnfetch};

int xOpen(sqlite3_vfs*, sqlite3_filename name, sqlite3_file* f, int flags, int* outFlags) {
    File* file = of(f);
    file->file.pMethods = nullptr;
    const int rc = base->xOpen(base, name, file->real(), flags, outFlags);
    if (rc != SQLITE_OK) return rc;
    file->pending = new std::vector<Write>();
    file->file.pMethods = &methods;
    return SQLITE_OK;
}

int xDelete(sqlite3_vfs*, const char* name, int syncDir) {
    {
        std::lock_guard<std::mutex> guard(state.lock);
        if (state.powerLost) return SQLITE_OK;
    }
    return base->xDelete(base, name, syncDir);
}

int xAccess(sqlite3_vfs*, const char* name, int flags, int* out) { return base->xAccess(base, name, flags, out); }
int xFullPathname(sqlite3_vfs*, const char* name, int n, char* out) { return base->xFullPathname(base, name, n, out); }
int xRandomness(sqlite3_vfs*, int n, char* out) { return base->xRandomness(base, n, out); }
int xSleep(sqlite3_vfs*, int micros) { return base->xSleep(base, micros); }
int xCurrentTime(sqlite3_vfs*, double* out) { return base->xCurrentTime(base, out); }
int xGetLastError(sqlite3_vfs*, int n, char* out) { return base->xGetLastError(base, n, out); }
int xCurrentTimeInt64(sqlite3_vfs*, sqlite3_int64* out) { return base->xCurrentTimeInt64(base, out); }

} // namespace

void TestVfs::install() {
    std::lock_guard<std::mutex> guard(state.lock);
    state.writesLeft = -1;
    state.holding = false;
    state.powerLost = false;
    state.syncs = 0;
    if (base) return;
    base = sqlite3_vfs_find(nullptr);
    vfs = sqlite3_vfs{};
    vfs.iVersion = 2;
    vfs.szOsFile = static_cast<int>(sizeof(File)) + base->szOsFile;
    vfs.mxPathname = base->mxPathname;
    vfs.zName = name();
    vfs.xOpen = xOpen;
    vfs.xDelete = xDelete;
    vfs.xAccess = xAccess;
    vfs.xFullPathname = xFullPathname;
    vfs.xRandomness = xRandomness;
    vfs.xSleep = xSleep;
    vfs.xCurrentTime = xCurrentTime;
    vfs.xGetLastError = xGetLastError;
    vfs.xCurrentTimeInt64 = xCurrentTimeInt64;
    sqlite3_vfs_register(&vfs, 0);
}

void TestVfs::failWritesAfter(long long bytes, int code) {
    std::lock_guard<std::mutex> guard(state.lock);
    state.writesLeft = bytes;
    state.failure = code;
}

void TestVfs::holdUnsyncedWrites() {
    std::lock_guard<std::mutex> guard(state.lock);
    state.holding = true;
}

void TestVfs::losePower() {
    std::lock_guard<std::mutex> guard(state.lock);
    state.powerLost = true;
}

long TestVfs::syncs() {
    std::lock_guard<std::mutex> guard(state.lock);
    return state.syncs;
}

} // namespace test
} // namespace tavren
