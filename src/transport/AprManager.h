// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_INTERNAL_APRMANAGER_H
#define TAVREN_INTERNAL_APRMANAGER_H

namespace tavren {
namespace internal {

/**
 * Initialises the portable runtime when constructed and terminates it when
 * destroyed. The library holds exactly one, StompConnection::apr_init, a
 * static object built when the library is loaded.
 */
class AprManager {
public:
    AprManager();
    virtual ~AprManager();
};

} // namespace internal
} // namespace tavren

#endif
