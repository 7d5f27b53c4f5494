// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_INTERNAL_CONNECTFRAME_H
#define TAVREN_INTERNAL_CONNECTFRAME_H

#include "frames/ClientFrame.h"

#include <kelvra/utility/Version.h>

#include <string>
#include <vector>

namespace tavren {
namespace internal {

/**
 * The CONNECT frame. A fresh frame holds only "heart-beat" = "0,0"; each
 * setter inserts or overwrites its own headers and touches no other. No body.
 */
class ConnectFrame : public ClientFrame {
public:
    ConnectFrame();
    virtual ~ConnectFrame();

    /** "host", unchanged (an empty name is stored as an empty value). */
    void setVirtualHost(const std::string& host);

    /** "login" and "passcode", both always written, also when empty. */
    void setCredentials(const std::string& login, const std::string& passcode);

    /**
     * "accept-version": the versions sorted ascending and joined with ",".
     * Duplicates are kept. The list must not be empty.
     */
    void setAcceptVersions(std::vector<kelvra::utility::Version> versions);

    /**
     * "heart-beat" as "%d,%d". The scratch buffer is sized from the decimal
     * logarithms of the two numbers, so 0 or a negative number gives odd
     * sizes: (-1,-1) is cut to "-1,", and 0 with a positive number asks for
     * more than 2 GiB (std::bad_alloc leaves the header as it was).
     */
    void setHeartbeat(int cx, int cy);

    /** "heart-beat" as cx + "," + cy, verbatim. */
    void setHeartbeat(const char* cx, const char* cy);
};

} // namespace internal
} // namespace tavren

#endif
