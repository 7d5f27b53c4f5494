// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_INTERNAL_APREXCEPTION_H
#define TAVREN_INTERNAL_APREXCEPTION_H

#include <apr_errno.h>

#include <exception>

namespace tavren {
namespace internal {

/** A runtime status and its text (apr_strerror, cut to 79 characters). */
class AprException : public std::exception {
public:
    explicit AprException(int status);
    virtual ~AprException() noexcept;

    virtual const char* what() const noexcept;
    apr_status_t apr_reason() const { return reason; }

private:
    apr_status_t reason;
    char message[80];
};

} // namespace internal
} // namespace tavren

#endif
