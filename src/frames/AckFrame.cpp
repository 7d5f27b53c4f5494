// SPDX-License-Identifier: Apache-2.0
#include "frames/AckFrame.h"

#include "frames/ServerFrame.h"
#include "frames/Session.h"

#include <stdexcept>

namespace tavren {
namespace internal {

namespace {
const std::string kAck = "ACK";
const std::string kNack = "NACK";
const std::string kMessageId = "message-id";
} // namespace

bool AckFrame::piecesFor(const ServerFrame* message, const Session* session, AckFrame::AcknowledgeState state,
                         AckPieces* out) {
    return piecesFor(message, session->ackHeaderKey(), session->ackNamesSubscription(), state, out);
}

bool AckFrame::piecesFor(const ServerFrame* message, const std::string& ackKey, bool withSubscription,
                         AckFrame::AcknowledgeState state, AckPieces* out) {
    const HeaderMap& headers = message->headers();
    out->command = (state == 1) ? &kNack : &kAck;
    out->subscription = nullptr;
    if (withSubscription) {
        const auto subscription = headers.find(AckPieces::subscriptionName());
        if (subscription == headers.end()) return false;
        out->subscription = &subscription->second;
    }
    const auto id = headers.find(kMessageId);
    if (id == headers.end()) return false;
    out->id = &id->second;
    out->key = ackKey;
    return true;
}

AckFrame::AckFrame(const ServerFrame* message, const Session* session, AckFrame::AcknowledgeState state) {
    AckPieces pieces;
    if (!piecesFor(message, session, state, &pieces)) throw std::out_of_range("map::at");
    command_ = *pieces.command;
    pieces.eachHeader([this](const std::string& name, const std::string& value) { headers_[name] = value; });
}

AckFrame::~AckFrame() {}

} // namespace internal
} // namespace tavren
