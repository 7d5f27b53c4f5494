// SPDX-License-Identifier: Apache-2.0
#ifndef KELVRA_KELVRA_H
#define KELVRA_KELVRA_H

#include <kelvra/SharedPtr.h>
#include <kelvra/UniquePtr.h>
#include <kelvra/threads/CondVar.h>
#include <kelvra/threads/ScopedLock.h>
#include <kelvra/time/Timer.h>
#include <kelvra/utility/Uuid.h>
#include <kelvra/utility/Version.h>

/**
 * @namespace kelvra
 * The utilities libtavren is built on and that its public interface uses:
 * the pointers SharedPtr and UniquePtr and the namespaces below. Part of
 * libtavren.so; an application may use them too.
 *
 * @namespace kelvra::threads
 * POSIX thread helpers: a condition variable on the monotonic clock and a
 * scoped mutex lock.
 *
 * @namespace kelvra::time
 * A periodic timer with a thread of its own, which the client's reconnects use.
 *
 * @namespace kelvra::utility
 * Protocol versions (Version) and random UUIDs (generateUuid).
 */

#endif
