// SPDX-License-Identifier: Apache-2.0
#include <kelvra/threads/ScopedLock.h>

namespace kelvra {
namespace threads {

ScopedLock::ScopedLock(pthread_mutex_t* m) : mutex(m) { pthread_mutex_lock(mutex); }

ScopedLock::~ScopedLock() { pthread_mutex_unlock(mutex); }

} // namespace threads
} // namespace kelvra
