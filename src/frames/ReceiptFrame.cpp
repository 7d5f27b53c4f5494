// SPDX-License-Identifier: Apache-2.0
#include "frames/ReceiptFrame.h"

namespace tavren {
namespace internal {

ReceiptFrame::ReceiptFrame() {}

ReceiptFrame::~ReceiptFrame() {}

std::string ReceiptFrame::getReceiptID() const { return headers_.at("receipt-id"); }

} // namespace internal
} // namespace tavren
