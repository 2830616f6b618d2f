#include "board/chips/BoardKeeper.h"

#include <fmt/format.h>

#include <algorithm>
#include <exception>
#include <utility>

#include "Orb/EventLoop.h"
#include "Orb/Trace.h"
#include "Shoal/StatePath.h"
#include "board/chips/internal/ChipKeeper.h"
#include "board/chips/internal/ChipTables.h"
#include "board/chips/internal/NodeWatch.h"
#include "board/chips/internal/StatusSm.h"
#include "board/devices/BusRecorder.h"

namespace Board {

namespace {

Orb::TraceHandle trace("korud");

constexpr size_t mostTold = 20;  // problems of a chip, and four times as many of a board

// What is wrong with each chip, by its name.
std::map<std::string, std::string> refusals(const Description& board) {
  std::map<std::string, std::string> reasons;
  std::map<std::string, size_t> counts;
  for (const Problem& problem : board.problems) {
    if (problem.chip.empty()) continue;
    const size_t count = ++counts[problem.chip];
    if (count > mostTold) continue;
    std::string& reason = reasons[problem.chip];
    if (!reason.empty()) reason += "; ";
    reason += problem.place + ": " + problem.text;
  }
  for (const auto& [chip, count] : counts) {
    if (count > mostTold) reasons[chip] += fmt::format("; and {} more", count - mostTold);
  }
  return reasons;
}

// What stands in the way of one chip is told, and leaves the others alone.
template <class Step>
bool tryStep(const std::string& chip, Step step) {
  try {
    step();
    return true;
  } catch (const std::exception& e) {
    ORB_TRACE(trace, 0, "chip {}: {}", chip, e.what());
    return false;
  }
}

}  // namespace

// Passes on which fields are written.
class BoardKeeper::FieldObserver : public KoruRegFile::LogicalChip::Notifiee {
 public:
  FieldObserver(const Orb::Ptr<KoruRegFile::LogicalChip>& chip, BoardKeeper& keeper,
                ChipKeeper& ofChip)
      : Notifiee(chip), keeper_(keeper), ofChip_(ofChip), name_(chip->name()) {
    ofChip_.fieldsAreTold(*chip);
    hasNotificationActiveIs(true);
  }
  void onLogicalField(const KoruRegFile::LogicalFieldName& field) override {
    ofChip_.fieldChanged(*notifier(), field);
    keeper_.tellObservers([&](Observer& observer) { observer.fieldChanged(name_, field); });
  }

