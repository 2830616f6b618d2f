#include "board/devices/ReplayTransport.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <utility>

#include "Keel/GenericSigbusHandler.h"
#include "Orb/Printable.h"

namespace Board {

using KoruRegFile::TransportError;
using Kind = Recorded::Kind;

ReplayDeparture::~ReplayDeparture() = default;

namespace {

std::string chipIn(const std::vector<Recorded>& records, const ReplaySource& source) {
  std::set<std::string> chips;
  for (const Recorded& record : records) {
    if (record.kind != Kind::end) chips.insert(record.chip);
  }
  const std::string& wanted = source.chip.empty() ? source.name : source.chip;
  if (chips.contains(wanted)) return wanted;
  if (source.chip.empty() && chips.size() == 1) return *chips.begin();
  std::string names = Orb::printable(fmt::format("{}", fmt::join(chips, ", ")));
  if (names.empty()) names = "none";
  throw RecordingError(
      fmt::format("{} has no chip '{}'; it has {}{}", source.path, Orb::printable(wanted), names,
                  source.chip.empty() ? ", of which 'chip=NAME' behind the file names one" : ""));
}

std::vector<Recorded> recordsOf(const ReplaySource& source) {
  std::vector<Recorded> records = readRecording(source.path);
  const std::string chip = chipIn(records, source);
  std::erase_if(records, [&](const Recorded& record) {
    return record.kind != Kind::end && record.chip != chip;
  });
  return records;
}

std::string textOf(const Recorded& record) {
  return accessText(record.kind == Kind::write, record.reg, record.value);
}

// What the access came to.
uint32_t answered(const Recorded& record) {
  if (!record.failure) return record.value;
  if (record.failure->isBusError) throw Keel::GenericSigbusHandler::SigbusException();
  throw TransportError(record.failure->reason, record.failure->error);
}

}  // namespace

ReplayTransport::ReplayTransport(const ReplaySource& source)
    : BaseTransportMethodImpl(source.registerMap.c_str(), addrBlockSize, source.registers),
      path_(source.path),
      records_(recordsOf(source)),
      recorded_(Orb::String(source.name), "recorded"),
      replayed_(Orb::String(source.name), "replayed") {
  for (const Recorded& record : records_) take(record);
}

ReplayTransport::~ReplayTransport() = default;

void ReplayTransport::take(const Recorded& record) {
  if (record.kind == Kind::holds) {
    held_[record.reg] = record.value;
    unwritten_.insert(record.reg);
    known_[record.reg] = &record;
  } else if (record.kind == Kind::unasked) {
    unasked_[record.reg];
  } else if (const auto found = unasked_.find(record.reg);
             record.kind == Kind::read && found != unasked_.end()) {
    found->second.reads.push_back({&record, order_.size()});
  } else {
    order_.push_back(&record);
    if (record.kind == Kind::read || record.kind == Kind::write) recorded_.increment();
  }
}

uint32_t ReplayTransport::regRead(const char* regName) {
  if (departure_) throw ReplayDeparture(*departure_);
  const auto found = unasked_.find(std::string_view(regName));
  if (found != unasked_.end()) return readUnasked(found->second, found->first);
  return answered(expect(false, regName, 0));
}

void ReplayTransport::regWrite(const char* regName, uint32_t value) {
  if (departure_) throw ReplayDeparture(*departure_);
  const auto held = held_.find(std::string_view(regName));
  if (!unwritten_.empty() && held != held_.end() && held->second == value) {
    unwritten_.erase(held->first);
    return;
  }
  answered(expect(true, regName, value));
}

const Recorded& ReplayTransport::expect(bool isWrite, std::string_view reg, uint32_t value) {
  const Recorded& next = *order_[next_];
  const std::string came = accessText(isWrite, reg, value);
  if (next.kind == Kind::end) depart("the end of the recording", came, next.line);
  if (next.kind == Kind::gap) {
    depart(fmt::format("{} accesses that were not recorded", next.missing), came, next.line);
  }
  const bool isIt =
      isWrite == (next.kind == Kind::write) && reg == next.reg && (!isWrite || value == next.value);
  const auto held = held_.find(reg);
  if (!isIt && next_ == 0 && isWrite && held != held_.end()) {
    depart(
        fmt::format("{}, or {} as it was held", textOf(next), accessText(true, reg, held->second)),
        came, next.line);
  }
  if (!isIt) depart(textOf(next), came, next.line);
  unwritten_.clear();
  passUnasked();
  ++next_;
  replayed_.increment();
  if (isWrite && !next.failure) known_.insert_or_assign(next.reg, &next);
  return next;
}

// Those that stand before the next record, which is answered now.
void ReplayTransport::passUnasked() {
  for (auto& [reg, unasked] : unasked_) {
    while (unasked.next < unasked.reads.size() && unasked.reads[unasked.next].place <= next_) {
      known_[reg] = unasked.reads[unasked.next++].record;
    }
  }
}

uint32_t ReplayTransport::readUnasked(Unasked& unasked, const std::string& reg) {
  const bool isThere =
      unasked.next < unasked.reads.size() && unasked.reads[unasked.next].place <= next_;
  if (isThere) known_[reg] = unasked.reads[unasked.next++].record;
  const auto known = known_.find(reg);
  if (known != known_.end()) return answered(*known->second);
  depart(textOf(*order_[next_]), accessText(false, reg, 0), order_[next_]->line);
}

void ReplayTransport::depart(const std::string& expected, const std::string& came, size_t line) {
  departure_ = std::make_unique<ReplayDeparture>(
      fmt::format("departs from {}:{}, record {}: {} was expected, and {} came", path_, line,
                  next_ + 1, expected, came),
      next_ + 1);
  throw ReplayDeparture(*departure_);
}

}  // namespace Board
