// SPDX-License-Identifier: Apache-2.0
#include "frames/ServerFrame.h"

namespace tavren {
namespace internal {

ServerFrame::ServerFrame() {}

ServerFrame::~ServerFrame() {
    if (body_) delete[] body_;
}

} // namespace internal
} // namespace tavren
