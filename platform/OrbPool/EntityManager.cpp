#include "OrbPool/EntityManager.h"

#include <fmt/format.h>

#include <stdexcept>
#include <utility>

#include "Orb/EntityType.h"

namespace OrbPool {

namespace {

std::map<std::string, NewEntityHook::Make, std::less<>>& hooks() {
  static std::map<std::string, NewEntityHook::Make, std::less<>> byTypeName;
  return byTypeName;
}

}  // namespace

NewEntityHook::NewEntityHook(const char* typeName, Make make) { hooks()[typeName] = make; }

PoolEntity::~PoolEntity() {
  if (manager_) manager_->entities_.erase(mountPath_);
}

MountGroup::MountGroup(Orb::Ptr<EntityManager> manager) : manager_(std::move(manager)) {}

MountGroup::~MountGroup() = default;

void MountGroup::collectionDescriptionIs(const CollectionDescription& description) {
  description_ = description;
}

Orb::Ptr<PoolEntity> MountGroup::mount(std::string_view typeName, std::string_view path,
                                       MountType type) {
  try {
    // The group holds what it has mounted, so that nothing is lost before it is fetched.
    mounted_.push_back(manager_->mount(typeName, path, type, description_.entries));
  } catch (...) {
    mounted_.clear();
    throw;
  }
  return mounted_.back();
}

void MountGroup::close() { mounted_.clear(); }

Orb::Ptr<EntityManager> entityManagerFactory() { return Orb::make<EntityManager>(); }

Orb::Ptr<EntityManager> EntityManager::EntityManagerIs() { return entityManagerFactory(); }

EntityManager::~EntityManager() {
  for (const auto& [path, entity] : entities_) entity->manager_ = nullptr;
}

const Orb::EntityType& EntityManager::entityType() {
  static const auto type = Orb::EntityTypeOf<EntityManager>("OrbPool::EntityManager");
  return type;
}

Orb::Ptr<MountGroup> EntityManager::mountGroup() { return Orb::make<MountGroup>(this); }

Orb::Ptr<PoolEntity> EntityManager::entity(std::string_view path) const {
  const auto found = entities_.find(path);
  return found == entities_.end() ? nullptr : found->second;
}

Orb::Ptr<PoolEntity> EntityManager::mount(std::string_view typeName, std::string_view path,
                                          MountType type, uint32_t entries) {
  const auto hook = hooks().find(typeName);
  if (hook == hooks().end()) {
    throw std::invalid_argument(fmt::format("there is no type '{}' to be mounted", typeName));
  }
  Orb::Ptr<PoolEntity> mounted = entity(path);
  if (mounted) {
    const bool forWriting = type == mountWriter;
    if (mounted->fwkType().name() != typeName || mounted->mountedForWriting() != forWriting) {
      throw std::runtime_error(fmt::format("{} is mounted already, as a {} for {}", path,
                                           mounted->fwkType().name(),
                                           mounted->mountedForWriting() ? "writing" : "reading"));
    }
    mounted->handleMount(path, type, entries);
    return mounted;
  }
  mounted = hook->second(Orb::String(path));
  mounted->handleMount(path, type, entries);
  mounted->manager_ = this;
  mounted->mountPath_ = path;
  mounted->mountType_ = type;
  entities_.emplace(path, mounted.get());
  return mounted;
}

}  // namespace OrbPool
