// Values as text for people.
#ifndef PKGTOOL_TEXT_H
#define PKGTOOL_TEXT_H

#include <algorithm>
#include <cstdint>
#include <cstdio>
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

} // namespace pkgtool

#endif
