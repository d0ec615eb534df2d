#include "text.h"

#include <cstdio>

namespace pkgtool {

namespace {

// A character's number and its count of octets; 0 octets if the text is not UTF-8 (RFC 3629, 4).
struct Character {
    std::uint32_t number;
    std::size_t length;
};

Character characterAt(const std::string& text, std::size_t at)
{
    struct Form {
        std::uint32_t mask, lead, least; // of the first octet; the least number that needs this many octets
    };
    constexpr Form FORMS[] = {{0x80, 0x00, 0}, {0xE0, 0xC0, 0x80}, {0xF0, 0xE0, 0x800}, {0xF8, 0xF0, 0x10000}};
    const auto octet = [&](std::size_t i) { return std::uint32_t{static_cast<unsigned char>(text[at + i])}; };
    std::size_t length = 1;
    for (const Form& form : FORMS) {
        if ((octet(0) & form.mask) == form.lead) {
            std::uint32_t number = octet(0) & ~form.mask;
            for (std::size_t i = 1; i < length; ++i) {
                if (at + i >= text.size() || (octet(i) & 0xC0) != 0x80) return {0, 0};
                number = number << 6 | (octet(i) & 0x3F);
            }
            const bool isSurrogate = number >= 0xD800 && number <= 0xDFFF;
            return number < form.least || number > 0x10FFFF || isSurrogate ? Character{0, 0}
                                                                           : Character{number, length};
        }
        ++length;
    }
    return {0, 0};
}

// Controls (C0, DEL and C1), line separators, and changes of the writing direction.
bool isDangerous(std::uint32_t c)
{
    return c < 0x20 || (c >= 0x7F && c < 0xA0) || c == 0x061C || c == 0x200E || c == 0x200F ||
           (c >= 0x2028 && c <= 0x202E) || (c >= 0x2066 && c <= 0x2069);
}

} // namespace

std::string printable(const std::string& text)
{
    std::string shown;
    for (std::size_t at = 0; at < text.size();) {
        const Character c = characterAt(text, at);
        const std::size_t length = c.length != 0 ? c.length : 1;
        char escape[sizeof "\\u0000"] = "";
        if (length == 1 && (c.length == 0 || isDangerous(c.number))) {
            (void)snprintf(escape, sizeof escape, "\\x%02x", static_cast<unsigned char>(text[at]));
        } else if (isDangerous(c.number)) {
            (void)snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(c.number & 0xFFFF));
        }
        shown += *escape != '\0' ? escape : text.substr(at, length);
        at += length;
    }
    return shown;
}

std::string markupText(const std::string& text)
{
    std::string escaped;
    for (char c : printable(text)) {
        switch (c) {
        case '&': escaped += "&amp;"; break;
        case '<': escaped += "&lt;"; break;
        case '>': escaped += "&gt;"; break;
        case '"': escaped += "&quot;"; break;
        default: escaped += c;
        }
    }
    return escaped;
}

} // namespace pkgtool
