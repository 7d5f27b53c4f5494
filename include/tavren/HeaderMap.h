// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_HEADERMAP_H
#define TAVREN_HEADERMAP_H

#include <map>
#include <string>

namespace tavren {

/**
 * Frame headers: name to value. std::string compares bytewise, so the map
 * iterates in ascending bytewise order of the names, which is the order in
 * which headers go on the wire. Names are unique within one map.
 */
typedef std::map<std::string, std::string> HeaderMap;

} // namespace tavren

#endif
