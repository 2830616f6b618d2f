#pragma once

// The writing side of a shared table. Internal to Shoal; used on the framework's thread.
//
// The order in which a change reaches memory, which docs/TableFormat.md explains:
//   1. the key, if the slot is new      3. the word: the change is published
//   2. the sequence number              4. the ring entry    5. the head    6. armed readers
// A process killed between any two of them leaves a table that holds the old value or the new one.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "Orb/Export.h"
#include "Shoal/StatePath.h"
#include "Shoal/internal/TableFile.h"
#include "Shoal/internal/TableLock.h"

namespace Shoal {

class ORB_EXPORT TableWriter {
 public:
  // Takes the writer's role and opens the table, makes it if it is missing, and grows it if it
  // holds fewer than `entries`. Announces changes that an earlier writer published but did not
  // announce. Throws what TableLock and TableFile throw, and Brio::CorruptionDetectedException for
  // a damaged table, which is left as it is.
  TableWriter(const TablePaths& paths, const std::string& typeName, uint32_t entries);

  const TableView& view() const { return view_; }
  const TableFile& file() const { return *file_; }
  const std::string& path() const { return paths_.table; }
  // Entries present.
  size_t size() const { return present_; }

  // Inserts or overwrites. Grows the table when it is full. Throws
  // Brio::CorruptionDetectedException when it meets damage, and what growing throws; then nothing
  // has changed.
  void put(uint64_t key, uint32_t value) {
    view().fetchToWrite(key, sequence_);
    TableView::Entry entry;
    if (!view().findNear(key, entry) || entry.state != SlotState::present) [[unlikely]] {
      return putFar(key, value);
    }
    publish(entry.index, key, value, SlotState::present);
  }
  // Removes; returns whether the key was there.
  bool del(uint64_t key);

  // Grows the table if it holds fewer than so many entries. Throws what TableFile::create() throws;
  // then nothing has changed.
  void makeRoom(uint32_t entries);

  // Whether the table's name still leads to the file that is written.
  bool isInPlace() const { return file_->isAt(paths_.table); }
  // Puts a new generation with the same contents in place. Throws what TableFile::create() throws,
  // and std::runtime_error when the lock file is not in place either, so that there may be another
  // writer; then nothing has changed.
  void putBackInPlace();

  // Called after each change while there are readers, to wake those that sleep; after a growth with
  // true, to wake them all.
  void announceIs(std::function<void(bool grown)> announce) { announce_ = std::move(announce); }
  void hasReadersIs(bool hasReaders) { hasReaders_ = hasReaders; }

 private:
  void publish(uint32_t index, uint64_t key, uint32_t value, SlotState state) {
    const uint64_t sequence = sequence_ + 1;
    view().slotSequence(index).store(static_cast<uint32_t>(sequence), std::memory_order_relaxed);
    view().slot(index).word.store(view().word(key, value, state, index), std::memory_order_release);
    announceChange(index, sequence);
    if (hasReaders_) announce_(false);
  }
  void announceChange(uint32_t index, uint64_t sequence) {
    view().ringEntry(sequence).store(packRingEntry(index, sequence), std::memory_order_release);
    // A reader that has not been accepted yet looks at the head again when it is.
    // (An order that is chosen at run time would always be the dearest.)
    if (hasReaders_) {
      view().header().head.store(sequence, std::memory_order_seq_cst);
    } else {
      view().header().head.store(sequence, std::memory_order_release);
    }
    sequence_ = sequence;
  }
  [[gnu::noinline]] void putFar(uint64_t key, uint32_t value);
  TableView::Entry growFor(uint64_t key);
  void takeOver();
  void fileIs(std::unique_ptr<TableFile> file);
  void grow(uint32_t entries);

  const TablePaths paths_;
  const std::string typeName_;
  const TableLock lock_;
  std::unique_ptr<TableFile> file_;
  TableView view_;  // of the file, one step nearer
  size_t present_ = 0;
  size_t capacity_ = 0;
  size_t used_ = 0;        // slots that are not empty
  uint64_t sequence_ = 0;  // of the latest change
  bool hasReaders_ = false;
  std::function<void(bool)> announce_;
};

}  // namespace Shoal
