#include "programs/pkgtool_json.h"

template class nlohmann::basic_json<>;

Json ParseJson(const std::string& text)
{
    return Json::parse(text, nullptr, false);
}
