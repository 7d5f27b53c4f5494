// SPDX-License-Identifier: Apache-2.0
// Adding messages of 100 bytes to an outbox: in memory, and in a file under
// Crash and under PowerLoss, from 1 and from 4 threads. Every thread removes
// what it added in batches of 1000, as confirmations would. The file lies in
// TAVREN_BENCH_DIR (default /tmp), so the disk under it decides the fsyncs'
// cost. Counters: bytes written to storage per message (/proc/self/io).
//
//   ./bench/bench_outbox --benchmark_min_time=2
//   TAVREN_BENCH_ITERATIONS=2000 strace -f -c -e trace=fsync,fdatasync
//     ./bench/bench_outbox --benchmark_filter='PowerLoss/.*threads:1$'   (one command)
#include "outbox/FileOutbox.h"
#include "outbox/OutboxStore.h"

#include <benchmark/benchmark.h>

#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

const std::string kBody(100, 'm');
const tavren::HeaderMap kNoHeaders;

std::unique_ptr<tavren::internal::OutboxStore> shared;
std::string folder;
long long writtenBefore = 0;

long long writeBytes() {
    FILE* io = std::fopen("/proc/self/io", "r");
    if (!io) return 0;
    char line[128];
    long long bytes = 0;
    while (std::fgets(line, sizeof line, io)) {
        if (std::sscanf(line, "write_bytes: %lld", &bytes) == 1) break;
    }
    std::fclose(io);
    return bytes;
}

tavren::OutboxOptions options(int kind) {
    tavren::OutboxOptions o;
    o.maxMessages = 1000000;
    o.maxBytes = 1024 * 1024 * 1024;
    if (kind == 0) return o;
    const char* base = std::getenv("TAVREN_BENCH_DIR");
    std::string name = std::string(base ? base : "/tmp") + "/tavren-bench-outbox-XXXXXX";
    std::vector<char> text(name.begin(), name.end());
    text.push_back('\0');
    folder = mkdtemp(text.data()) ? text.data() : "/tmp";
    o.file = folder + "/outbox.db";
    o.durability = kind == 1 ? tavren::OutboxOptions::Crash : tavren::OutboxOptions::PowerLoss;
    return o;
}

void removeFolder() {
    if (folder.empty()) return;
    for (const char* suffix : {"", "-wal", "-shm"}) unlink((folder + "/outbox.db" + suffix).c_str());
    rmdir(folder.c_str());
    folder.clear();
}

// kind: 0 memory, 1 file under Crash, 2 file under PowerLoss.
void addMessages(benchmark::State& state, int kind) {
    if (state.thread_index() == 0) {
        const tavren::OutboxOptions o = options(kind);
        shared = o.file.empty() ? tavren::internal::makeMemoryOutbox(o)
                                : tavren::internal::openFileOutbox(
                                      o, [](const std::string& line) { std::fprintf(stderr, "%s\n", line.c_str()); });
        writtenBefore = writeBytes();
    }
    std::vector<std::uint64_t> added;
    added.reserve(1000);
    for (auto _ : state) {
        added.push_back(shared->add("/queue/bench", kNoHeaders, kBody, nullptr));
        if (added.size() == 1000) {
            shared->remove(added);
            added.clear();
        }
    }
    shared->remove(added);
    if (state.thread_index() == 0) {
        state.counters["written/msg"] =
            benchmark::Counter(static_cast<double>(writeBytes() - writtenBefore), benchmark::Counter::kAvgIterations);
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_AddMemory(benchmark::State& state) { addMessages(state, 0); }
void BM_AddFileCrash(benchmark::State& state) { addMessages(state, 1); }
void BM_AddFilePowerLoss(benchmark::State& state) { addMessages(state, 2); }

// The store is closed when the last thread is done, before the next run.
void closeStore(const benchmark::State&) {
    shared.reset();
    removeFolder();
}

// TAVREN_BENCH_ITERATIONS=N: exactly N adds a thread, in one run (for counting system calls with strace).
void configure(benchmark::internal::Benchmark* b) {
    b->Threads(1)->Threads(4)->UseRealTime()->Teardown(closeStore);
    if (const char* n = std::getenv("TAVREN_BENCH_ITERATIONS")) b->Iterations(std::atoll(n));
}

BENCHMARK(BM_AddMemory)->Apply(configure);
BENCHMARK(BM_AddFileCrash)->Apply(configure);
BENCHMARK(BM_AddFilePowerLoss)->Apply(configure);

} // namespace

BENCHMARK_MAIN();
