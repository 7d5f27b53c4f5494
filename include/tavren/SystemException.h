// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_SYSTEMEXCEPTION_H
#define TAVREN_SYSTEMEXCEPTION_H

#include <exception>
#include <string>

namespace tavren {

/**
 * A failure of the operating system: strerror's text, then a space and the detail when one is given.
 *
 * Part of the public interface for applications and tools that report their
 * own system errors in the library's words; the client's calls do not throw it.
 */
class SystemException : public std::exception {
public:
    /**
     * @param errorNumber an errno value; its strerror text begins the message
     * @param detail what failed, for example the call or file; may be empty
     */
    SystemException(int errorNumber, std::string detail);
    /** Nothing to release beyond the message. */
    virtual ~SystemException() noexcept;

    /** strerror's text, then a space and the detail when there is one; valid as long as the exception. */
    virtual const char* what() const noexcept;

private:
    std::string message;
};

} // namespace tavren

#endif
