// SPDX-License-Identifier: Apache-2.0
#include "transport/FrameParser.h"

#include <apr_strings.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <tuple>
#include <utility>

namespace tavren {
namespace internal {

namespace {

// A sized body's array grows as its bytes arrive, from this size up to the
// announced length: a broker announcing gigabytes gets no memory until it
// actually sends them.
const size_t kFirstBodyCapacity = 64 * 1024;

// A line buffer larger than this is released after its frame, so that one
// very long header does not keep its memory for the life of the connection.
const size_t kKeptLineCapacity = 1024;

} // namespace

FrameParser::FrameParser()
    : state(COMMAND),
      frame(nullptr),
      heartbeat(false),
      body(nullptr),
      bodySize(0),
      bodyCapacity(0),
      bodyExpected(0),
      maxLine(0),
      maxBody(0),
      headerLine(0),
      spareBody(nullptr),
      spareBodyCapacity(0) {}

void FrameParser::setLimits(size_t maxLineBytes, size_t maxBodyBytes) {
    maxLine = maxLineBytes;
    maxBody = maxBodyBytes;
}

FrameParser::~FrameParser() { reset(); }

void FrameParser::reset() {
    delete frame;
    frame = nullptr;
    heartbeat = false;
    delete[] body;
    body = nullptr;
    bodySize = bodyCapacity = bodyExpected = 0;
    state = COMMAND;
    expected.clear();
    unset.clear();
    dropSpareBody();
    releaseScratch();
}

void FrameParser::dropSpareBody() {
    delete[] spareBody;
    spareBody = nullptr;
    spareBodyCapacity = 0;
}

// A frame given back if there is one, its headers left in place for this
// frame's to take over (a broker sends the same names, in the same order,
// frame after frame) and its body array kept for this frame's body; else a
// new one.
ServerFrame* FrameParser::startFrame() {
    headerLine = 0;
    expected.clear();
    unset.clear();
    ServerFrame* started = spares.take();
    if (!started) return new ServerFrame();
    expected.swap(started->order_);
    if (expected.size() != started->headers_.size()) { // not a frame this reader filled: nothing to expect
        expected.clear();
        started->headers_.clear();
    }
    unset.assign(expected.begin(), expected.end());
    if (started->bodyCapacity_) {
        spareBody = const_cast<char*>(started->body_);
        spareBodyCapacity = started->bodyCapacity_;
    } else {
        delete[] started->body_;
    }
    started->body_ = nullptr;
    started->bodyCapacity_ = 0;
    return started;
}

// An array of at least size bytes for the body (its size in bodyCapacity):
// the spare one when it is large enough.
char* FrameParser::bodyArray(size_t size) {
    if (spareBody && spareBodyCapacity >= size) {
        char* array = spareBody;
        bodyCapacity = spareBodyCapacity;
        spareBody = nullptr;
        spareBodyCapacity = 0;
        return array;
    }
    char* array = new char[size];
    bodyCapacity = size;
    return array;
}

void FrameParser::releaseScratch() {
    if (line.capacity() > kKeptLineCapacity)
        std::string().swap(line);
    else
        line.clear();
    if (name.capacity() > kKeptLineCapacity) std::string().swap(name);
}

ServerFrame* FrameParser::takeFrame() {
    if (heartbeat) {
        heartbeat = false;
        return new ServerFrame();
    }
    ServerFrame* done = frame;
    frame = nullptr;
    return done;
}

FrameParser::Result FrameParser::fail() {
    reset();
    return MALFORMED;
}

void FrameParser::reserveLine(size_t size) {
    if (size <= line.capacity()) return;
    // The capacity doubles as std::string would grow it, but stops at the
    // limit: a line that may not pass maxLine takes no memory past it.
    size_t capacity = 2 * line.capacity();
    if (capacity < size) capacity = size;
    if (capacity > maxLine) capacity = maxLine;
    std::string grown;
    grown.reserve(capacity);
    grown.assign(line);
    line.swap(grown);
}

// Takes the bytes of one line. When the line ends within [p, end), *haveLine
// is set and *text/*size describe it (pointing into the input when the whole
// line is there, into `line` otherwise); p moves past its line feed.
FrameParser::Result FrameParser::takeLine(const char*& p, const char* end, bool* haveLine, const char** text,
                                          size_t* size) {
    const size_t available = static_cast<size_t>(end - p);
    const char* lf = static_cast<const char*>(std::memchr(p, '\n', available));
    const size_t span = lf ? static_cast<size_t>(lf - p) : available;
    if (maxLine && line.size() + span > maxLine) {
        // The byte past the limit shows the line to be too long, unless a
        // NUL before it showed the frame to be malformed first.
        const size_t allowed = line.size() < maxLine ? maxLine - line.size() : 0;
        const char* nul = static_cast<const char*>(std::memchr(p, '\0', allowed));
        p = nul ? nul + 1 : p + allowed + 1;
        return fail();
    }
    const char* nul = static_cast<const char*>(std::memchr(p, '\0', span));
    if (nul) { // a NUL inside a line: the frame is malformed once the NUL is read
        p = nul + 1;
        return fail();
    }
    if (maxLine && (!lf || !line.empty())) reserveLine(line.size() + span);
    if (!lf) {
        line.append(p, span);
        p = end;
        *haveLine = false;
        return INCOMPLETE;
    }
    if (line.empty()) {
        *text = p;
        *size = span;
    } else {
        line.append(p, span);
        *text = line.data();
        *size = line.size();
    }
    p = lf + 1;
    *haveLine = true;
    return INCOMPLETE;
}

FrameParser::Result FrameParser::endOfLine(const char* text, size_t size) {
    if (state == COMMAND) {
        if (size == 0) { // a heart-beat: its frame is made only if it is taken
            heartbeat = true;
            return COMPLETE;
        }
        frame = startFrame();
        frame->command_.assign(text, size);
        state = HEADERS;
        return INCOMPLETE;
    }
    if (size == 0) return endOfHeaders();
    const char* colon = static_cast<const char*>(std::memchr(text, ':', size));
    if (!colon) return fail();
    const size_t nameSize = static_cast<size_t>(colon - text);
    // A name the map holds (from this frame, or from the frame given back)
    // takes the value in its node, whose strings keep their arrays; a new
    // name's node is made with its value in place. A repeated name keeps the
    // last value. The node is looked for where the frame given back had
    // this line's name first, then by one descent of the tree.
    HeaderMap& headers = frame->headers_;
    HeaderMap::iterator at;
    bool held = false;
    if (headerLine < expected.size()) {
        const std::string& guess = expected[headerLine]->first;
        held = guess.size() == nameSize && std::memcmp(guess.data(), text, nameSize) == 0;
        if (held) at = expected[headerLine];
    }
    ++headerLine;
    if (!held) {
        name.assign(text, nameSize);
        at = headers.lower_bound(name);
        held = at != headers.end() && at->first == name;
        if (!held) {
            at = headers.emplace_hint(at, std::piecewise_construct, std::forward_as_tuple(name),
                                      std::forward_as_tuple(colon + 1, size - nameSize - 1));
            frame->order_.push_back(at);
            return INCOMPLETE;
        }
    }
    at->second.assign(colon + 1, size - nameSize - 1);
    // The first line of this name in this frame: the node is the frame's now.
    const std::vector<HeaderMap::iterator>::iterator old = std::find(unset.begin(), unset.end(), at);
    if (old != unset.end()) {
        unset.erase(old);
        frame->order_.push_back(at);
    }
    return INCOMPLETE;
}

FrameParser::Result FrameParser::endOfHeaders() {
    // The names the given-back frame had and this one does not.
    for (const HeaderMap::iterator& it : unset) frame->headers_.erase(it);
    unset.clear();
    HeaderMap::const_iterator length = frame->headers_.find("content-length");
    if (length == frame->headers_.end()) {
        state = BODY_TO_NUL;
        return INCOMPLETE;
    }
    // The value as apr_atoi64 reads it (no number gives 0), cut to 32 bits.
    const int32_t announced = static_cast<int32_t>(static_cast<uint64_t>(apr_atoi64(length->second.c_str())));
    // A negative length cannot be honoured: the frame is malformed, and no
    // body byte is taken.
    if (announced < 0) return fail();
    bodyExpected = static_cast<size_t>(announced);
    // A body announced past the limit is refused before any memory is taken
    // for it, and before any of its bytes.
    if (maxBody && bodyExpected > maxBody) return fail();
    body = bodyArray(bodyExpected + 1 < kFirstBodyCapacity ? bodyExpected + 1 : kFirstBodyCapacity);
    state = bodyExpected ? BODY_SIZED : BODY_END;
    return INCOMPLETE;
}

void FrameParser::appendBody(const char* data, size_t size) {
    if (bodySize + size + 1 > bodyCapacity) {
        size_t capacity = bodyCapacity ? bodyCapacity : 256;
        while (capacity < bodySize + size + 1) capacity *= 2;
        if (state == BODY_SIZED && capacity > bodyExpected + 1) capacity = bodyExpected + 1;
        // A body to its NUL is never let past maxBody, nor a sized one
        // announced past it: the array stops at the limit too.
        if (maxBody && capacity > maxBody + 1) capacity = std::max(maxBody + 1, bodySize + size + 1);
        char* grown = new char[capacity];
        if (bodySize) std::memcpy(grown, body, bodySize);
        delete[] body;
        body = grown;
        bodyCapacity = capacity;
    }
    std::memcpy(body + bodySize, data, size);
    bodySize += size;
}

FrameParser::Result FrameParser::finishBody() {
    if (!body) body = bodyArray(1);
    body[bodySize] = '\0';
    frame->body_ = body;
    frame->bodyCapacity_ = bodyCapacity;
    body = nullptr;
    dropSpareBody();
    bodySize = bodyCapacity = bodyExpected = 0;
    state = COMMAND;
    releaseScratch();
    return COMPLETE;
}

FrameParser::Result FrameParser::parse(const char* data, size_t length, size_t* consumed) {
    const char* p = data;
    const char* const end = data + length;
    Result result = INCOMPLETE;
    while (p < end && result == INCOMPLETE) {
        switch (state) {
        case COMMAND:
        case HEADERS: {
            bool haveLine = false;
            const char* text = nullptr;
            size_t size = 0;
            result = takeLine(p, end, &haveLine, &text, &size);
            if (result == INCOMPLETE && haveLine) {
                result = endOfLine(text, size);
                if (!line.empty()) line.clear(); // the line is used up; its capacity stays for the next
                if (result == COMPLETE) {        // a heart-beat
                    state = COMMAND;
                    releaseScratch();
                }
            }
            break;
        }
        case BODY_TO_NUL: {
            const size_t available = static_cast<size_t>(end - p);
            const char* nul = static_cast<const char*>(std::memchr(p, '\0', available));
            const size_t take = nul ? static_cast<size_t>(nul - p) : available;
            if (maxBody && bodySize + take > maxBody) {
                // Malformed at the first byte past the limit; nothing past it is stored.
                p += (bodySize < maxBody ? maxBody - bodySize : 0) + 1;
                result = fail();
                break;
            }
            if (!body && nul) { // the whole body is here: one exact allocation, or the spare array
                body = bodyArray(take + 1);
                std::memcpy(body, p, take);
                bodySize = take;
            } else {
                appendBody(p, take);
            }
            p += take;
            if (nul) {
                ++p;
                result = finishBody();
            }
            break;
        }
        case BODY_SIZED: {
            size_t take = static_cast<size_t>(end - p);
            if (take > bodyExpected - bodySize) take = bodyExpected - bodySize;
            appendBody(p, take);
            p += take;
            if (bodySize == bodyExpected) state = BODY_END;
            break;
        }
        case BODY_END:
            if (*p++ != '\0') {
                result = fail();
                break;
            }
            result = finishBody();
            break;
        }
    }
    *consumed = static_cast<size_t>(p - data);
    return result;
}

} // namespace internal
} // namespace tavren
