#pragma once

// What the agent's answers hold. Whatever answers may be no agent: what is there, but of another
// type than it has to be, throws Failure.

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace korureg {

// A list of objects.
nlohmann::ordered_json listIn(nlohmann::ordered_json answer);
// The list under a key; empty when there is none.
nlohmann::ordered_json listAt(const nlohmann::ordered_json& entry, const char* key);
// Empty when there is none.
std::string textAt(const nlohmann::ordered_json& entry, const char* key);
std::optional<uint64_t> numberAt(const nlohmann::ordered_json& entry, const char* key);
bool flagAt(const nlohmann::ordered_json& entry, const char* key);
// The value, which has to be there.
uint64_t valueIn(const nlohmann::ordered_json& answer);
// Whatever it is, for a table.
std::string cellAt(const nlohmann::ordered_json& entry, const char* key);

}  // namespace korureg
