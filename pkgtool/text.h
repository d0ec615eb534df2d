// Values as text for people.
#ifndef PKGTOOL_TEXT_H
#define PKGTOOL_TEXT_H

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string>

namespace pkgtool {

// With a question mark for every control character, so that foreign text cannot take the terminal over.
inline std::string printable(std::string text)
{
    const auto isControl = [](unsigned char c) { return c < 0x20 || c == 0x7F; };
    std::replace_if(text.begin(), text.end(), isControl, '?');
    return text;
}

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
