// SPDX-License-Identifier: Apache-2.0
#include "frames/SubscribeFrame.h"

#include <kelvra/utility/Uuid.h>

#include <atomic>
#include <utility>

namespace tavren {
namespace internal {

SubscribeFrame::SubscribeFrame(std::string destination, SubscribeFrame::AcknowledgeMode mode)
    : destination_(std::move(destination)), ackMode_(mode) {
    command_ = "SUBSCRIBE";
    subscriptionId_ = createSubId();
    headers_["destination"] = destination_;
    headers_["id"] = subscriptionId_;
    headers_["ack"] = createAckModeStr();
}

SubscribeFrame::~SubscribeFrame() {}

void SubscribeFrame::setDestination(const std::string& destination) {
    destination_ = destination;
    headers_["destination"] = destination_;
}

void SubscribeFrame::setAckMode(SubscribeFrame::AcknowledgeMode mode) {
    ackMode_ = mode;
    headers_["ack"] = createAckModeStr();
}

void SubscribeFrame::addHeaders(const HeaderMap& extra) {
    for (const auto& header : extra) headers_.insert(header);
}

std::string SubscribeFrame::createAckModeStr() const {
    if (ackMode_ == CLIENT) return "client";
    if (ackMode_ == CLIENT_INDIVIDUAL) return "client-individual";
    if (ackMode_ == AUTO) return "auto";
    return std::string();
}

std::string SubscribeFrame::createSubId() const {
    static const char prefix[] = "subscription/";
    const std::string uuid = kelvra::utility::generateUuid();
    std::string id;
    id.reserve(uuid.size() + 13);
    id.append(prefix, 13);
    id.append(uuid);
    return id;
}

void SubscribeFrame::useShortId() {
    static std::atomic<unsigned long long> issued{0};
    subscriptionId_ = "subscription/" + std::to_string(++issued);
    headers_["id"] = subscriptionId_;
}

} // namespace internal
} // namespace tavren
