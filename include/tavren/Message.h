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
 */
class Message {
public:
    /** A view of nothing: headers() and text() must not be called on it. */
    Message();
    /** A view of frame, which it does not own. */
    explicit Message(internal::ServerFrame* frame);
    virtual ~Message();

    /** Every header as the broker sent it, "message-id", "destination" and "subscription" included. */
    const HeaderMap& headers() const;
    /** The body as a C string. */
    const char* text() const;

private:
    internal::ServerFrame* frame;
};

} // namespace tavren

#endif
