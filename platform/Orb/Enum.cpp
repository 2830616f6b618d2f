#include "Orb/Enum.h"

#include <fmt/format.h>

namespace Orb::detail {

void throwNoEnumName(const char* typeName, std::string_view name) {
  throwRangeException(fmt::format("{} has no value named '{}'", typeName, name));
}

void throwNoEnumNumber(const char* typeName, uint64_t number) {
  throwRangeException(fmt::format("{} has no value of number {}", typeName, number));
}

}  // namespace Orb::detail
