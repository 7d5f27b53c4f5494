// SPDX-License-Identifier: Apache-2.0
#include <kelvra/utility/Version.h>

#include <cctype>
#include <cstring>
#include <sstream>

namespace kelvra {
namespace utility {

Version::Version() : parts(1, 0) {}

Version::Version(int number) {
    if (number <= 0) {
        parts.assign(1, 0);
        return;
    }
    for (; number > 0; number /= 10) parts.insert(parts.begin(), static_cast<unsigned int>(number % 10));
}

Version::Version(const char* text) : Version(std::string(text ? text : "")) {}

Version::Version(const std::string& text) {
    size_t i = 0;
    while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
    while (i < text.size() && std::isdigit(static_cast<unsigned char>(text[i]))) {
        unsigned int value = 0;
        while (i < text.size() && std::isdigit(static_cast<unsigned char>(text[i]))) {
            value = value * 10 + static_cast<unsigned int>(text[i] - '0');
            ++i;
        }
        parts.push_back(value);
        // A dot continues the version only when a digit follows it.
        if (i + 1 < text.size() && text[i] == '.' && std::isdigit(static_cast<unsigned char>(text[i + 1])))
            ++i;
        else
            break;
    }
    if (parts.empty()) parts.assign(1, 0);
}

int Version::compare(const Version& a, const Version& b) {
    const size_t n = a.parts.size() > b.parts.size() ? a.parts.size() : b.parts.size();
    for (size_t i = 0; i < n; ++i) {
        const unsigned int x = i < a.parts.size() ? a.parts[i] : 0;
        const unsigned int y = i < b.parts.size() ? b.parts[i] : 0;
        if (x != y) return x < y ? -1 : 1;
    }
    return 0;
}

bool Version::operator<(const Version& other) const { return compare(*this, other) < 0; }

bool Version::operator==(const Version& other) const { return compare(*this, other) == 0; }

std::string Version::toString() const {
    std::ostringstream out;
    out << *this;
    return out.str();
}

std::ostream& operator<<(std::ostream& os, const Version& version) {
    const std::vector<unsigned int>& parts = version.components();
    for (size_t i = 0; i < parts.size(); ++i) {
        if (i) os << '.';
        os << parts[i];
    }
    return os;
}

} // namespace utility
} // namespace kelvra
