#ifndef TAVREN_TAVREN_H
#define TAVREN_TAVREN_H

// Everything an application needs from libtavren.
#include <kelvra/utility/Version.h>
#include <tavren/ConnectionException.h>
#include <tavren/HeaderMap.h>
#include <tavren/Listener.h>
#include <tavren/Logger.h>
#include <tavren/Message.h>
#include <tavren/StompClient.h>
#include <tavren/SystemException.h>
#include <tavren/Version.h>

#endif
