// Values as text for people.
#ifndef PKGTOOL_TEXT_H
#define PKGTOOL_TEXT_H

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string>

namespace pkgtool {

// Makes foreign text, from a package, a server or a file's name, safe for a terminal. It escapes characters that could
// control the terminal or disguise text: control characters, changes of direction, and octets that are not UTF-8.
// Escaped text stays the same.
std::string printable(const std::string& text);

// The same for HTML and XML, between tags and between double quotes.
std::string markupText(const std::string& text);

inline std::string hexadecimal(std::uint32_t word)
{
    char text[11];
    (void)snprintf(text, sizeof text, "0x%08x", word);
    return text;
}

// Two digits per octet, without separators.
inline std::string hexText(const unsigned char* octets, std::size_t count)
{
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
        char octet[3];
        (void)snprintf(octet, sizeof octet, "%02X", octets[i]);
        text += octet;
    }
    return text;
}

// 2025-01-01T00:00:00Z; empty for 0, an unreadable time.
inline std::string timeText(std::time_t time)
{
    std::tm utc{};
    char text[32];
    if (time == 0 || gmtime_r(&time, &utc) == nullptr) return "";
    return std::string(text, std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc));
}

} // namespace pkgtool

#endif
