// The parts of UnicodePaths that need no system call, shared by both platforms.
#include "UnicodePaths.h"

#include <cstdio>

namespace measurement {

namespace {

// The length of the well-formed UTF-8 sequence at text[at], or 0.
size_t sequenceLength(const std::string& text, size_t at) {
    const auto byte = [&](size_t n) { return static_cast<unsigned char>(text[n]); };
    const unsigned char lead = byte(at);
    if (lead < 0x80)
        return 1;
    // The second byte's range narrows for the leads that could start an overlong form, a
    // surrogate or a code point past U+10FFFF.
    unsigned char low = 0x80, high = 0xbf;
    size_t length = 0;
    if (lead >= 0xc2 && lead <= 0xdf)
        length = 2;
    else if (lead >= 0xe0 && lead <= 0xef) {
        length = 3;
        low = lead == 0xe0 ? 0xa0 : 0x80;
        high = lead == 0xed ? 0x9f : 0xbf;
    } else if (lead >= 0xf0 && lead <= 0xf4) {
        length = 4;
        low = lead == 0xf0 ? 0x90 : 0x80;
        high = lead == 0xf4 ? 0x8f : 0xbf;
    }
    if (length == 0 || at + length > text.size())
        return 0;
    if (byte(at + 1) < low || byte(at + 1) > high)
        return 0;
    for (size_t n = 2; n < length; ++n)
        if (byte(at + n) < 0x80 || byte(at + n) > 0xbf)
            return 0;
    return length;
}

} // namespace

size_t UnicodePaths::invalidUtf8Offset(const std::string& text) {
    for (size_t at = 0; at < text.size();) {
        const size_t length = sequenceLength(text, at);
        if (length == 0)
            return at;
        at += length;
    }
    return std::string::npos;
}

std::string UnicodePaths::escaped(const std::string& text) {
    std::string shown;
    for (size_t at = 0; at < text.size();) {
        const size_t length = sequenceLength(text, at);
        const auto byte = static_cast<unsigned char>(text[at]);
        // C1 controls (U+0080 to U+009F) too: a terminal takes U+009B as the start of a command.
        const bool c1 =
            byte == 0xc2 && length == 2 && static_cast<unsigned char>(text[at + 1]) < 0xa0;
        if (c1) {
            shown += "\\xC2";
            ++at;
            continue;
        }
        if (length == 0 || byte < 0x20 || byte == 0x7f) {
            char code[5];
            std::snprintf(code, sizeof code, "\\x%02X", byte);
            shown += code;
            ++at;
            continue;
        }
        shown.append(text, at, length);
        at += length;
    }
    return shown;
}

} // namespace measurement
