// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_TEST_TEMPFOLDER_H
#define TAVREN_TEST_TEMPFOLDER_H

#include <dirent.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

namespace tavren {
namespace test {

/** A folder of its own under /tmp, removed with what it holds (and unmounted, if a file system was mounted on it). */
class TempFolder {
public:
    TempFolder() {
        char name[] = "/tmp/tavren-test-XXXXXX";
        if (mkdtemp(name)) path = name;
    }
    ~TempFolder() {
        if (mounted) umount(path.c_str());
        for (const std::string& name : names()) unlink((path + "/" + name).c_str());
        rmdir(path.c_str());
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    /** Mounts a tmpfs of this many KiB on the folder; false when the system refuses (not root). */
    bool mountTmpfs(int kib) {
        mounted = mount("tmpfs", path.c_str(), "tmpfs", 0, ("size=" + std::to_string(kib) + "k").c_str()) == 0;
        return mounted;
    }

    /** The names in the folder, sorted. */
    std::vector<std::string> names() const {
        std::vector<std::string> out;
        if (DIR* dir = opendir(path.c_str())) {
            while (dirent* entry = readdir(dir)) {
                if (entry->d_name[0] != '.') out.push_back(entry->d_name);
            }
            closedir(dir);
        }
        std::sort(out.begin(), out.end());
        return out;
    }

    std::string file(const std::string& name) const { return path + "/" + name; }

    std::string path;

private:
    bool mounted = false;
};

} // namespace test
} // namespace tavren

#endif
