// SPDX-License-Identifier: Apache-2.0
#ifndef TAVREN_INTERNAL_FRAMEPARSER_H
#define TAVREN_INTERNAL_FRAMEPARSER_H

#include "frames/ServerFrame.h"
#include "frames/SpareFrames.h"

#include <cstddef>
#include <string>
#include <vector>

namespace tavren {
namespace internal {

/**
 * Turns the bytes of incoming STOMP frames into ServerFrames. It knows
 * nothing of sockets: it is fed whatever bytes have arrived, keeps a frame
 * that has only partly arrived, and goes on from there at the next feed.
 *
 * What it accepts:
 *  - lines end with a single line feed; a carriage return before it stays
 *    part of the line;
 *  - an empty first line is a heart-beat: a frame with an empty command, no
 *    headers and no body;
 *  - a header line is split at its first colon (further colons belong to the
 *    value); nothing is trimmed or unescaped; a repeated name keeps the last
 *    value;
 *  - without "content-length" the body runs up to the first NUL; with it,
 *    the body is exactly that many bytes (the value read as apr_atoi64 does,
 *    cut to 32 bits), which must be followed by a NUL;
 *  - the body is stored followed by a NUL that is not part of it, so it can
 *    always be read as a C string; a frame without a body byte still gets an
 *    empty body;
 *  - whatever follows the closing NUL is left for the next frame (the line
 *    feed that writers put there comes out as a heart-beat);
 *  - with limits set (setLimits; none by default), a line longer than
 *    maxLine bytes without its line feed is malformed at its byte
 *    maxLine + 1, a body up to a NUL longer than maxBody bytes is
 *    malformed at its byte maxBody + 1, and a "content-length" above
 *    maxBody is malformed right after the empty line that ends the
 *    headers, no body byte taken. A line at the limit, or a body at the
 *    limit, is accepted.
 *
 * It consumes exactly the bytes that a byte-by-byte reader would have taken
 * off the socket: up to the end of a frame, or up to and including the byte
 * that showed the frame to be malformed. Memory used for one frame (the
 * pieces of a line that spans feeds) is released when that frame ends.
 * With limits, no memory is taken past them: the pieces of a line grow to
 * maxLine bytes at most, a body's array to maxBody + 1 (its NUL), so a
 * broker that sends an endless line or body, or announces gigabytes, costs
 * the limits and no more. Frames given back (recycle()) are kept within the
 * bounds of SpareFrames. Without limits the only extra work is a
 * comparison or two per line and per piece of body.
 */
class FrameParser {
public:
    enum Result {
        COMPLETE,   // a frame (or heart-beat) is ready: takeFrame()
        INCOMPLETE, // every byte was taken; more are needed
        MALFORMED   // a line holds a NUL, a header has no colon, a sized body lacks its NUL, or a limit is passed
    };

    FrameParser();
    ~FrameParser();
    FrameParser(const FrameParser&) = delete;
    FrameParser& operator=(const FrameParser&) = delete;

    /**
     * Feeds bytes. *consumed is set to how many of them were taken. After
     * MALFORMED the half-read frame is dropped and the parser starts afresh.
     * std::bad_alloc passes through; the caller then calls reset().
     */
    Result parse(const char* data, size_t length, size_t* consumed);

    /** The frame that the last COMPLETE finished; the caller owns it. */
    ServerFrame* takeFrame();

    /**
     * True when the last COMPLETE was a heart-beat, whose frame is made only
     * when takeFrame() asks for it; dropHeartbeat() passes it by instead.
     */
    bool heartbeatReady() const { return heartbeat; }
    void dropHeartbeat() { heartbeat = false; }

    /** True while a frame has begun but not ended. */
    bool inFrame() const { return state != COMMAND || !line.empty(); }

    /** Drops a half-read frame. */
    void reset();

    /**
     * Takes back a frame taken from this parser once its reader is done
     * with it: the next frames are filled into it (SpareFrames). Any thread.
     */
    void recycle(ServerFrame* done) { spares.give(done); }

    /**
     * Bounds what a frame may hold: a line (command or header, without its
     * line feed) longer than maxLineBytes, or a body longer than
     * maxBodyBytes, is MALFORMED as soon as the limit is passed; a
     * "content-length" above maxBodyBytes is MALFORMED at the end of the
     * headers. 0: no limit (the default). Meant to be called between
     * frames; a frame under way is held to the new limits for the bytes
     * still to come (a sized body already announced keeps its length).
     */
    void setLimits(size_t maxLineBytes, size_t maxBodyBytes);

private:
    enum State { COMMAND, HEADERS, BODY_TO_NUL, BODY_SIZED, BODY_END };

    Result takeLine(const char*& p, const char* end, bool* haveLine, const char** text, size_t* size);
    Result endOfLine(const char* text, size_t size);
    Result endOfHeaders();
    void appendBody(const char* data, size_t size);
    Result finishBody();
    Result fail();
    void reserveLine(size_t size);
    void releaseScratch();
    ServerFrame* startFrame();
    char* bodyArray(size_t size);
    void dropSpareBody();

    State state;
    ServerFrame* frame;  // the frame being read, null between frames
    bool heartbeat;      // a heart-beat was read and not taken yet (it has no frame until taken)
    std::string line;    // the part of a line that has arrived so far
    char* body;          // the body being read (new[]), null before one
    size_t bodySize;     // bytes of body read so far
    size_t bodyCapacity; // size of the body array
    size_t bodyExpected; // for a sized body: its length
    size_t maxLine;      // the longest line accepted, 0 for any
    size_t maxBody;      // the longest body accepted, 0 for any
    SpareFrames spares;  // frames given back, filled again
    std::string name;    // the name of the header line being read (its array kept)
    // The nodes of a given-back frame's headers (at most SpareFrames keeps)
    // in the order their names came in that frame, and those this frame has
    // not set yet (dropped at the end of its headers).
    std::vector<HeaderMap::iterator> expected;
    std::vector<HeaderMap::iterator> unset;
    size_t headerLine; // header lines of this frame read so far
    char* spareBody;   // the body array a given-back frame had, until used or freed
    size_t spareBodyCapacity;
};

} // namespace internal
} // namespace tavren

#endif
