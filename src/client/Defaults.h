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

// Stack of a worker thread. Small enough that the thread library keeps the
// stacks of joined workers for reuse (its cache holds 40 MiB: 160 of these,
// far more than the bound above), so a new worker maps no fresh stack; large
// enough for listener code that does not keep big arrays on the stack.
const size_t kDefaultWorkerStackSize = 256 * 1024;

} // namespace internal
} // namespace tavren

#endif
