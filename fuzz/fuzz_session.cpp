// SPDX-License-Identifier: Apache-2.0
// libFuzzer target for what a CONNECTED frame's headers become. The input is
// read as frames; the "server", "version", "heart-beat" and "session" headers
// of each (empty when missing) make a Session, whose fields are checked
// against the header texts and whose log printout is written. The Version
// parser gets each of those texts and the whole input, and the integer
// constructor the input's first four bytes; every version must survive a
// round trip through its text and compare consistently.
//
// scripts/fuzz.sh builds and runs it on a copy of fuzz/corpus/fuzz_session/;
// build-fuzz/fuzz/fuzz_session FILE replays one input.
#include "FrameDump.h"
#include "frames/Session.h"
#include "transport/FrameParser.h"

#include <kelvra/utility/Version.h>

#include <cctype>
#include <cstdint>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

using kelvra::utility::Version;
using tavren::HeaderMap;
using tavren::internal::FrameParser;
using tavren::internal::ServerFrame;
using tavren::internal::Session;

namespace {

// The promises of Version.h for one version.
void checkVersion(const Version& v) {
    FUZZ_CHECK(!v.components().empty(), "a version has at least one component");
    const std::string text = v.toString();
    const Version again(text);
    FUZZ_CHECK(again == v && again.components() == v.components(), "a version reads back from its text");
    FUZZ_CHECK(again.toString() == text, "the text of a version is stable");
    std::ostringstream printed;
    printed << v;
    FUZZ_CHECK(printed.str() == text, "operator<< prints toString()");
    FUZZ_CHECK(v == v && !(v != v) && !(v < v) && !(v > v) && v <= v && v >= v, "a version equals itself");
    const Version padded(text + ".0");
    FUZZ_CHECK(padded == v && !(padded < v) && !(v < padded), "a missing component counts as 0");
    for (const Version& other : {Version(), Version(12), Version("1.2"), Version("5.17.2"), Version("3.10.8")}) {
        const int relations = (v < other) + (other < v) + (v == other);
        FUZZ_CHECK(relations == 1, "two versions are either equal or one comes first");
        FUZZ_CHECK((v > other) == (other < v) && (v <= other) == !(other < v) && (v >= other) == !(v < other),
                   "the comparison operators agree");
    }
}

// A version from text, checked against what Version.h says of text.
Version versionOf(const std::string& text) {
    const Version v(text);
    checkVersion(v);
    FUZZ_CHECK(Version(" \t" + text) == v, "blanks before the text are ignored");
    size_t i = 0;
    while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
    if (i == text.size() || !std::isdigit(static_cast<unsigned char>(text[i])))
        FUZZ_CHECK(v.components() == Version().components(), "text that does not begin with a digit gives 0");
    FUZZ_CHECK(Version(text.c_str()) == Version(std::string(text.c_str())), "a C string reads as its string");
    return v;
}

std::string header(const HeaderMap& headers, const char* name) {
    const HeaderMap::const_iterator it = headers.find(name);
    return it == headers.end() ? std::string() : it->second;
}

// A Session from one frame's headers, checked field by field against their texts.
void checkSession(const HeaderMap& headers) {
    const std::string server = header(headers, "server");
    const std::string version = header(headers, "version");
    const std::string heartBeat = header(headers, "heart-beat");
    const std::string sessionId = header(headers, "session");
    const Session s(server, version, heartBeat, sessionId);

    const size_t slash = server.find('/');
    FUZZ_CHECK(s.hasVersion() == (slash != std::string::npos), "a version is there when \"server\" holds a /");
    const size_t blank = server.find(' ', s.hasVersion() ? slash : 0);
    const std::string name = server.substr(0, s.hasVersion() ? slash : blank);
    FUZZ_CHECK(s.serverName() == name, "the name is what comes before the / (or the first blank)");
    if (s.hasVersion()) {
        const std::string text = server.substr(slash + 1, blank == std::string::npos ? blank : blank - slash - 1);
        FUZZ_CHECK(s.serverVersion() == versionOf(text), "the broker's version is read from after the /");
    } else {
        FUZZ_CHECK(s.serverVersion() == Version(), "no / gives version 0");
    }
    checkVersion(s.serverVersion());
    const std::vector<std::string> pieces = s.serverComments();
    std::string comments;
    for (size_t i = 0; i < pieces.size(); ++i) {
        FUZZ_CHECK(pieces[i].find(' ') == std::string::npos, "a comment holds no blank");
        if (i) comments += ' ';
        comments += pieces[i];
    }
    if (blank == std::string::npos)
        FUZZ_CHECK(s.serverComments().empty(), "no blank, no comment");
    else
        FUZZ_CHECK(comments == server.substr(blank + 1), "the comments are the blank-separated rest");

    // The agreed version ("version") shows in the ACK header below.
    const Version agreed = versionOf(version);
    const size_t comma = heartBeat.find(',');
    if (comma == std::string::npos)
        FUZZ_CHECK(s.serverHB() == heartBeat && s.clientHB() == heartBeat, "one figure stands for both");
    else
        FUZZ_CHECK(s.serverHB() + "," + s.clientHB() == heartBeat && s.serverHB().find(',') == std::string::npos,
                   "the heart-beat figures are split at the first comma");
    FUZZ_CHECK(s.sessionId() == sessionId, "the session id is kept as it is");

    std::string upper = name;
    for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    const char* key = agreed < Version("1.2") ? "message-id" : upper == "ACTIVEMQ" ? "ack" : "id";
    FUZZ_CHECK(s.ackHeaderKey() == key, "the ACK header follows the agreed version and the broker");

    std::ostringstream printout;
    printout << s;
    FUZZ_CHECK(printout.str().find("Session id : " + sessionId) != std::string::npos, "the printout names the session");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string whole(reinterpret_cast<const char*>(data), size);
    versionOf(whole);
    if (size >= 4) {
        int32_t number;
        std::memcpy(&number, data, sizeof number);
        const Version v(static_cast<int>(number));
        checkVersion(v);
        std::string digits;
        for (unsigned int c : v.components()) {
            FUZZ_CHECK(c <= 9, "an integer gives one component per decimal digit");
            digits += static_cast<char>('0' + c);
        }
        FUZZ_CHECK(digits == (number > 0 ? std::to_string(number) : "0"), "the components are the integer's digits");
    }
    FUZZ_CHECK(Version(static_cast<const char*>(nullptr)) == Version(), "a null text gives 0");

    FrameParser parser;
    size_t pos = 0;
    while (pos < size) {
        size_t used = 0;
        const FrameParser::Result r = parser.parse(whole.data() + pos, size - pos, &used);
        pos += used;
        if (r == FrameParser::INCOMPLETE) break;
        if (r != FrameParser::COMPLETE) continue;
        std::unique_ptr<ServerFrame> f(parser.takeFrame());
        if (!f->command().empty()) checkSession(f->headers());
    }
    return 0;
}
