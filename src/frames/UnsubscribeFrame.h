// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_INTERNAL_UNSUBSCRIBEFRAME_H
#define TAVREN_INTERNAL_UNSUBSCRIBEFRAME_H

#include "frames/ClientFrame.h"

#include <string>

namespace tavren {
namespace internal {

/** The UNSUBSCRIBE frame: only "id", never "destination". */
class UnsubscribeFrame : public ClientFrame {
public:
    /** The id as the SUBSCRIBE frame made it; not checked. */
    explicit UnsubscribeFrame(std::string subscriptionId);
    virtual ~UnsubscribeFrame();
};

} // namespace internal
} // namespace tavren

#endif
