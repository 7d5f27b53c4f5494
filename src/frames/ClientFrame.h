// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_INTERNAL_CLIENTFRAME_H
#define TAVREN_INTERNAL_CLIENTFRAME_H

#include "frames/StompFrame.h"

#include <string>

namespace tavren {
namespace internal {

/** Base of every frame the client writes. It never owns its body. */
class ClientFrame : public StompFrame {
public:
    ClientFrame();
    virtual ~ClientFrame();

    /** The id of the latest receipt request, empty if none was made. */
    std::string getReceiptId() const { return receiptId; }

    /**
     * Asks the broker for a receipt: a fresh id (the command, "/", a UUID)
     * replaces any earlier one, and the "receipt" header is set to it.
     */
    void requestReceipt();

protected:
    std::string receiptId;
};

} // namespace internal
} // namespace tavren

#endif
