// SPDX-License-Identifier: Apache-2.0
#include "frames/AckFrame.h"

#include "frames/ServerFrame.h"
#include "frames/Session.h"

#include <kelvra/utility/Version.h>

namespace tavren {
namespace internal {

AckFrame::AckFrame(const ServerFrame* message, const Session* session, AckFrame::AcknowledgeState state) {
    command_ = (state == 1) ? "NACK" : "ACK";
    // Only 1.1 exactly wants the subscription; 1.0 and 1.2 do not.
    if (session->specificationVersion() == kelvra::utility::Version(11))
        headers_["subscription"] = message->headers().at("subscription");
    headers_[session->ackHeaderKey()] = message->headers().at("message-id");
}

AckFrame::~AckFrame() {}

} // namespace internal
} // namespace tavren
