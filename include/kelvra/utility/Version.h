// SPDX-License-Identifier: Apache-2.0
#ifndef KELVRA_UTILITY_VERSION_H
#define KELVRA_UTILITY_VERSION_H

#include <ostream>
#include <string>
#include <vector>

namespace kelvra {
namespace utility {

/**
 * A dotted version number such as 1.2 or 5.18.3.
 *
 * From text: blanks around the text are ignored ("1.2 " as a broker's
 * "server" header hands it over is 1.2); the components are the runs of
 * decimal digits separated by single dots, read up to the first character
 * that continues neither ("3.10.8-rc1" is 3.10.8). A text that does not begin
 * with a digit ("", "abc", ".5") gives the default value, Version(0).
 *
 * From an integer: each decimal digit is one component, so Version(12) is 1.2,
 * Version(10) is 1.0 and Version(0), the default, is 0. A negative integer
 * gives Version(0).
 *
 * Comparison is component by component, a missing component counting as 0:
 * 1 == 1.0 and 1.0 < 1.0.1.
 */
class Version {
public:
    /** The default version, 0. */
    Version();
    /**
     * From an integer, one component per decimal digit: 12 is 1.2. Implicit,
     * so an int may stand where a Version is expected.
     * @param number the digits; a negative number gives 0
     */
    Version(int number);
    /**
     * From dotted text such as "1.2" or a broker's "5.18.3 ".
     * @param text the text; one that does not begin with a digit gives 0
     */
    Version(const std::string& text);
    /** As Version(const std::string&); a null text gives 0. */
    Version(const char* text);

    /** The components, most significant first; never empty. */
    const std::vector<unsigned int>& components() const { return parts; }

    /** The dotted form, as operator<< prints it. */
    std::string toString() const;

    /** True when this version comes before other (1.0 < 1.0.1 < 1.2). */
    bool operator<(const Version& other) const;
    /** True when the two are equal, a missing component counting as 0 (1 == 1.0). */
    bool operator==(const Version& other) const;
    /** The opposite of operator==. */
    bool operator!=(const Version& other) const { return !(*this == other); }
    /** True unless this version comes before other. */
    bool operator>=(const Version& other) const { return !(*this < other); }
    /** True when this version comes after other. */
    bool operator>(const Version& other) const { return other < *this; }
    /** True unless this version comes after other. */
    bool operator<=(const Version& other) const { return !(other < *this); }

private:
    static int compare(const Version& a, const Version& b);
    std::vector<unsigned int> parts;
};

/** Prints the dotted form ("1.2"). */
std::ostream& operator<<(std::ostream& os, const Version& version);

} // namespace utility
} // namespace kelvra

#endif
