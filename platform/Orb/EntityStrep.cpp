#include "Orb/EntityStrep.h"

#include <fmt/format.h>

#include <mutex>
#include <vector>

#include "Orb/EntityType.h"

namespace Orb {

namespace {

// Never destroyed, so that static objects may leave it until the end.
struct Directory {
  std::mutex mutex;
  std::vector<Entity*> entities;
};

Directory& directory() {
  static Directory* instance = new Directory;
  return *instance;
}

}  // namespace

DirectoryEntry::DirectoryEntry(Entity& entity) : entity_(entity) {
  const std::lock_guard lock(directory().mutex);
  directory().entities.push_back(&entity_);
}

DirectoryEntry::~DirectoryEntry() {
  const std::lock_guard lock(directory().mutex);
  std::erase(directory().entities, &entity_);
}

std::vector<Ptr<Entity>> namedEntities() {
  std::vector<Ptr<Entity>> all;
  const std::lock_guard lock(directory().mutex);
  for (Entity* entity : directory().entities) {
    if (entity->referenceCount() != 0) all.emplace_back(entity);
  }
  return all;
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
  for (Entity* entity : directory().entities) {
    if (entity->referenceCount() == 0) continue;
    if (entity->fwkType().name() != typeName || entity->entityName() != name) continue;
    if (found) in.fail(fmt::format("a name that only one {} has", typeName));
    found = entity;
  }
  if (!found) in.fail(fmt::format("a {} named '{}' that exists", typeName, name));
  return found;
}

}  // namespace Orb
