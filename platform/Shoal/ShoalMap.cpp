#include "Shoal/ShoalMap.h"

#include <fmt/format.h>

#include <stdexcept>
#include <utility>

#include "Orb/Counter.h"
#include "Orb/DirectoryWatch.h"
#include "Orb/Trace.h"
#include "Shoal/internal/ReaderServer.h"
#include "Shoal/internal/TableReader.h"
#include "Shoal/internal/TableWriter.h"

namespace Shoal {

namespace {

Orb::TraceHandle trace("Shoal");

constexpr TableView noTable;

ShoalMapBase::CorruptionHandler& corruptionHandler() {
  static ShoalMapBase::CorruptionHandler handler;
  return handler;
}

// Callbacks that nobody asked for do nothing.
ShoalMap::Callbacks complete(ShoalMap::Callbacks callbacks) {
  if (!callbacks.changed) callbacks.changed = [](uint64_t) {};
  if (!callbacks.mountStatusChanged) callbacks.mountStatusChanged = [] {};
  if (!callbacks.quiesced) callbacks.quiesced = [](bool) {};
  return callbacks;
}

}  // namespace

void ShoalMapBase::doCorruptionDetected(const std::string& message) {
  static Orb::Counter counter("Shoal", "corruptionDetected");
  counter.increment();
  // The handler may replace itself.
  if (const CorruptionHandler handler = corruptionHandler()) return handler(message);
  ORB_TRACE(trace, 0, "corruption detected: {}", message);
}

ShoalMapBase::CorruptionHandler ShoalMapBase::corruptionHandlerIs(CorruptionHandler handler) {
  return std::exchange(corruptionHandler(), std::move(handler));
}

ShoalMap::ShoalMap(Callbacks callbacks)
    : callbacks_(complete(std::move(callbacks))), view_(&noTable) {}

ShoalMap::~ShoalMap() { unmount(); }

void ShoalMap::mountAsWriter(std::string_view path, const std::string& typeName, uint32_t entries) {
  if (writer_) {
    writer_->makeRoom(entries);
    return;
  }
  unmount();
  const TablePaths paths(path);
  auto writer = std::make_unique<TableWriter>(paths, typeName, entries);
  auto watch = std::make_unique<Orb::DirectoryWatch>(paths.directory, [this] { keepInPlace(); });
  server_ = std::make_unique<ReaderServer>(*writer, paths.socket);
  watch_ = std::move(watch);
  writer_ = std::move(writer);
  view_ = &writer_->view();
}

// Readers would go on with what has taken the file's place, and nobody would find its contents
// after this process.
void ShoalMap::keepInPlace() {
  const bool wasKnown = std::exchange(isOutOfPlace_, !writer_->isInPlace());
  if (!isOutOfPlace_ || wasKnown) return;
  const std::string what = fmt::format("{}: removed or replaced under its writer", writer_->path());
  try {
    writer_->putBackInPlace();
    isOutOfPlace_ = false;
  } catch (const std::exception& e) {
    return doCorruptionDetected(fmt::format("{}, and cannot be put back: {}", what, e.what()));
  }
  doCorruptionDetected(what + "; put back");
}

void ShoalMap::mountAsReader(std::string_view path, const std::string& typeName) {
  unmount();
  auto reader = std::make_shared<TableReader>(
      TablePaths(path), typeName,
      TableReader::Callbacks{callbacks_.changed, callbacks_.mountStatusChanged, callbacks_.quiesced,
                             doCorruptionDetected});
  reader->open();
  reader_ = std::move(reader);
  view_ = &reader_->view();
}

void ShoalMap::unmount() {
  view_ = &noTable;
  watch_.reset();
  server_.reset();
  writer_.reset();
  isOutOfPlace_ = false;
  if (reader_) reader_->close();
  reader_.reset();
}

MountStatus ShoalMap::mountStatus() const {
  if (reader_) return reader_->status();
  if (!writer_) return MountStatus::unmounted;
  return writer_->file().damage() ? MountStatus::damaged : MountStatus::attached;
}

TableWriter& ShoalMap::writer() const {
  if (!writer_)
    throw std::logic_error("a table that is not mounted by its writer cannot be changed");
  return *writer_;
}

uint64_t ShoalMap::contentsFar(uint64_t key) const {
  if (!*view_) return packContents(0, SlotState::empty);
  const TableView::Entry entry = view_->findFar(key);
  return packContents(entry.value, entry.state);
}

bool ShoalMap::next(uint32_t& position, Entry& entry) const {
  while (*view_ && position < view_->slotCount()) {
    const TableView::Entry found = view_->at(position++);
    if (found.state != SlotState::present) continue;
    entry = {found.key, found.value};
    return true;
  }
  return false;
}

std::vector<ShoalMap::Entry> ShoalMap::entries() const {
  std::vector<Entry> all;
  Entry entry;
  for (uint32_t position = 0; next(position, entry);) all.push_back(entry);
  return all;
}

size_t ShoalMap::size() const { return writer_ ? writer_->size() : entries().size(); }

void ShoalMap::put(uint64_t key, uint32_t value) { writer().put(key, value); }

bool ShoalMap::del(uint64_t key) { return writer().del(key); }

std::vector<uint32_t> ShoalMap::damagedSlots() const {
  return *view_ ? view_->damagedSlots() : std::vector<uint32_t>();
}

uint32_t ShoalMap::slotCount() const { return *view_ ? view_->slotCount() : 0; }

uint64_t ShoalMap::generation() const {
  if (writer_) return writer_->file().identity().generation;
  return reader_ ? reader_->generation() : 0;
}

size_t ShoalMap::readerCount() const { return server_ ? server_->readerCount() : 0; }

}  // namespace Shoal
