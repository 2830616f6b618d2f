#include "Shoal/internal/TableWriter.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "Brio/CorruptionDetectedException.h"
#include "Shoal/ShoalMap.h"

namespace Shoal {

namespace {

TableLock lockOf(const TablePaths& paths) {
  makeDirectories(paths);
  return TableLock(paths.lock, paths.mountPath);
}

}  // namespace

TableWriter::TableWriter(const TablePaths& paths, const std::string& typeName, uint32_t entries)
    : paths_(paths), typeName_(typeName), lock_(lockOf(paths)) {
  auto found = TableFile::open(paths_.table, typeName_, TableFile::Access::write);
  if (found) {
    fileIs(std::move(found));
    takeOver();
    makeRoom(entries);
    return;
  }
  auto made = TableFile::create(paths_.table, {typeName_, entries});
  made->takePlace(paths_.table);
  fileIs(std::move(made));
}

void TableWriter::fileIs(std::unique_ptr<TableFile> file) {
  file_ = std::move(file);
  view_ = file_->view();
  capacity_ = file_->identity().capacity;
}

// Counts what is there, and finishes what a killed writer began: the change after the head may have
// been published, or was about to be.
void TableWriter::takeOver() {
  sequence_ = view().header().head.load(std::memory_order_relaxed);
  const auto next = static_cast<uint32_t>(sequence_ + 1);
  for (uint32_t index = 0; index < view().slotCount(); ++index) {
    const TableView::Entry entry = view().at(index);
    if (entry.state == SlotState::empty) continue;
    ++used_;
    if (entry.state == SlotState::present) ++present_;
    if (view().slotSequence(index).load(std::memory_order_relaxed) != next) continue;
    announceChange(index, sequence_ + 1);
  }
}

void TableWriter::putFar(uint64_t key, uint32_t value) {
  TableView::Entry entry = view().findFar(key);
  if (entry.state == SlotState::empty) {
    if (used_ >= capacity_) entry = growFor(key);
    view().slot(entry.index).key.store(key, std::memory_order_relaxed);
    ++used_;
  }
  if (entry.state != SlotState::present) ++present_;
  publish(entry.index, key, value, SlotState::present);
}

bool TableWriter::del(uint64_t key) {
  const TableView::Entry entry = view().find(key);
  if (entry.state != SlotState::present) return false;
  publish(entry.index, key, 0, SlotState::deleted);
  --present_;
  return true;
}

// A full table gets twice the room, unless it is deleted entries that fill it.
TableView::Entry TableWriter::growFor(uint64_t key) {
  const uint32_t capacity = file_->identity().capacity;
  grow(present_ >= capacity / 2 ? 2 * capacity : capacity);
  return view().find(key);
}

void TableWriter::makeRoom(uint32_t entries) {
  if (entries > file_->identity().capacity) grow(entries);
}

void TableWriter::putBackInPlace() {
  if (!lock_.isInPlace()) {
    throw std::runtime_error(fmt::format("{} was removed or replaced as well", paths_.lock));
  }
  grow(0);
}

void TableWriter::grow(uint32_t entries) {
  // What a growth leaves behind for good is told before.
  if (const char* damage = file_->damage()) {
    ShoalMapBase::doCorruptionDetected(fmt::format("{}: {}", paths_.table, damage));
  }
  entries = std::max(entries, file_->identity().capacity);
  auto grown =
      TableFile::create(paths_.table, {typeName_, entries, file_->identity().generation + 1});
  const TableView& to = grown->view();
  for (uint32_t index = 0; index < view().slotCount(); ++index) {
    const TableView::Entry entry = view().at(index);
    if (entry.state != SlotState::present) continue;
    const TableView::Entry place = to.find(entry.key);
    Slot& slot = to.slot(place.index);
    slot.key.store(entry.key, std::memory_order_relaxed);
    to.slotSequence(place.index)
        .store(view().slotSequence(index).load(std::memory_order_relaxed),
               std::memory_order_relaxed);
    slot.word.store(to.word(entry.key, entry.value, SlotState::present, place.index),
                    std::memory_order_release);
  }
  to.header().head.store(sequence_, std::memory_order_release);
  grown->takePlace(paths_.table);
  const auto old = std::move(file_);
  fileIs(std::move(grown));
  old->view().header().superseded.store(1, std::memory_order_seq_cst);
  used_ = present_;
  if (hasReaders_) announce_(true);
}

}  // namespace Shoal
