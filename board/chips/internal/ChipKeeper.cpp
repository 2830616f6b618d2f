#include "board/chips/internal/ChipKeeper.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <exception>
#include <stdexcept>
#include <utility>
#include <vector>

#include "KoruRegFile/ShadowSms.h"
#include "Orb/Trace.h"
#include "Shoal/StatePath.h"
#include "board/chips/WantedRegisters.h"
#include "board/chips/internal/ChipTables.h"
#include "board/chips/internal/LogicalChipOf.h"
#include "board/devices/TransportKind.h"

namespace Board {

namespace {

Orb::TraceHandle trace("korud");

// Tells a file from another one of that name; 0 when there is none.
uint64_t nodeOf(const std::string& path) {
  struct stat status;
  return ::lstat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

std::map<std::string, int, std::less<>> ranksOf(const WriteOrder& order) {
  std::map<std::string, int, std::less<>> ranks;
  int rank = -static_cast<int>(order.first.size());
  for (const std::string& reg : order.first) ranks[reg] = rank++;
  rank = 1;
  for (const std::string& reg : order.last) ranks[reg] = rank++;
  return ranks;
}

}  // namespace

class ChipKeeper::ErrorObserver : public KoruRegFile::TransportMethodError::Notifiee {
 public:
  ErrorObserver(const Orb::Ptr<KoruRegFile::TransportMethodError>& error, ChipKeeper& owner)
      : Notifiee(error), owner_(owner) {
    hasNotificationActiveIs(true);
  }
  void onError() override {
    if (notifier()->error()) owner_.writeFailed();
  }

