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

// With enableOrderedDelivery, each SUBSCRIBE asks the broker to keep at most
// this many of the subscription's messages unacknowledged (RabbitMQ's
// prefetch-count, ActiveMQ's activemq.prefetchSize), and the library keeps
// no more than this many of a destination's messages waiting for its
// listener; reading pauses only when a broker sends beyond it. Both brokers
// hold the bound per subscription, so a listener that sleeps on one queue
// leaves the others flowing. The bound must cover the time an ACK takes to
// reach the broker and the next message to come back, and the pool's threads
// write the ACKs of a run of calls together (kPoolAnswersPerWrite), so up to
// that many answered messages still count against the bound. Measured on
// RabbitMQ through loopback (one busy queue, a pool of 4), 128 and 256 left
// the listener waiting for the broker: 0.69x and 0.75x the rate of a raw
// client without a bound, 512 reached 0.91x and 1024 no more. 512 messages
// of a few hundred bytes are a few hundred KiB a busy destination.
const size_t kOrderedPrefetch = 512;

// A worker pool whose listener calls take less than this on average
// (nanoseconds, over the last few dozen calls) wakes one sleeping thread for
// what it is handed while none is busy, and leaves the rest to the thread
// that is awake: waking a thread costs about 10 to 20 us of CPU (a system
// call on each side and two context switches), more than such calls, so
// the records of one read run one after the other on one thread, at most
// the pool's size of them (reading pauses at that many), a few tens of us.
// With longer calls every record wakes a thread of its own, as many as sleep.
const long long kPoolShortCallNs = 50 * 1000;
// A record that has waited this long (milliseconds) for the thread that is
// awake, while others sleep, gets one of them: a call that turned long (or
// never returns) holds back the records behind it at most this long, plus
// the listen thread's wait (kListenWaitMs), which looks at it each pass.
const int kPoolNudgeMs = 2;
// Records that may wait for a pool thread while not every thread is in a
// call: those of a run of short calls, which the one thread awake takes one
// after the other. Reading pauses at this many (beyond the pool's size), as
// it does while every thread is in a call: a bound on the memory they hold,
// a few dozen KiB.
const size_t kPoolQueuedRecords = 64;
// A pool thread that reads the socket for the pool (while calls are short)
// looks at its flags at least this often (milliseconds); it is woken at once
// to stop.
const int kPoolWatchMs = 1000;
// A pool thread that writes the answers to its calls itself (useWorkerPool)
// writes those of one run of short calls together, once no record is ready
// or this many wait: one write for a burst instead of one a message, and no
// wake-up of the listen thread for it.
const size_t kPoolAnswersPerWrite = 64;
// Message records the listen thread keeps for the next messages once their
// calls are over, instead of freeing them and allocating new ones (their
// frames go back to the connection's reader, within its own bound): one
// pool write's worth, a few kilobytes.
const size_t kSpareRecords = 64;

// Worker stacks kept mapped for reuse beyond those in use: twice the default
// bound, so a raised bound still reuses most of them. At the default size
// that is at most 8 MiB of address space; only the pages listeners touched
// are resident.
const size_t kKeptWorkerStacks = 32;

// A write to the broker fails when not one byte of it could be sent for
// this long (microseconds); the connection is then taken as lost and made
// again. A broker that reads at all, however slowly, is waited for; one
// that stopped reading no longer holds the engine (and with it every
// caller) for ever. Ten seconds is long beyond any pause of a working
// broker or network, and short enough that a public call that meets a
// stalled write still returns within half a minute.
const long long kWriteTimeoutUs = 10 * 1000 * 1000;

// How long a subscription or unsubscription waits for the broker's receipt
// (milliseconds). A broker answers within milliseconds; one that has not
// answered after ten seconds is taken as lost, and the reconnect subscribes
// the listener again. The re-subscriptions after a connect share one such
// wait, so that a connection with many listeners is not held longer.
const int kReceiptTimeoutMs = 10 * 1000;

// When stopping the listen thread, the ACKs and NACKs of workers that
// finished meanwhile get this long in all (microseconds): a broker that
// stopped reading must not hold a close.
const long long kSettleWriteBudgetUs = 2 * 1000 * 1000;

// closeConnection and the destructor wait this long (milliseconds) for
// whoever holds the engine; after that the connection is shut down under
// it, so that a write stalled on it fails at once and lets go.
const int kCloseGraceMs = 1000;

// Each wait for the next reconnect attempt is the reconnect period plus a
// random part of up to this share of it (percent), so that a fleet of
// devices that lost the same broker does not come back in lock-step.
const int kReconnectJitterPercent = 10;

// An outbox writes at most this many messages, and this many bytes of
// bodies, before the broker has confirmed them. A broker confirms a
// persistent message only once it has stored it, in batches as its disk
// allows: the window must hold more than a batch, or the client waits for
// each one in turn. RabbitMQ and ActiveMQ keep up at 1,000 (see
// docs/outbox.md for the measurement); the bytes bound keeps a window of
// large messages from taking more than 1 MiB of memory on a device. After a
// lost connection at most this much is sent twice.
const size_t kOutboxWindowMessages = 1000;
const size_t kOutboxWindowBytes = 1024 * 1024;

// Messages an outbox reads from its store and writes in one go, at most.
const size_t kOutboxBatchMessages = 256;

// A message the broker has not confirmed this long after it was written
// (milliseconds) costs the connection, which is made again; the message is
// then sent again. A broker confirms within milliseconds, or within a second
// under load; RabbitMQ answers a publish it drops with nothing at all, and a
// peer that vanished answers nothing either. Ten seconds is the time a
// subscription waits for its receipt too.
const long kOutboxReceiptTimeoutMs = 10 * 1000;
// After a connection that the broker refused (an ERROR, then the end of the
// connection) or that ended within a reconnect period of its CONNECTED, the
// next attempt waits a reconnect period, and each further one in a row
// doubles the wait up to this (milliseconds; never below the period). A
// refusal is mended by an operator, not by trying again: a minute between
// attempts keeps a device's log and the broker's connection churn at about
// one connection a minute (16 in ten minutes with a 1 s period), and brings
// the client back within a minute of the mend.
const int kRefusalBackoffCapMs = 60 * 1000;

// After an ERROR while a subscription's receipt is awaited, the subscriber
// waits this long (milliseconds) for the connection to end: a broker that
// closes after its ERROR does so at once (the end follows in the same
// moment), and only then is the listener kept and subscribed again; on a
// connection that stays open the answer stands as it came.
const int kRefusalSettleMs = 250;

// A connection that ends at most this long (milliseconds) after an ERROR is
// taken as closed by the broker for that ERROR, a refusal. A broker that
// refuses closes at once: the end follows within the same read, or a round
// trip on a slow link. ActiveMQ answers an ACK it cannot match with an ERROR
// and keeps the connection open, so a connection that ends later (the broker
// stopped, the network went) was not refused.
const int kRefusalCloseMs = 500;

// A broker that answers frames with ERRORs and keeps the connection open
// (ActiveMQ on STOMP 1.2 answers every ACK so) gets a line with its reason
// from its second such ERROR on, then at most once in this many
// milliseconds, with the count: the reason reaches the log without a line
// per message beside the one every ERROR without a receipt-id already gets.
const int kKeptErrorLineMs = 60 * 1000;

} // namespace internal
} // namespace tavren

#endif