 private:
  BoardKeeper& keeper_;
  ChipKeeper& ofChip_;
  const std::string name_;
};

BoardKeeper::ActingFor::ActingFor(BoardKeeper& keeper, const Actor& actor)
    : acting_(keeper.acting_) {
  acting_->actor = &actor;
}

BoardKeeper::ActingFor::~ActingFor() { acting_->actor = nullptr; }

void BoardKeeper::holdRecords() { acting_->mayWait = true; }

void BoardKeeper::keepRecords() {
  acting_->mayWait = false;
  for (const auto& waiting : acting_->waiting) {
    if (const auto history = waiting.lock()) history->flush();
  }
  acting_->waiting.clear();
}

BoardKeeper::BoardKeeper(Options options)
    : options_(std::move(options)),
      acting_(std::make_shared<Acting>()),
      nodes_(std::make_unique<NodeWatch>([this](const std::string& chip) {
        const auto keeper = keepers_.find(chip);
        if (keeper != keepers_.end()) tryStep(chip, [&] { keeper->second->deviceAppeared(); });
      })),
      sm_(StatusSm::StatusSmIs()),
      backoff_(options_.delays.first, options_.delays.longest),
      lookAgain_(Orb::eventLoop(), [this] { tablesChanged(); }) {
  for (const std::string& path : {configPath("chip"), statusPath("chip")}) {
    tableWatches_.push_back(std::make_unique<Orb::DirectoryWatch>(Shoal::TablePaths(path).directory,
                                                                  [this] { tablesChanged(); }));
  }
}

BoardKeeper::~BoardKeeper() {
  observers_.clear();
  nodes_.reset();
  tableWatches_.clear();
  fieldObservers_.clear();
  keepers_.clear();
}

// Once, however often the file is read.
void BoardKeeper::tell(const Description& board) {
  std::set<std::string> all;
  size_t count = 0;
  for (const Problem& problem : board.problems) {
    const std::string message = problem.message();
    if (!told_.contains(message) && ++count <= 4 * mostTold) ORB_TRACE(trace, 0, "{}", message);
    all.insert(message);
  }
  if (count > 4 * mostTold) {
    ORB_TRACE(trace, 0, "there are {} more problems; korud --check lists them",
              count - 4 * mostTold);
  }
  told_ = std::move(all);
}

void BoardKeeper::observe(Observer& observer) {
  const auto free = std::find(observers_.begin(), observers_.end(), nullptr);
  free == observers_.end() ? observers_.push_back(&observer) : void(*free = &observer);
}

void BoardKeeper::forget(const Observer& observer) {
  std::replace_if(
      observers_.begin(), observers_.end(), [&](const Observer* each) { return each == &observer; },
      nullptr);
}

void BoardKeeper::boardIs(const Description& board) {
  tell(board);
  sm_->profilesAre(board.profiles);
  const auto reasons = refusals(board);
  std::set<std::string> present;
  for (const auto& [name, reason] : reasons) present.insert(name);
  for (const Chip& chip : board.chips) present.insert(chip.name);
  // (One without a name may be any of those that are gone.)
  for (const std::string& name : chipNames()) {
    if (present.contains(name) || (board.hasNameless && keepers_.contains(name))) continue;
    tryStep(name, [&] { takeDown(name); });
  }
  for (const auto& refusal : reasons) {
    tryStep(refusal.first, [&] { refuse(refusal.first, refusal.second); });
  }
  for (const Chip& chip : board.chips) tryStep(chip.name, [&] { describe(chip); });
}

void BoardKeeper::refuse(const std::string& chip, const std::string& reason) {
  const auto keeper = keepers_.find(chip);
  if (keeper != keepers_.end()) return keeper->second->refusalIs(reason);
  if (std::exchange(refused_[chip], reason) != reason) changed(chip);
}

void BoardKeeper::describe(const Chip& chip) {
  const auto keeper = keepers_.find(chip.name);
  if (keeper == keepers_.end() || keeper->second->description() != chip) {
    bringUp(chip);
  } else {
    keeper->second->refusalIs({});
  }
}

void BoardKeeper::bringUp(const Chip& chip) {
  if (keepers_.contains(chip.name)) {
    ORB_TRACE(trace, 1, "chip {}: described otherwise; replaced", chip.name);
    takeDown(chip.name);
  }
  refused_.erase(chip.name);
  const ChipKeeper::Callbacks callbacks{
      [this, name = chip.name] { changed(name); },
      [this, name = chip.name](const Drift& drift) {
        tellObservers([&](Observer& o) { o.chipDrifted(name, drift); });
      },
      [this, name = chip.name](const std::string& why) {
        tellObservers([&](Observer& o) { o.chipWasReset(name, why); });
      }};
  const auto& keeper = keepers_[chip.name] =
      std::make_unique<ChipKeeper>(*sm_, options_, chip, callbacks, acting_);
  const auto recorder = busRecorders_.find(chip.name);
  if (recorder != busRecorders_.end()) keeper->busRecorderIs(recorder->second);
  if (!chip.transport.device.empty()) nodes_->add(chip.name, chip.transport.device);
  keeper->bringUp();
}

void BoardKeeper::takeDown(const std::string& chip) {
  ORB_TRACE(trace, 1, "chip {}: taken down", chip);
  fieldObservers_.erase(chip);
  const Chip* const described = description(chip);
  if (described) nodes_->remove(chip, described->transport.device);
  keepers_.erase(chip);
  refused_.erase(chip);
  changed(chip);
}

void BoardKeeper::tablesChanged() {
  bool isDone = true;
  for (const std::string& name : chipNames()) {
    const auto keeper = keepers_.find(name);
    if (keeper != keepers_.end() && !keeper->second->hasItsTables()) {
      isDone = tryStep(name, [&] { makeAnew(name); }) && isDone;
    }
  }
  if (isDone) return backoff_.reset();
  lookAgain_.scheduleAfter(backoff_.next());
}

// Somebody removed the tables, with their locks. What they held is still known here.
void BoardKeeper::makeAnew(const std::string& chip) {
  ORB_TRACE(trace, 0, "chip {}: the locks of its tables were removed; brought up anew", chip);
  keepers_[chip]->saveValues();
  const Chip description = keepers_[chip]->description();
  takeDown(chip);
  bringUp(description);
}

void BoardKeeper::changed(const std::string& chip) {
  const auto logical = logicalChip(chip);
  if (logical && !fieldObservers_.contains(chip)) {
    fieldObservers_[chip] = std::make_unique<FieldObserver>(logical, *this, keeperOf(chip));
  }
  tellObservers([&](Observer& observer) { observer.chipChanged(chip); });
}

std::vector<std::string> BoardKeeper::chipNames() const {
  std::vector<std::string> names;
  for (const auto& [name, keeper] : keepers_) names.push_back(name);
  for (const auto& [name, reason] : refused_) names.push_back(name);
  std::sort(names.begin(), names.end());
  return names;
}

bool BoardKeeper::hasChip(std::string_view chip) const {
  return keepers_.contains(chip) || refused_.contains(chip);
}

std::string BoardKeeper::chipFrom(std::string_view name) const {
  const auto keeper = keepers_.lower_bound(name);
  const auto refused = refused_.lower_bound(name);
  if (keeper == keepers_.end()) return refused == refused_.end() ? std::string() : refused->first;
  if (refused == refused_.end()) return keeper->first;
  return std::min(keeper->first, refused->first);
}

const Chip* BoardKeeper::description(const std::string& chip) const {
  const auto keeper = keepers_.find(chip);
  return keeper == keepers_.end() ? nullptr : &keeper->second->description();
}

Health BoardKeeper::health(const std::string& chip) const {
  const auto keeper = keepers_.find(chip);
  if (keeper != keepers_.end()) return keeper->second->health();
  Health health;
  health.state = ChipState::refused;
  const auto refused = refused_.find(chip);
  if (refused != refused_.end()) health.reason = refused->second;
  return health;
}

ChipKeeper& BoardKeeper::keeperOf(const std::string& chip) const {
  const auto keeper = keepers_.find(chip);
  if (keeper == keepers_.end()) throw std::runtime_error("there is no chip '" + chip + "'");
  return *keeper->second;
}

const AccessCounts* BoardKeeper::accesses(std::string_view chip) const {
  const auto keeper = keepers_.find(chip);
  return keeper == keepers_.end() ? nullptr : &keeper->second->accesses();
}

const Field* BoardKeeper::field(std::string_view chip, std::string_view reg,
                                std::string_view field) const {
  const auto keeper = keepers_.find(chip);
  return keeper == keepers_.end() ? nullptr : keeper->second->fields().field(reg, field);
}

const StatusField* BoardKeeper::statusField(std::string_view chip, std::string_view reg,
                                            std::string_view field) const {
  const auto keeper = keepers_.find(chip);
  return keeper == keepers_.end() ? nullptr : keeper->second->fields().statusField(reg, field);
}

const FieldIndex* BoardKeeper::fields(std::string_view chip) const {
  const auto keeper = keepers_.find(chip);
  return keeper == keepers_.end() ? nullptr : &keeper->second->fields();
}

const Verification* BoardKeeper::verification(std::string_view chip) const {
  const auto keeper = keepers_.find(chip);
  return keeper == keepers_.end() ? nullptr : &keeper->second->verification();
}

std::weak_ptr<const void> BoardKeeper::lifeOf(std::string_view chip) const {
  const auto keeper = keepers_.find(chip);
  return keeper == keepers_.end() ? std::weak_ptr<const void>() : keeper->second->life();
}

WritePlan BoardKeeper::plan(const std::string& chip, const std::vector<FieldWrite>& writes,
                            RegisterOrder order) const {
  return keeperOf(chip).plan(writes, order);
}

void BoardKeeper::write(const std::string& chip, const WritePlan& plan,
                        KoruRegFile::AccessCallback done) {
  struct Sent {
    Orb::String reg;
    Orb::String field;
    uint32_t value;
  };
  std::vector<Sent> sent;
  for (const FieldChange& change : plan.fields) {
    if (!isSentOnce(change.field->kind) || change.value == 0) continue;
    sent.push_back({change.field->logicalRegister, change.field->logicalField, change.value});
  }
  keeperOf(chip).write(plan, [this, chip, sent = std::move(sent),
                              done = std::move(done)](const KoruRegFile::AccessOutcome& outcome) {
    for (const Sent& one : sent) {
      if (!outcome.isDone()) break;
      tellObservers(
          [&](Observer& observer) { observer.fieldSent(chip, one.reg, one.field, one.value); });
    }
    if (done) done(outcome);
  });
}

namespace {

KoruRegFile::AccessCallback orNothing(KoruRegFile::AccessCallback done) {
  if (done) return done;
  return [](const KoruRegFile::AccessOutcome&) {};
}

}  // namespace

void BoardKeeper::rewrite(const std::string& chip, KoruRegFile::AccessCallback done) {
  keeperOf(chip).rewrite(orNothing(std::move(done)));
}

void BoardKeeper::rewrite(const std::string& chip, std::vector<uint32_t> addresses,
                          KoruRegFile::AccessCallback done) {
  keeperOf(chip).rewrite(std::move(addresses), orNothing(std::move(done)));
}

std::string BoardKeeper::whyUnsafe(const std::string& chip, uint64_t round) {
  const auto keeper = keepers_.find(chip);
  return keeper == keepers_.end() ? std::string() : keeper->second->whyUnsafe(round);
}

BusRecorder& BoardKeeper::busRecorder(const std::string& chip) {
  auto& recorder = busRecorders_[chip];
  if (!recorder) {
    recorder = std::make_shared<BusRecorder>([this, chip](const BusAccess& access, uint64_t n) {
      tellObservers([&](Observer& observer) { observer.busAccessed(chip, access, n); });
    });
  }
  const auto keeper = keepers_.find(chip);
  if (keeper != keepers_.end()) keeper->second->busRecorderIs(recorder);
  return *recorder;
}

void BoardKeeper::settle(std::chrono::milliseconds limit) const {
  using Clock = std::chrono::steady_clock;
  const auto end = Clock::now() + limit;
  const auto isBusy = [](const auto& keeper) { return keeper.second->health().inFlight != 0; };
  while (std::any_of(keepers_.begin(), keepers_.end(), isBusy) && Clock::now() < end) {
    Orb::eventLoop().runFor(end - Clock::now());
  }
}

Orb::Ptr<KoruRegFile::LogicalChip> BoardKeeper::logicalChip(const std::string& chip) const {
  return sm_->logicalModel()->chip(chip);
}

Orb::Ptr<KoruRegFile::TransportMethod> BoardKeeper::transport(const std::string& chip) const {
  return sm_->physicalModel()->transport(chip);
}

Orb::Ptr<KoruRegFile::ShadowFieldsSm> BoardKeeper::shadowSm(const std::string& chip) const {
  return sm_->physicalModel()->shadowSm(chip);
}

}  // namespace Board