 private:
  ChipKeeper& owner_;
};

// One pass over all configured registers. Its callbacks may come late, or never.
struct ChipKeeper::Pass {
  size_t pending = 1;  // one for the loop that makes them
  size_t failed = 0;
  std::string why;  // the last one failed
};

ChipKeeper::ChipKeeper(StatusSm& sm, const Options& options, Chip description, Callbacks callbacks,
                       std::shared_ptr<Acting> acting)
    : sm_(sm),
      description_(std::move(description)),
      files_(options.stateDirectory, description_.name),
      delays_(options.delays),
      openTransport_(options.openTransport),
      callbacks_(std::move(callbacks)),
      index_(description_),
      verification_(description_),
      history_(std::make_shared<ChipHistory>(historyPath(options.stateDirectory, description_.name),
                                             options.history, std::move(acting))),
      ranks_(ranksOf(description_.order)),
      writer_(files_),
      delay_(delays_.first) {}

// With writes in flight the mark stays: they are dropped.
ChipKeeper::~ChipKeeper() {
  if (posting_) posting_->observerIs({});
  if (!passEnds_.empty()) {
    Orb::eventLoop().defer([ends = std::move(passEnds_)] {
      const KoruRegFile::TransportFailure failure{.reason = "the chip was taken down"};
      for (const auto& done : ends) done({.failure = failure});
    });
  }
  readBack_.reset();
  differing_.reset();
  pass_.reset();
  timer_.reset();
  errorObserver_.reset();
  noteValues();
  sm_.remove(description_);
  // Whoever waits for an access may hold the transport; what it has not carried out ends here.
  if (transport_) transport_->implPtrIs(nullptr);
  history_->close();
}

void ChipKeeper::stateIs(ChipState state, const std::string& reason) {
  health_.state = state;
  health_.reason = reason.empty() ? refusal_ : reason;
  callbacks_.healthChanged();
}

void ChipKeeper::refusalIs(const std::string& reason) {
  if (refusal_ == reason) return;
  if (health_.reason == refusal_) health_.reason = reason;
  refusal_ = reason;
  callbacks_.healthChanged();
}

void ChipKeeper::again(void (ChipKeeper::*step)()) {
  ++health_.attempts;
  timer_ = Orb::eventLoop().after(delay_, [this, step] {
    const auto timer = std::move(timer_);
    (this->*step)();
  });
  delay_ = std::min(2 * delay_, delays_.longest);
}

void ChipKeeper::bringUp() { tryToBringUp(); }

void ChipKeeper::tryToBringUp() {
  bringingUp_ = true;
  const ChipHistory::Because because(*history_, WrittenFor::bringUp);
  try {
    sm_.add(description_, makeParts());
    tableIsWhole();
  } catch (const std::exception& e) {
    bringingUp_ = false;
    release();
    ORB_TRACE(trace, 0, "chip {}: {}; tried again in {} ms", description_.name, e.what(),
              delay_.count());
    again(&ChipKeeper::tryToBringUp);
    whyUnsafe();
    return stateIs(ChipState::failed, e.what());
  }
  bringingUp_ = false;
  release();
  health_.attempts = 0;
  delay_ = delays_.first;
  startUpkeep();
  whyRewritten_ = WrittenFor::bringUp;
  if (rewriteDue_) return startPass();
  whyRewritten_ = WrittenFor::rewrite;
  stateIs(ChipState::up);
}

// The configuration table holds everything again once there is somebody who writes to it.
void ChipKeeper::tableIsWhole() {
  if (!isSaved_ || !sm_.logicalModel()->writeSm(description_.name)) return;
  files_.namesAre(keptFields(description_));
  files_.savedDel();
  files_.togetherDel();
  isSaved_ = false;
}

ChipParts ChipKeeper::makeParts() {
  ChipParts parts;
  if (!sm_.logicalModel()->chip(description_.name)) {
    isSaved_ = true;
    const MadeChip made = logicalChipOf(description_, files_, sm_.shmemEntityManager());
    marked_ = rewriteDue_ = made.rewrite;
    noteLocks();
    parts.logicalChip = made.chip;
  }
  try {
    if (!sm_.physicalModel()->transport(description_.name)) makeTransport();
    parts.transport = transport_;
  } catch (...) {
    parts.whyNoTransport = std::current_exception();
  }
  return parts;
}

void ChipKeeper::makeTransport() {
  posting_ = nullptr;
  transport_ = KoruRegFile::transportMethodFactory(description_.name);
  transport_->accessObserverIs(history_);
  open();
  errorObserver_ =
      std::make_unique<ErrorObserver>(transport_->errorNotifierIs(description_.name), *this);
}

void ChipKeeper::open() {
  posting_ = openTransport_(*transport_, description_);
  health_.inFlight = 0;
  if (posting_) posting_->observerIs([this] { inFlightChanged(); });
  isTapped_ = false;
  if (busRecorder_ && busRecorder_->isWanted()) tapBus();
  if (bringingUp_) hold();
}

void ChipKeeper::hold() {
  if (posting_ && !ranks_.empty()) posting_->hold();
}

void ChipKeeper::release() {
  if (!posting_ || ranks_.empty()) return;
  posting_->release([this](const char* reg, const char* other) { return isBefore(reg, other); });
}

bool ChipKeeper::isBefore(const char* reg, const char* other) const {
  const auto rankOf = [this](const char* name) {
    const auto found = ranks_.find(name);
    return found == ranks_.end() ? 0 : found->second;
  };
  return rankOf(reg) < rankOf(other);
}

void ChipKeeper::inFlightChanged() {
  health_.inFlight = posting_->inFlight();
  updateMark();
}

void ChipKeeper::updateMark() {
  const bool wanted = rewriteDue_ || health_.inFlight != 0;
  if (wanted == marked_) return;
  try {
    files_.dirtyIs(wanted);
    marked_ = wanted;
    whyUnmarked_.clear();
  } catch (const std::exception& e) {
    if (std::exchange(whyUnmarked_, e.what()) == e.what()) return;
    ORB_TRACE(trace, 0, "chip {}: a restart will not know whether it has to be rewritten: {}",
              description_.name, e.what());
  }
}

std::string ChipKeeper::whyUnsafe(uint64_t round) {
  if (round == 0 || round != seenRound_) {
    if (!hasItsTables()) return "its tables were removed under the agent; they are made anew";
    seenRound_ = round;
  }
  if (const std::string why = writer_.whyLeft(); !why.empty()) return why;
  try {
    tableIsWhole();
  } catch (const std::exception& e) {
    return e.what();
  }
  updateMark();
  const bool isSafe = marked_ || (!rewriteDue_ && health_.inFlight == 0);
  return isSafe ? std::string() : whyUnmarked_;
}

void ChipKeeper::noteLocks() {
  locks_.clear();
  for (const std::string& path : {configPath(description_.name), statusPath(description_.name)}) {
    const std::string lock = Shoal::TablePaths(path).lock;
    locks_.emplace_back(lock, nodeOf(lock));
  }
}

bool ChipKeeper::hasItsTables() const {
  return std::all_of(locks_.begin(), locks_.end(),
                     [](const auto& lock) { return nodeOf(lock.first) == lock.second; });
}

std::vector<KeptField> ChipKeeper::heldFields(const KoruRegFile::LogicalChip& chip) const {
  std::vector<KeptField> held = keptFields(description_);
  for (KeptField& field : held) {
    field.value = chip.shadowFieldsConfig()->field(field.value.key());
  }
  return held;
}

void ChipKeeper::saveValues() const {
  const auto chip = sm_.logicalModel()->chip(description_.name);
  if (!chip) return;
  files_.prepare();
  files_.savedIs(heldFields(*chip));
  files_.dirtyIs(true);
}

// For an agent of another version, which may not know the tables.
void ChipKeeper::noteValues() const {
  const auto chip = sm_.logicalModel()->chip(description_.name);
  if (!chip || isSaved_) return;
  try {
    files_.namesAre(heldFields(*chip));
  } catch (const std::exception& e) {
    ORB_TRACE(trace, 0, "chip {}: its values are in its tables only: {}", description_.name,
              e.what());
  }
}

void ChipKeeper::writeFailed() {
  ++health_.failedWrites;
  rewriteDue_ = true;
  updateMark();
  // While it is brought up, or passed over, that looks at what is due in the end.
  if (bringingUp_ || pass_ || timer_) return;
  const std::string what =
      "a register write failed: " + explained(description_.transport, transport_->lastFailure());
  ORB_TRACE(trace, 0, "chip {}: {}; rewritten in {} ms", description_.name, what, delay_.count());
  again(&ChipKeeper::startPass);
  stateIs(ChipState::rewriting, what);
}

// A device that has gone comes back behind a new node.
void ChipKeeper::reopen() {
  try {
    open();
  } catch (const std::exception& e) {
    return passFailed(e.what());
  }
  startPass();
}

void ChipKeeper::startPass() {
  const ChipHistory::Because because(*history_, whyRewritten_);
  const auto transport = transport_;
  const auto shadowSm = sm_.physicalModel()->shadowSm(description_.name);
  transport->errorNotifierIs(description_.name)->errorIs(false);
  ++health_.rewrites;
  stateIs(ChipState::rewriting, health_.reason);
  auto registers = wantedRegisters(*shadowSm);
  if (!ranks_.empty()) {
    std::stable_sort(registers.begin(), registers.end(), [&](const auto& a, const auto& b) {
      return isBefore(transport->regAddrToName(a.first).c_str(),
                      transport->regAddrToName(b.first).c_str());
    });
  }
  const auto pass = pass_ = std::make_shared<Pass>();
  const auto ended = [this, weak = std::weak_ptr(pass)](const KoruRegFile::AccessOutcome& outcome) {
    const auto ending = weak.lock();
    if (!ending) return;
    if (!outcome.isDone()) {
      ++ending->failed;
      ending->why = Board::explained(description_.transport, *outcome.failure);
    }
    if (--ending->pending == 0)
      passEnded(*ending);
    else
      health_.pendingWrites = ending->pending;
  };
  for (const auto& [address, value] : registers) {
    ++pass->pending;
    transport->regWriteOutcome(transport->regAddrToName(address), value, ended);
  }
  ended({});
}

void ChipKeeper::passEnded(const Pass& pass) {
  const size_t failed = pass.failed;
  const std::string why = pass.why;
  pass_.reset();
  health_.pendingWrites = 0;
  if (failed == 0 && !transport_->errorNotifierIs(description_.name)->error()) {
    rewriteDue_ = false;
    whyRewritten_ = WrittenFor::rewrite;
    updateMark();
    health_.attempts = 0;
    delay_ = delays_.first;
    ORB_TRACE(trace, 1, "chip {}: rewritten", description_.name);
    stateIs(ChipState::up);
    return tellPassEnds({});
  }
  if (failed == 0) {
    return passFailed("a register write failed: " +
                      explained(description_.transport, transport_->lastFailure()));
  }
  passFailed(
      fmt::format("{} registers could not be written{}{}", failed, why.empty() ? "" : ": ", why));
}

void ChipKeeper::passFailed(const std::string& what) {
  ORB_TRACE(trace, 0, "chip {}: {}; tried again in {} ms", description_.name, what, delay_.count());
  const bool isDevice = !description_.transport.device.empty();
  again(isDevice ? &ChipKeeper::reopen : &ChipKeeper::startPass);
  stateIs(ChipState::rewriting, what);
  tellPassEnds({.failure = KoruRegFile::TransportFailure{.reason = what}});
}

void ChipKeeper::tellPassEnds(const KoruRegFile::AccessOutcome& outcome) {
  for (const auto& done : std::exchange(passEnds_, {})) done(outcome);
}

}  // namespace Board
