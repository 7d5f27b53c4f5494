// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_TAVREN_H
#define TAVREN_TAVREN_H

// Everything an application needs from libtavren.
#include <kelvra/utility/Version.h>
#include <tavren/ConnectionException.h>
#include <tavren/HeaderMap.h>
#include <tavren/Listener.h>
#include <tavren/Logger.h>
#include <tavren/Message.h>
#include <tavren/OutboxException.h>
#include <tavren/OutboxOptions.h>
#include <tavren/StompClient.h>
#include <tavren/SystemException.h>
#include <tavren/TlsOptions.h>
#include <tavren/Version.h>

/**
 * @namespace tavren
 * The client: StompClient, the Listener an application derives from, the
 * Message it receives, the Logger the library writes to, and the exceptions.
 * tavren::internal holds the engine's classes, which are not part of the
 * public interface.
 */

#endif
