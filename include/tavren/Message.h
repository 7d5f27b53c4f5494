// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_MESSAGE_H
#define TAVREN_MESSAGE_H

#include <tavren/HeaderMap.h>

namespace tavren {

namespace internal {
class ServerFrame;
}

/**
 * A read-only view of one received message. It is valid only while the
 * Listener::onMessage call that was handed it runs: the library frees the
 * message once the listener has answered.
 *
 * The same holds for what it hands out: the map from headers() and the
 * pointer from text() must not be kept after onMessage returns, nor the
 * SharedPtr itself (a copy keeps the Message object alive, not the message
 * it shows). Copy what is needed later. Reading it from several threads
 * during the call is safe; nothing in it changes.
 */
class Message {
public:
    /** A view of nothing: headers() and text() must not be called on it. */
    Message();
    /** A view of frame, which it does not own; the library makes these for its listeners. */
    explicit Message(internal::ServerFrame* frame);
    /** Frees nothing: the message belongs to the library. */
    virtual ~Message();

    /**
     * Every header as the broker sent it, "message-id", "destination" and "subscription" included.
     * Values are as they came on the wire (no escape sequences are decoded);
     * of a header repeated in one frame, the last value counts.
     */
    const HeaderMap& headers() const;
    /**
     * The body as a C string, never null (an empty body is ""). With a
     * "content-length" header the body is exactly that many bytes followed by
     * a NUL, so a body that contains NUL bytes reads only up to the first one
     * as a string; its full length is the header's value.
     */
    const char* text() const;

private:
    internal::ServerFrame* frame;
};

} // namespace tavren

#endif
