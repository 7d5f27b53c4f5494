// SPDX-License-Identifier: Apache-2.0
#include "frames/UnsubscribeFrame.h"

namespace tavren {
namespace internal {

UnsubscribeFrame::UnsubscribeFrame(std::string subscriptionId) {
    command_ = "UNSUBSCRIBE";
    headers_["id"] = subscriptionId;
}

UnsubscribeFrame::~UnsubscribeFrame() {}

} // namespace internal
} // namespace tavren
