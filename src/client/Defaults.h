// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_INTERNAL_DEFAULTS_H
#define TAVREN_INTERNAL_DEFAULTS_H

#include <cstddef>

namespace tavren {
namespace internal {

// Every bound, time-out and interval the library chooses by itself, with
// the reason for its value.

// The listen thread checks its run flag at least this often (milliseconds):
// it waits for the socket or a finished worker no longer than this.
const int kListenWaitMs = 20;

// The grace given to a running worker when the connection ends (microseconds)
// before it is left to finish alone, unacknowledged.
const unsigned kWorkerGraceUs = 20000;

// At most this many listener calls run at once. A device with one to four
// cores gains nothing from more runnable threads, and listeners that wait on
// I/O still overlap sixteen deep; sixteen worker stacks (below) reserve 4 MiB
// of address space and touch only the pages a listener uses. Once the bound
// is reached, the broker's frames wait in the socket and TCP holds it back.
const int kDefaultMaxWorkers = 16;

// Stack of a worker thread: large enough for listener code that does not
// keep big arrays on the stack, small enough that sixteen of them cost
// little address space. The library keeps these stacks mapped for reuse
// (WorkerStacks), so a new worker maps and faults in nothing.
const size_t kDefaultWorkerStackSize = 256 * 1024;

// The sanitizers need deeper stacks than the system's minimum for the
// threads they watch, and refuse smaller ones handed to them.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
const size_t kLeastWorkerStackSize = 1024 * 1024;
#else
const size_t kLeastWorkerStackSize = 0; // the system's minimum applies
#endif

// Worker stacks kept mapped for reuse beyond those in use: twice the default
// bound, so a raised bound still reuses most of them. At the default size
// that is at most 8 MiB of address space; only the pages listeners touched
// are resident.
const size_t kKeptWorkerStacks = 32;

} // namespace internal
} // namespace tavren

#endif
