// Values as text for people.
#ifndef PKGTOOL_TEXT_H
#define PKGTOOL_TEXT_H

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string>

namespace pkgtool {

// Foreign text, from a package, a server or a file's name, on its way to a terminal. What could take the terminal over
// or show one thing as another is escaped: control characters, changes of direction, and octets that are no UTF-8. What
// has been through here once comes out the same.
std::string printable(const std::string& text);

// The same for HTML and XML, between tags and between double quotes.
std::string markupText(const std::string& text);

inline std::string hexadecimal(std::uint32_t word)
{
    char text[11];
    (void)snprintf(text, sizeof text, "0x%08x", word);
    return text;
}

// Two digits for each octet, without anything between.
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

// 2025-01-01T00:00:00Z; empty for 0, which stands for a time that could not be read.
inline std::string timeText(std::time_t time)
{
    std::tm utc{};
    char text[32];
    if (time == 0 || gmtime_r(&time, &utc) == nullptr) return "";
    return std::string(text, std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc));
}

} // namespace pkgtool

#endif
