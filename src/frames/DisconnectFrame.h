// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_INTERNAL_DISCONNECTFRAME_H
#define TAVREN_INTERNAL_DISCONNECTFRAME_H

#include "frames/ClientFrame.h"

namespace tavren {
namespace internal {

/** The DISCONNECT frame: the command only, no header, no body. */
class DisconnectFrame : public ClientFrame {
public:
    DisconnectFrame();
    virtual ~DisconnectFrame();
};

} // namespace internal
} // namespace tavren

#endif
