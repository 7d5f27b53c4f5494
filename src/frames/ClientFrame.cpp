// SPDX-License-Identifier: Apache-2.0
#include "frames/ClientFrame.h"

#include <kelvra/utility/Uuid.h>

namespace tavren {
namespace internal {

ClientFrame::ClientFrame() {}

ClientFrame::~ClientFrame() {}

void ClientFrame::requestReceipt() {
    receiptId = command_ + "/" + kelvra::utility::generateUuid();
    headers_["receipt"] = receiptId;
}

} // namespace internal
} // namespace tavren
