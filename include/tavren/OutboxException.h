// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_OUTBOXEXCEPTION_H
#define TAVREN_OUTBOXEXCEPTION_H

#include <exception>
#include <string>

namespace tavren {

/**
 * A message that the outbox could not keep: the outbox is full (and refuses
 * new messages), or its storage failed (a full disk, an I/O error, a file
 * that cannot be written). what() says which. The message is not kept.
 */
class OutboxException : public std::exception {
public:
    /** @param message what could not be done, and why */
    explicit OutboxException(std::string message);
    /** Nothing to release beyond the message. */
    virtual ~OutboxException() noexcept;
    /** The message given to the constructor; valid as long as the exception. */
    virtual const char* what() const noexcept;

private:
    std::string text;
};

} // namespace tavren

#endif
