#include "Orb/EntityType.h"

#include <fmt/format.h>

#include <algorithm>

namespace Orb {

namespace {

template <class Items>
const auto& itemByName(const EntityType& type, const Items& items, const char* kind,
                       std::string_view name) {
  const auto found = std::find_if(items.begin(), items.end(),
                                  [name](const auto& item) { return item.name == name; });
  if (found == items.end()) {
    throw InterfaceException(fmt::format("{} has no {} '{}'", type.name(), kind, name));
  }
  return *found;
}

// Among the operations called like `first`, the one with so many arguments, or else `first`.
const EntityType::Operation& overload(const EntityType& type, const EntityType::Operation& first,
                                      size_t argumentCount) {
  const auto& all = type.operations();
  const auto found = std::find_if(all.begin(), all.end(), [&](const auto& operation) {
    return operation.name == first.name && operation.arguments.size() == argumentCount;
  });
  return found == all.end() ? first : *found;
}

}  // namespace

std::string attributeStrep(const Entity& entity, std::string_view attribute) {
  const EntityType& type = entity.fwkType();
  return itemByName(type, type.attributes(), "attribute", attribute).strep(entity);
}

std::string callOperation(Entity& entity, std::string_view operation,
                          std::span<const std::string_view> arguments) {
  const EntityType& type = entity.fwkType();
  const auto& first = itemByName(type, type.operations(), "operation", operation);
  const auto& called = overload(type, first, arguments.size());
  if (arguments.size() != called.arguments.size()) {
    throw InterfaceException(fmt::format("{}::{} takes {} arguments, got {}", type.name(),
                                         called.name, called.arguments.size(), arguments.size()));
  }
  for (const EntityType::Argument& argument : called.arguments) {
    if (argument.parses) continue;
    throw InterfaceException(fmt::format("{}::{}: argument '{}': {} cannot be read from a text",
                                         type.name(), called.name, argument.name,
                                         argument.typeName));
  }
  return called.call(entity, arguments);
}

void detail::readArgument(std::string_view name, const std::function<void()>& read) {
  try {
    read();
  } catch (const RangeException& e) {
    throw RangeException(fmt::format("argument '{}': {}", name, e.what()));
  } catch (const ParseException& e) {
    throw ParseException(fmt::format("argument '{}': {}", name, e.what()));
  }
}

}  // namespace Orb
