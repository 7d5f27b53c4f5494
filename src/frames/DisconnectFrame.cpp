// SPDX-License-Identifier: Apache-2.0
#include "frames/DisconnectFrame.h"

namespace tavren {
namespace internal {

DisconnectFrame::DisconnectFrame() { command_ = "DISCONNECT"; }

DisconnectFrame::~DisconnectFrame() {}

} // namespace internal
} // namespace tavren
