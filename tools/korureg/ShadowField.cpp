#include "korureg/ShadowField.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "KoruRegFile/ShoalTypes.h"
#include "Orb/EntityType.h"
#include "korureg/Command.h"
#include "korureg/Output.h"

namespace korureg {

using KoruRegFile::ShadowFieldKey;

Shoal::TablePaths tablePaths(const ShadowOptions& shadow) {
  Shoal::stateDirectoryIs(shadow.stateDirectory);
  try {
    return Shoal::TablePaths(shadow.path);
  } catch (const std::invalid_argument& e) {
    throw UsageError(e.what());
  }
}

void requireShadowFields(const Shoal::TablePaths& paths, const std::string& typeName) {
  if (typeName == KoruRegFile::ShadowFieldsConfig::entityType().name()) return;
  if (typeName == KoruRegFile::ShadowFieldsStatus::entityType().name()) return;
  throw Failure(
      fmt::format("{} is a table of type '{}', not of shadow fields", paths.mountPath, typeName));
}

ShadowFieldKey unpackField(uint64_t key) {
  if (const auto field = KoruRegFile::unpackShadowFieldKey(key)) return *field;
  throw Failure(fmt::format("{:#x} is no key of a shadow field", key));
}

std::string fieldHex(const ShadowFieldKey& field, uint32_t value) {
  return hex(value, field.size());
}

std::string fieldBits(const ShadowFieldKey& field) {
  return fmt::format("[{}:{}]", field.start() + field.size() - 1, field.start());
}

nlohmann::ordered_json fieldJson(const ShadowFieldKey& field) {
  return {{"address", field.address()}, {"start", field.start()}, {"size", field.size()}};
}

}  // namespace korureg
