// What pkgtool prints with --json.
#ifndef TESTS_PROGRAMS_PKGTOOL_JSON_H
#define TESTS_PROGRAMS_PKGTOOL_JSON_H

#include <nlohmann/json.hpp>

#include <string>

// Compiled once, in pkgtool_json.cpp.
extern template class nlohmann::basic_json<>;

using Json = nlohmann::json;

// A text that is no document gives a value that equals nothing.
Json ParseJson(const std::string& text);

#endif
