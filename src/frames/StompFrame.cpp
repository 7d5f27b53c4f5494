// SPDX-License-Identifier: Apache-2.0
#include "frames/StompFrame.h"

namespace tavren {
namespace internal {

StompFrame::StompFrame() : body_(nullptr) {}

StompFrame::~StompFrame() {}

std::ostream& operator<<(std::ostream& os, StompFrame const& frame) {
    os << "<<<<<<<<<<  FRAME >>>>>>>>>>" << std::endl;
    os << "Command: " << static_cast<const void*>(&frame.command()) << std::endl;
    os << "<<<<<<<<<<  HDRS >>>>>>>>>>" << std::endl;
    for (HeaderMap::const_iterator it = frame.headers().begin(); it != frame.headers().end(); ++it)
        os << it->first << ":" << it->second << std::endl;
    os << "<<<<<<<<<<  END HDRS >>>>>>>>>>" << std::endl;
    os << "<<<<<<<<<<  BODY >>>>>>>>>>" << std::endl;
    if (frame.body())
        os << frame.body();
    else
        os.setstate(std::ios_base::badbit); // what inserting a null C string does
    os << std::endl;
    os << "<<<<<<<<<<  END BODY >>>>>>>>>>" << std::endl;
    os << "<<<<<<<<<<  END FRAME >>>>>>>>>>" << std::endl;
    return os;
}

} // namespace internal
} // namespace tavren
