// SPDX-License-Identifier: Apache-2.0
#include "transport/AprManager.h"

#include "transport/AprException.h"

#include <apr_general.h>

namespace tavren {
namespace internal {

AprManager::AprManager() {
    apr_status_t rc = apr_initialize();
    // Leaving a static initialiser ends the process: without the runtime the
    // library cannot work at all.
    if (rc != APR_SUCCESS) throw AprException(rc);
}

AprManager::~AprManager() { apr_terminate(); }

} // namespace internal
} // namespace tavren
