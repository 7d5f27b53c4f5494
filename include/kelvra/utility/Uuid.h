// SPDX-License-Identifier: Apache-2.0
#ifndef KELVRA_UTILITY_UUID_H
#define KELVRA_UTILITY_UUID_H

#include <string>

namespace kelvra {
namespace utility {

/**
 * A fresh random (version 4) UUID in its usual 36-character lower-case form,
 * e.g. "1b4e28ba-2fa1-4d2e-883f-0016d3cca427". Safe to call from any thread.
 * The library names each client with one ("Corvath-" and a UUID).
 * @return the UUID's text, 36 characters
 */
std::string generateUuid();

} // namespace utility
} // namespace kelvra

#endif
