// Output for terminals only.
#ifndef PKGTOOL_TERMINAL_H
#define PKGTOOL_TERMINAL_H

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace pkgtool {

enum class Colour { Red, Green, Yellow };

// Coloured if standard output is a terminal that knows colours, and the user has not set NO_COLOR.
inline std::string coloured(Colour colour, const std::string& text)
{
    const char* const no = std::getenv("NO_COLOR");
    const char* const kind = std::getenv("TERM");
    const bool isDumb = kind == nullptr || std::strcmp(kind, "dumb") == 0;
    if (isatty(STDOUT_FILENO) == 0 || isDumb || (no != nullptr && *no != '\0')) return text;
    const char* const code = colour == Colour::Red ? "31" : colour == Colour::Green ? "32" : "33";
    return std::string("\033[1;") + code + "m" + text + "\033[0m";
}

} // namespace pkgtool

#endif
