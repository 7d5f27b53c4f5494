// SPDX-License-Identifier: Apache-2.0
#include <tavren/Version.h>

namespace tavren {

// Compiled into the library, so it reports the library's version, not the
// one of the headers the caller saw.
const char* libraryVersion() { return TAVREN_VERSION_STRING; }

} // namespace tavren
