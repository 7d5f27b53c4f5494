// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_INTERNAL_SENDFRAME_H
#define TAVREN_INTERNAL_SENDFRAME_H

#include "frames/ClientFrame.h"

#include <tavren/HeaderMap.h>

#include <string>

namespace tavren {
namespace internal {

/** The SEND frame: always "content-type" = "text/plain". */
class SendFrame : public ClientFrame {
public:
    SendFrame();
    virtual ~SendFrame();

    /** "destination", unchanged. */
    void setDestination(const std::string& destination);

    /**
     * "content-length" = strlen(text), then text becomes the body. The frame
     * neither copies nor frees the text: it must stay alive and unchanged
     * until the frame has been written.
     */
    void setText(char* text);

    /**
     * Adds the extra headers whose names the frame does not hold yet; it never
     * replaces one. Null does nothing. The map is only read.
     */
    void setAdditionalHeaders(HeaderMap* additionalHeaders);

    /** Sets one header, replacing any value it had. */
    void setHeader(const std::string& name, const std::string& value);
};

} // namespace internal
} // namespace tavren

#endif
