#ifndef TAVREN_TAVREN_H
#define TAVREN_TAVREN_H

// Everything an application needs from libtavren.
#include <tavren/HeaderMap.h>

#endif
