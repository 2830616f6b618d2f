#pragma once

// Entities whose collections live in shared memory, by mount path. An agent opens a mount group,
// says how large the collections are to be, mounts entities by type name and path, fetches them,
// and closes the group; if a mount of the group fails, those before it are undone. Between mounts
// the manager only knows the entities: they live while somebody holds them, and their role as a
// table's writer ends with them. Used on the framework's thread.

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "Orb/EntityStrep.h"

namespace OrbPool {

class EntityManager;

// 0 mounts for writing; everything else for reading.
using MountType = uint32_t;
inline constexpr MountType mountWriter = 0;
inline constexpr MountType mountReader = 1;

// How large a collection is to be.
struct CollectionDescription {
  std::string collection;
  uint32_t entries = 0;
  bool fixed = false;  // reserved: a collection grows whenever more is asked of it
};

// An entity that can be mounted.
class ORB_EXPORT PoolEntity : public Orb::Entity {
 public:
  ~PoolEntity() override;

  const std::string& mountPath() const { return mountPath_; }
  bool mountedForWriting() const { return mountType_ == mountWriter; }

 protected:
  PoolEntity() = default;

 private:
  friend class EntityManager;
  friend class MountGroup;
  // Attach to the collection at `path` in shared memory. Throws what the table library throws, and
  // is then as it was. Called again, with the same path and type, when more entries are asked for.
  virtual void handleMount(std::string_view path, MountType type, uint32_t entries) = 0;

  EntityManager* manager_ = nullptr;
  std::string mountPath_;
  MountType mountType_ = mountWriter;
};

// Makes an entity of a type that can be mounted; registered once, as a static object.
class ORB_EXPORT NewEntityHook {
 public:
  using Make = Orb::Ptr<PoolEntity> (*)(const Orb::String& name);
  NewEntityHook(const char* typeName, Make make);
};

// Mounts that belong together. Undone, as far as they were new, unless the group is closed.
class ORB_EXPORT MountGroup : public Orb::PtrInterface {
 public:
  explicit MountGroup(Orb::Ptr<EntityManager> manager);
  ~MountGroup() override;

  // For the mounts that follow.
  void collectionDescriptionIs(const CollectionDescription& description);
  // Mounts an entity; one that is mounted at that path already is taken, and grown if more is
  // asked. Throws std::invalid_argument for an unknown type or a bad path, std::runtime_error for a
  // path that is mounted as something else, and what the table library throws. The group is undone
  // then.
  Orb::Ptr<PoolEntity> mount(std::string_view typeName, std::string_view path, MountType type);
  // Completes the mount.
  void close();

 private:
  const Orb::Ptr<EntityManager> manager_;
  CollectionDescription description_;
  std::vector<Orb::Ptr<PoolEntity>> mounted_;
};

class ORB_EXPORT EntityManager : public Orb::Entity {
 public:
  EntityManager() = default;
  ~EntityManager() override;
  static Orb::Ptr<EntityManager> EntityManagerIs();
  static const Orb::EntityType& entityType();
  const Orb::EntityType& fwkType() const override { return entityType(); }

  Orb::Ptr<MountGroup> mountGroup();
  // The entity mounted at that path, or null.
  Orb::Ptr<PoolEntity> entity(std::string_view path) const;

 private:
  friend class MountGroup;
  friend class PoolEntity;
  Orb::Ptr<PoolEntity> mount(std::string_view typeName, std::string_view path, MountType type,
                             uint32_t entries);

  std::map<std::string, PoolEntity*, std::less<>> entities_;
  Orb::DirectoryEntry directoryEntry_{*this};
};

ORB_EXPORT Orb::Ptr<EntityManager> entityManagerFactory();

}  // namespace OrbPool
