// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_INTERNAL_RECEIPTFRAME_H
#define TAVREN_INTERNAL_RECEIPTFRAME_H

#include "frames/ServerFrame.h"

#include <string>

namespace tavren {
namespace internal {

/** The typed view of a RECEIPT frame. */
class ReceiptFrame : public ServerFrame {
public:
    ReceiptFrame();
    virtual ~ReceiptFrame();

    /** The "receipt-id" header; std::out_of_range ("map::at") when it is missing. */
    std::string getReceiptID() const;
};

} // namespace internal
} // namespace tavren

#endif
