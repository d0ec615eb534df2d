// The reports of this tool: a document, printed with --json or described in words.
#ifndef PKGTOOL_JSON_H
#define PKGTOOL_JSON_H

#include <nlohmann/json.hpp>

#include <ctime>
#include <optional>
#include <string>

// Compiled once, in json.cpp: instantiated in each source, it was half of what there was to compile.
extern template class nlohmann::basic_json<nlohmann::ordered_map>;

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
std::string dump(const Json& json, int indent = 2);

// A value for people: names come from packages, and go to a terminal.
std::string textOf(const Json& value);

// A report's time in seconds; none for any other value.
std::optional<std::time_t> secondsOf(const Json& time);

void print(const Json& json);

} // namespace pkgtool

#endif
