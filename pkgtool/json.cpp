#include "json.h"

#include "text.h"

#include <cstdio>

template class nlohmann::basic_json<nlohmann::ordered_map>;

namespace pkgtool {

std::string dump(const Json& json, int indent)
{
    return json.dump(indent, ' ', true, Json::error_handler_t::replace);
}

std::string textOf(const Json& value)
{
    if (value.is_null()) return "?";
    return printable(value.is_string() ? value.get<std::string>() : dump(value, -1));
}

std::optional<std::time_t> secondsOf(const Json& time)
{
    std::tm utc{};
    if (!time.is_string() || strptime(time.get<std::string>().c_str(), "%Y-%m-%dT%H:%M:%SZ", &utc) == nullptr) {
        return std::nullopt;
    }
    return timegm(&utc);
}

void print(const Json& json)
{
    printf("%s\n", dump(json).c_str());
}

} // namespace pkgtool
