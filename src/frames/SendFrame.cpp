#include "frames/SendFrame.h"

#include <cstring>
#include <locale>
#include <sstream>

namespace tavren {
namespace internal {

SendFrame::SendFrame() {
    command_ = "SEND";
    headers_["content-type"] = "text/plain";
}

SendFrame::~SendFrame() {}

void SendFrame::setDestination(const std::string& destination) { headers_["destination"] = destination; }

void SendFrame::setText(char* text) {
    std::ostringstream length;
    length.imbue(std::locale::classic()); // plain digits whatever the global locale
    length << static_cast<unsigned long>(std::strlen(text));
    headers_["content-length"] = length.str();
    body_ = text;
}

void SendFrame::setAdditionalHeaders(HeaderMap* additionalHeaders) {
    if (!additionalHeaders) return;
    for (HeaderMap::const_iterator it = additionalHeaders->begin(); it != additionalHeaders->end(); ++it) {
        if (headers_.find(it->first) == headers_.end()) headers_.insert(*it);
    }
}

} // namespace internal
} // namespace tavren
