#pragma once

// One generation of a shared table: a file and its mapping. The file is complete before it gets its
// name, is never truncated or resized, and stays mapped for as long as the TableFile lives,
// whatever becomes of its name. Internal to Shoal; used on the framework's thread.

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>

#include "Keel/GenericSigbusHandler.h"
#include "Orb/Export.h"
#include "Shoal/StatePath.h"
#include "Shoal/TableView.h"

namespace Shoal {

class ORB_EXPORT TableFile {
 public:
  enum class Access { read, write };

  // What a new table is to be.
  struct Shape {
    std::string typeName;
    uint32_t capacity;  // entries
    uint64_t generation = 1;
  };

  // The most entries that a table can hold.
  static constexpr uint32_t mostEntries = 1u << 28;

  // Opens and maps the table at `path` and verifies its identity. Null when there is no such file.
  // Throws MountException for a file that is no table of this machine and version, or of another
  // type, or that checkFile() refuses; Brio::CorruptionDetectedException for a table whose identity
  // or size is damaged; std::system_error when it cannot be opened.
  static std::unique_ptr<TableFile> open(const std::string& path, const std::string& typeName,
                                         Access access);

  // Makes an empty table beside `path`, for takePlace() to put there once it is filled. Throws
  // std::system_error, also when the file system is full, and MountException when too many entries
  // are asked for.
  static std::unique_ptr<TableFile> create(const std::string& path, const Shape& shape);
  // Gives a created table its name, in one step and in place of what had it before.
  void takePlace(const std::string& path);

  // Removes a created table that never took its place.
  ~TableFile();
  TableFile(const TableFile&) = delete;
  TableFile& operator=(const TableFile&) = delete;

  const TableView& view() const { return view_; }
  // As it was verified, whatever has become of it in the file.
  const TableIdentity& identity() const { return identity_; }
  bool isSuperseded() const {
    return view_.header().superseded.load(std::memory_order_acquire) != 0;
  }
  // Whether a part of the file has vanished under the mapping.
  bool isCutShort() const { return guard_.isDamaged(); }
  // What has happened to the file as a whole since it was opened; null when nothing has.
  const char* damage() const;
  // Whether `path` names this very file.
  bool isAt(const std::string& path) const;

 private:
  TableFile(void* begin, const TableIdentity& identity, const struct stat& status);

  // Outlives the guard over it.
  struct Mapping {
    ~Mapping();
    void* const begin;
    const size_t size;
  };

  const TableIdentity identity_;
  const Mapping mapping_;
  const dev_t device_;
  const ino_t inode_;
  std::string unplaced_;  // the file's name until takePlace()
  const Keel::MappedRegion guard_;
  const TableView view_;
};

}  // namespace Shoal
