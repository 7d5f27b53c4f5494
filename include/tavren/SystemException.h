#ifndef TAVREN_SYSTEMEXCEPTION_H
#define TAVREN_SYSTEMEXCEPTION_H

#include <exception>
#include <string>

namespace tavren {

/** A failure of the operating system: strerror's text, then a space and the detail when one is given. */
class SystemException : public std::exception {
public:
    SystemException(int errorNumber, std::string detail);
    virtual ~SystemException() noexcept;

    virtual const char* what() const noexcept;

private:
    std::string message;
};

} // namespace tavren

#endif
