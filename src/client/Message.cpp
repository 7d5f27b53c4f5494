// SPDX-License-Identifier: Apache-2.0
#include <tavren/Message.h>

#include "frames/ServerFrame.h"

namespace tavren {

Message::Message() : frame(nullptr) {}

Message::Message(internal::ServerFrame* f) : frame(f) {}

Message::~Message() {}

const HeaderMap& Message::headers() const { return frame->headers(); }

const char* Message::text() const { return frame->body(); }

} // namespace tavren
