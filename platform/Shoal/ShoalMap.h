#pragma once

// A keyed table in shared memory: one process writes it, any number read it, and its contents
// outlive them all. Keys have 64 bits, values 32. Used on the framework's thread; a mounted table
// is served on the process's event loop (Orb::eventLoop()).
//
// Every access verifies what it touches and throws Brio::CorruptionDetectedException rather than
// return a value that was never stored.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Orb/Export.h"
#include "Shoal/MountStatus.h"
#include "Shoal/TableView.h"

namespace Orb {
class DirectoryWatch;
}

namespace Shoal {

class TableReader;
class TableWriter;

class ReaderServer;

// What the tables of a process have in common.
class ORB_EXPORT ShoalMapBase {
 public:
  using CorruptionHandler = std::function<void(const std::string& message)>;

  // Hands what was found damaged to the handler. Without one it is traced at level 0 under "Shoal"
  // and counted ("corruptionDetected").
  static void doCorruptionDetected(const std::string& message);
  // Replaces the handler; an empty one brings back the default. Returns the previous one.
  static CorruptionHandler corruptionHandlerIs(CorruptionHandler handler);
};

class ORB_EXPORT ShoalMap : public ShoalMapBase {
 public:
  // Each of them may be empty.
  struct Callbacks {
    // A key was changed by another process; called from the event loop.
    std::function<void(uint64_t key)> changed;
    std::function<void()> mountStatusChanged;
    // Whether all changes known so far have been told.
    std::function<void(bool)> quiesced;
  };
  struct Entry {
    uint64_t key;
    uint32_t value;
  };
  // The first half of a two-phase write: memory of the caller's own, which commit() publishes.
  using Pending = Entry;

  explicit ShoalMap(Callbacks callbacks);
  ~ShoalMap();
  ShoalMap(const ShoalMap&) = delete;
  ShoalMap& operator=(const ShoalMap&) = delete;

  // Become the table's only writer, with room for so many entries; what the table holds is kept. A
  // writer that mounts again gets more room. One whose file is removed or replaced reports that as
  // damage and puts it back in place. Throws std::invalid_argument for a bad path,
  // std::runtime_error that names the process when there is a writer already, MountException for a
  // file that is another table or none, or for what others may have put there (Shoal/StatePath.h),
  // Brio::CorruptionDetectedException for a damaged table, and std::system_error, for instance when
  // the file system is full. Nothing is mounted then.
  void mountAsWriter(std::string_view path, const std::string& typeName, uint32_t entries);
  // Read a table that another process writes, or will write. Throws the same, but for the role.
  void mountAsReader(std::string_view path, const std::string& typeName);
  void unmount();

  MountStatus mountStatus() const;
  bool isWriter() const { return writer_ != nullptr; }
  size_t size() const;

  std::optional<uint32_t> get(uint64_t key) const {
    const uint64_t found = contents(key);
    if (wordState(found) != SlotState::present) return std::nullopt;
    return wordValue(found);
  }
  // Returns whether the key is there. (An optional that another function returns goes through
  // memory, at the cost of another look-up.)
  bool get(uint64_t key, uint32_t& value) const {
    const uint64_t found = contents(key);
    value = wordValue(found);
    return wordState(found) == SlotState::present;
  }
  // Asks for what a change of the key will touch (Orb/Fetch.h).
  void fetchToWrite(uint64_t key) const {
    if (*view_) view_->fetchToWrite(key);
  }
  // All entries, in the table's own order.
  std::vector<Entry> entries() const;
  // The same one by one: start with position 0, until it returns false.
  bool next(uint32_t& position, Entry& entry) const;

  // Throw std::logic_error unless this is the writer.
  void put(uint64_t key, uint32_t value);
  void commit(const Pending& pending) { put(pending.key, pending.value); }
  // Returns whether the key was there.
  bool del(uint64_t key);

  // The slots whose contents were never stored there, and how many slots there are.
  std::vector<uint32_t> damagedSlots() const;
  uint32_t slotCount() const;
  uint64_t generation() const;
  size_t readerCount() const;

 private:
  // Value and state under a key, packed as in a slot's word.
  uint64_t contents(uint64_t key) const {
    uint32_t index;
    uint64_t word;
    if (!*view_ || !view_->findNear(key, index, word)) [[unlikely]]
      return contentsFar(key);
    return word;
  }
  uint64_t contentsFar(uint64_t key) const;
  TableWriter& writer() const;
  void keepInPlace();

  const Callbacks callbacks_;
  std::unique_ptr<TableWriter> writer_;
  std::unique_ptr<ReaderServer> server_;
  std::unique_ptr<Orb::DirectoryWatch> watch_;  // of the writer
  bool isOutOfPlace_ = false;                   // and it was said
  std::shared_ptr<TableReader> reader_;
  const TableView* view_;  // of the writer, the reader, or of no table
};

}  // namespace Shoal
