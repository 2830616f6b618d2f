#include "Orb/EntityStrep.h"

#include <fmt/format.h>

#include <map>
#include <mutex>
#include <vector>

#include "Orb/EntityType.h"

namespace Orb {

namespace {

// Never destroyed, so that static objects may leave it until the end.
struct Directory {
  std::mutex mutex;
  std::map<uint64_t, Entity*> entities;
  uint64_t last = 0;
};

Directory& directory() {
  static Directory* instance = new Directory;
  return *instance;
}

}  // namespace

DirectoryEntry::DirectoryEntry(Entity& entity) {
  const std::lock_guard lock(directory().mutex);
  number_ = ++directory().last;
  directory().entities.emplace(number_, &entity);
}

DirectoryEntry::~DirectoryEntry() {
  const std::lock_guard lock(directory().mutex);
  directory().entities.erase(number_);
}

std::vector<Ptr<Entity>> namedEntities() {
  std::vector<Ptr<Entity>> all;
  const std::lock_guard lock(directory().mutex);
  for (const auto& entry : directory().entities) {
    if (entry.second->referenceCount() != 0) all.emplace_back(entry.second);
  }
  return all;
}

uint64_t namedEntityNumber(std::string_view type, std::string_view name) {
  const std::lock_guard lock(directory().mutex);
  for (const auto& [number, entity] : directory().entities) {
    if (entity->referenceCount() == 0) continue;
    if (entity->fwkType().name() == type && entity->entityName().view() == name) return number;
  }
  return 0;
}

Ptr<Entity> namedEntity(uint64_t number) {
  const std::lock_guard lock(directory().mutex);
  const auto found = directory().entities.find(number);
  if (found == directory().entities.end() || found->second->referenceCount() == 0) return nullptr;
  return Ptr<Entity>(found->second);
}

void appendEntityStrep(std::string& out, const Entity* entity) {
  if (!entity) {
    out += "None";
    return;
  }
  out += "Entity(";
  appendQuoted(out, entity->fwkType().name());
  out += ", ";
  appendQuoted(out, entity->entityName());
  out += ')';
}

Ptr<Entity> readEntityStrep(StrepReader& in) {
  if (in.accept("None")) return nullptr;
  in.expect("Entity(");
  const std::string typeName = in.quoted();
  in.expect(", ");
  const std::string name = in.quoted();
  in.expect(")");
  Ptr<Entity> found;
  const std::lock_guard lock(directory().mutex);
  for (const auto& entry : directory().entities) {
    Entity* const entity = entry.second;
    if (entity->referenceCount() == 0) continue;
    if (entity->fwkType().name() != typeName || entity->entityName() != name) continue;
    if (found) in.fail(fmt::format("a name that only one {} has", typeName));
    found = entity;
  }
  if (!found) in.fail(fmt::format("a {} named '{}' that exists", typeName, name));
  return found;
}

}  // namespace Orb
