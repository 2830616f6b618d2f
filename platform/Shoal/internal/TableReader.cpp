#include "Shoal/internal/TableReader.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <iterator>
#include <system_error>
#include <utility>

#include "Brio/CorruptionDetectedException.h"
#include "Orb/Trace.h"

namespace Shoal {

namespace {

Orb::TraceHandle trace("Shoal");

// So many rounds of catching up before others on the event loop get their turn.
constexpr int roundsInARow = 16;

// About a microsecond. A writer that is at it makes another change meanwhile: its reader then
// spares it the look at a shared line after every change, and the wake-up. The longer the writer
// stays at it, the longer it is left alone.
constexpr int lingerPauses = 32;
constexpr int longestLinger = 8;

// A connection that has held for so long was a sound one.
constexpr std::chrono::seconds soundConnection(5);

// Waits without a look at the table, the longer the more rounds there were in a row.
void linger(int round) {
  for (int i = 0; i < lingerPauses * std::min(round + 1, longestLinger); ++i) {
#if defined(__x86_64__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield");
#endif
  }
}

// The keys whose values differ between two tables, either of which may be missing.
std::vector<uint64_t> differences(const TableView* before, const TableView* after) {
  std::vector<uint64_t> keys;
  const auto sameIn = [](const TableView* other, const TableView::Entry& entry) {
    if (!other) return false;
    const TableView::Entry found = other->find(entry.key);
    return found.state == SlotState::present && found.value == entry.value;
  };
  const auto collect = [&](const TableView* from, const TableView* other, bool onlyMissing) {
    TableView::Entry entry;
    for (uint32_t index = 0; from && index < from->slotCount(); ++index) {
      // Damage is met, and told, by whoever reads the slot.
      if (!from->read(index, entry) || entry.state != SlotState::present) continue;
      try {
        if (sameIn(other, entry)) continue;
        if (onlyMissing && other && other->find(entry.key).state == SlotState::present) continue;
      } catch (const Brio::CorruptionDetectedException&) {
      }
      keys.push_back(entry.key);
    }
  };
  collect(before, after, true);
  collect(after, before, false);
  return keys;
}

}  // namespace

TableReader::TableReader(const TablePaths& paths, std::string typeName, Callbacks callbacks)
    : paths_(paths),
      typeName_(std::move(typeName)),
      callbacks_(std::move(callbacks)),
      backoff_(std::chrono::milliseconds(10), std::chrono::milliseconds(5000)),
      again_(Orb::eventLoop(), [self = this] { self->woken(); }) {}

void TableReader::open() {
  checkDirectories(paths_);
  file_ = TableFile::open(paths_.table, typeName_, TableFile::Access::read);
  if (file_) view_ = file_->view();
  if (file_) cursor_ = file_->view().header().head.load(std::memory_order_acquire);
  // Watched before anything is looked for, so that nothing appears unseen.
  directoryWatch_ =
      std::make_unique<Orb::DirectoryWatch>(paths_.directory, [self = this] { self->lookAgain(); });
  closed_ = false;
  status_ = file_ ? MountStatus::detached : MountStatus::waiting;
  attach();
}

void TableReader::close() {
  closed_ = true;
  socketWatch_.reset();
  bellWatch_.reset();
  retry_.reset();
  directoryWatch_.reset();
  socket_.reset();
  status_ = MountStatus::unmounted;
}

// Connects to the writer, if there is one; its answer comes through the event loop.
void TableReader::attach() {
  const SocketId present = socketAt(paths_.socket);
  // A child that a killed writer has left behind may hold on to the connection of that one.
  if (socket_ && present != SocketId() && present != attachedTo_) detach();
  if (closed_ || socket_ || (retry_ && present == attachedTo_)) return;
  retry_.reset();
  if (present != attachedTo_) backoff_.reset();
  attachedTo_ = present;
  if (present == SocketId()) return;
  if (const int error = connect()) retryLater(std::generic_category().message(error));
}

// Why it may work later; 0 when it has, or when there is no use in that. Nobody listens at what a
// killed writer has left behind, or this reader may not connect: then the directory tells of the
// next writer.
int TableReader::connect() {
  Orb::Descriptor socket = connectTo(paths_.socket);
  if (!socket) {
    constexpr int shortages[] = {EAGAIN, EINTR, EMFILE, ENFILE, ENOBUFS, ENOMEM};
    const bool isShort =
        std::find(std::begin(shortages), std::end(shortages), errno) != std::end(shortages);
    return isShort ? errno : 0;
  }
  try {
    memory_ = ReaderMemory::make();
  } catch (const std::system_error& e) {
    return e.code().value();
  }
  if (!sendWith(socket.get(), readerGreeting, memory_.fd())) return errno;
  socket_ = std::move(socket);
  socketWatch_ = Orb::eventLoop().readable(socket_.get(), [self = this] { self->heardWriter(); });
  return 0;
}

// Says why, unless it has been said or there is nothing to say.
void TableReader::retryLater(const std::string& why) {
  if (backoff_.isFresh() && !why.empty()) {
    ORB_TRACE(trace, 0, "{}: the writer has not accepted this reader: {}", paths_.mountPath, why);
  }
  retry_ = Orb::eventLoop().after(backoff_.next(), [self = this] {
    const auto done = std::move(self->retry_);
    self->lookAgain();
  });
}

// The answer, or the end; anything more ends it, too.
void TableReader::heardWriter() {
  const auto keep = shared_from_this();
  Orb::Descriptor bell;
  const Received answer = receiveWith(socket_.get(), writerAnswer, bell);
  if (answer == Received::nothing) return;
  if (answer == Received::other || accepted_ || !Bell::take(bell.get())) return hungUp();
  bell_ = std::move(bell);
  bellWatch_ = Orb::eventLoop().readable(bell_.get(), [self = this] { self->woken(); });
  accepted_ = true;
  acceptedAt_ = std::chrono::steady_clock::now();
  lookAgain();
  if (!closed_ && file_ && accepted_) statusIs(MountStatus::attached);
  again_.schedule();
}

void TableReader::hungUp() {
  const bool wasSound =
      accepted_ && std::chrono::steady_clock::now() - acceptedAt_ > soundConnection;
  if (wasSound) backoff_.reset();
  // It has no room, or is dying.
  retryLater(accepted_ ? "" : "it has hung up");
  detach();
  // Perhaps another writer is there already.
  if (!closed_) lookAgain();
  // The one that is gone may have changed something without the time to wake its readers.
  again_.schedule();
}

void TableReader::detach() {
  socketWatch_.reset();
  bellWatch_.reset();
  bell_.reset();
  socket_.reset();
  accepted_ = false;
  memory_ = ReaderMemory();
  quiescedIs(false);
  if (closed_) return;
  statusIs(file_ ? MountStatus::detached : MountStatus::waiting);
}

// Something has happened in the directory: a writer may have come, the file may be another one.
void TableReader::lookAgain() {
  const auto keep = shared_from_this();
  if (!file_ || !file_->isAt(paths_.table)) {
    try {
      checkDirectories(paths_);
      auto next = TableFile::open(paths_.table, typeName_, TableFile::Access::read);
      refusal_.clear();
      if (next) switchFile(std::move(next));
    } catch (const std::exception& e) {
      // The contents that were there go on being served.
      if (refusal_ != e.what()) ORB_TRACE(trace, 0, "{}: {}", paths_.mountPath, e.what());
      refusal_ = e.what();
    }
  }
  if (!closed_) attach();
}

void TableReader::switchFile(std::unique_ptr<TableFile> next) {
  // The previous file may hold changes that were not told yet; what it holds now is then compared.
  std::vector<uint64_t> keys;
  if (file_) {
    const TableView& view = file_->view();
    keys = newerKeys(view, view.header().head.load(std::memory_order_seq_cst));
  }
  const auto previous = std::exchange(file_, std::move(next));
  view_ = file_->view();
  // What changes from here on is newer than the cursor.
  cursor_ = file_->view().header().head.load(std::memory_order_seq_cst);
  for (const uint64_t key : differences(previous ? &previous->view() : nullptr, &file_->view())) {
    keys.push_back(key);
  }
  std::sort(keys.begin(), keys.end());
  keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
  statusIs(accepted_ ? MountStatus::attached : MountStatus::detached);
  if (!closed_) tellAll(keys);
}

void TableReader::woken() {
  const auto keep = shared_from_this();
  try {
    for (int round = 0; round < roundsInARow; ++round) {
      if (catchUp(round)) return;
    }
  } catch (...) {
    // What was not told yet is told in the next turn of the loop.
    if (!closed_) again_.schedule();
    throw;
  }
  again_.schedule();
}

// Tells what is new and goes to sleep; false when there is more already.
bool TableReader::catchUp(int round) {
  if (closed_) return true;
  const TableFile* const looked = file_ && file_->isSuperseded() ? file_.get() : nullptr;
  if (looked) lookAgain();
  if (closed_) return true;
  if (!file_) return drain(), true;
  // A successor that cannot be had, or that there is not: the directory tells when there is one.
  const bool stays = file_.get() == looked;
  TableHeader& header = file_->view().header();
  const uint64_t head = header.head.load(std::memory_order_seq_cst);
  const bool told = head != cursor_;
  if (told) {
    quiescedIs(false);
    if (!closed_) tell(cursor_ + 1, head);
  }
  const char* const damage = closed_ || status_ == MountStatus::damaged ? nullptr : file_->damage();
  if (damage) accessFailed(fmt::format("{}: {}", paths_.mountPath, damage));
  if (closed_) return true;
  // Only now: whoever waits for what was told has waited for nothing else. What is signalled from
  // here on is seen below.
  drain();
  if (!accepted_) return true;
  if (told) {
    linger(round);
    if (header.head.load(std::memory_order_relaxed) != cursor_) return false;
  }
  ReaderState& state = *memory_.state();
  state.cursor.store(cursor_, std::memory_order_relaxed);
  state.armed.store(1, std::memory_order_seq_cst);
  if (header.head.load(std::memory_order_seq_cst) == cursor_ && (stays || !file_->isSuperseded())) {
    quiescedIs(true);
    return true;
  }
  state.armed.store(0, std::memory_order_relaxed);
  return false;
}

void TableReader::drain() {
  if (accepted_) Bell::take(bell_.get());
}

void TableReader::tell(uint64_t first, uint64_t last) {
  const TableFile* const file = file_.get();
  const TableView& view = file_->view();
  const uint64_t ringCount = file_->identity().ringCount;
  if (last < first || last - first >= ringCount) return scan(last);
  for (uint64_t sequence = first; sequence <= last; ++sequence) {
    const uint64_t entry = view.ringEntry(sequence).load(std::memory_order_acquire);
    // The writer has come round, or the entry is damaged: the slots know.
    if (!ringEntryIsOf(entry, sequence) || ringEntrySlot(entry) >= view.slotCount()) {
      return scan(last);
    }
    cursor_ = sequence;
    tellSlot(ringEntrySlot(entry));
    if (closed_ || file_.get() != file) return;
  }
}

// The keys of all slots that were changed after the cursor. A head that has gone back is damage, or
// the work of a writer that started anew; one that is too far ahead leaves the slots' halves of
// their sequence numbers without meaning: then all of them. Damage is reported.
std::vector<uint64_t> TableReader::newerKeys(const TableView& view, uint64_t head) {
  const bool all = head - cursor_ >= sequenceHorizon;
  std::vector<uint64_t> keys;
  TableView::Entry entry;
  for (uint32_t index = 0; index < view.slotCount(); ++index) {
    const uint32_t sequence = view.slotSequence(index).load(std::memory_order_acquire);
    if (!all && !isNewer(sequence, cursor_)) continue;
    if (!view.read(index, entry)) {
      accessFailed(fmt::format("{}: slot {} is damaged", paths_.mountPath, index));
      if (closed_) break;
    } else if (entry.state != SlotState::empty) {
      keys.push_back(entry.key);
    }
  }
  return keys;
}

// Tells every slot that is newer than the cursor.
void TableReader::scan(uint64_t head) {
  const auto keys = newerKeys(file_->view(), head);
  cursor_ = head;
  tellAll(keys);
}

void TableReader::tellSlot(uint32_t index) {
  TableView::Entry entry;
  if (!file_->view().read(index, entry)) {
    return accessFailed(fmt::format("{}: slot {} is damaged", paths_.mountPath, index));
  }
  if (entry.state != SlotState::empty) callbacks_.changed(entry.key);
}

// Tells all of them even when a callback throws; the first exception then goes on.
void TableReader::tellAll(const std::vector<uint64_t>& keys) {
  std::exception_ptr failure;
  for (const uint64_t key : keys) {
    if (closed_) break;
    try {
      callbacks_.changed(key);
    } catch (...) {
      if (!failure) failure = std::current_exception();
    }
  }
  if (failure) std::rethrow_exception(failure);
}

void TableReader::accessFailed(const std::string& message) {
  const bool known = status_ == MountStatus::damaged;
  callbacks_.corrupted(message);
  if (!known && !closed_) statusIs(MountStatus::damaged);
}

void TableReader::statusIs(MountStatus status) {
  if (status_ == status) return;
  status_ = status;
  callbacks_.statusChanged();
}

void TableReader::quiescedIs(bool quiesced) {
  if (quiesced_ == quiesced) return;
  quiesced_ = quiesced;
  callbacks_.quiesced(quiesced);
}

}  // namespace Shoal
