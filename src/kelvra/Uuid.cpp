// SPDX-License-Identifier: Apache-2.0
#include <kelvra/utility/Uuid.h>

#include <uuid/uuid.h>

namespace kelvra {
namespace utility {

std::string generateUuid() {
    uuid_t id;
    uuid_generate_random(id);
    char text[37];
    uuid_unparse_lower(id, text);
    return std::string(text, 36);
}

} // namespace utility
} // namespace kelvra
