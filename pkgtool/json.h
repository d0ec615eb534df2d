// The reports of this tool: a document, printed with --json or described in words.
#ifndef PKGTOOL_JSON_H
#define PKGTOOL_JSON_H

#include "text.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <ctime>
#include <optional>
#include <string>

namespace pkgtool {

using Json = nlohmann::ordered_json;

// The version of the reports of all commands: raised when a member of any report changes its meaning or disappears. New
// members do not raise it, and each has its line in packaging/pkgtool.schema.json.
constexpr int SCHEMA = 2;

inline Json orNull(const std::string& text)
{
    return text.empty() ? Json() : Json(text);
}

inline const Json NO_VALUE;

// A member of an object, or null if there is no such object or member.
inline const Json& memberOf(const Json& object, const char* name)
{
    const auto found = object.find(name);
    return found != object.end() ? *found : NO_VALUE;
}

inline const Json& elementOf(const Json& array, std::size_t i)
{
    return array.is_array() && i < array.size() ? array[i] : NO_VALUE;
}

// Names are not always UTF-8; invalid octets are replaced. Only ASCII is printed, because JSON on a terminal can do as
// much harm as any other text.
inline std::string dump(const Json& json, int indent = 2)
{
    return json.dump(indent, ' ', true, Json::error_handler_t::replace);
}

// A value for people: names come from packages, and go to a terminal.
inline std::string textOf(const Json& value)
{
    if (value.is_null()) return "?";
    return printable(value.is_string() ? value.get<std::string>() : dump(value, -1));
}

// A report's time in seconds; none for any other value.
inline std::optional<std::time_t> secondsOf(const Json& time)
{
    std::tm utc{};
    if (!time.is_string() || strptime(time.get<std::string>().c_str(), "%Y-%m-%dT%H:%M:%SZ", &utc) == nullptr) {
        return std::nullopt;
    }
    return timegm(&utc);
}

inline void print(const Json& json)
{
    printf("%s\n", dump(json).c_str());
}

} // namespace pkgtool

#endif
