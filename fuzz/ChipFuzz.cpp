// Writes to the fields of a chip, deletions and restarts, beside a plain model of it: the registers
// hold the same bits, the tables the same values, and the same writes went over the bus.

#include <algorithm>
#include <map>
#include <utility>
#include <vector>

#include "KoruRegFile/LogicalSms.h"
#include "KoruRegFile/ShadowSms.h"
#include "Orb/Trace.h"
#include "fuzz/Input.h"
#include "testing/StateDirectory.h"
#include "testing/TempFile.h"

namespace {

using namespace KoruRegFile;
using Writes = std::vector<std::pair<uint32_t, uint32_t>>;

struct Place {
  const char* name;
  uint32_t address;
  uint8_t start;
  uint8_t size;
  ShadowFieldKey key() const { return {address, start, size}; }
};
constexpr Place places[] = {{"whole", 0, 0, 32}, {"low", 1, 0, 1},   {"middle", 1, 1, 30},
                            {"high", 1, 31, 1},  {"left", 2, 0, 16}, {"right", 2, 16, 16},
                            {"odd", 3, 5, 7}};
constexpr size_t registers = 4;
constexpr const char* map =
    "number,name,type,writeable,width\n"
    "0,R0,cfg,true,32\n1,R1,cfg,true,32\n2,R2,cfg,true,32\n3,R3,cfg,true,32\n";

class Bus : public BaseTransportMethodImpl {
 public:
  Bus(const char* csv, Writes& writes)
      : BaseTransportMethodImpl(csv, 1, nullptr), writes_(writes) {}
  uint32_t regRead(const char*) override { return 0; }
  void regWrite(const char* name, uint32_t value) override {
    writes_.emplace_back(regFileHelper()->regNameToAddr(name), value);
  }

 private:
  Writes& writes_;
};

class Chip {
 public:
  Chip() {
    const Testing::TempFile csv(map);
    transport_->implPtrIs(std::make_unique<Bus>(csv.path(), writes));
    start();
  }
  void start() {
    shadowSm_.reset();
    writeSm_.reset();
    chip_ = logicalChipFactory("chip");
    for (const Place& place : places) {
      chip_->populateLogicalField(place.name, "f", 0, place.size, 0);
      chip_->populatePhysicalField("R", place.name, place.start, place.size);
      chip_->translation()->populate(place.name, "f", "R", place.name);
      auto field = chip_->physicalField(chip_->translation()->physicalFieldName("R", place.name));
      chip_->shadowToPhysicalNameDel(field.key());
      field.keyIs(place.key());
      chip_->physicalFieldIs(field);
      chip_->shadowToPhysicalNameIs(field.key(), field.name());
    }
    chip_->mountShadowFields(manager_, "config", "status");
    chip_->readyIs(true);
    writeSm_ = logicalWriteSmFactory(chip_);
    shadowSm_ = shadowFieldsSmFactory(chip_->shadowFieldsConfig(), chip_->shadowFieldsStatus(),
                                      transport_, false);
  }
  void write(const Place& place, uint32_t value, bool byHandle) {
    byHandle ? chip_->field(place.name, "f").write(value)
             : chip_->fieldWrite(place.name, "f", value);
  }
  void del(const Place& place) { chip_->shadowFieldsConfig()->fieldDel(place.key()); }
  uint32_t config(const Place& place) const {
    return chip_->shadowFieldsConfig()->field(place.key()).value();
  }
  uint32_t status(const Place& place) const {
    return chip_->shadowFieldsStatus()->field(place.key()).value();
  }

  Writes writes;

 private:
  const Orb::Ptr<OrbPool::EntityManager> manager_ = OrbPool::entityManagerFactory();
  const Orb::Ptr<TransportMethod> transport_ = transportMethodFactory("chip");
  Orb::Ptr<LogicalChip> chip_;
  Orb::Ptr<LogicalWriteSm> writeSm_;
  Orb::Ptr<ShadowFieldsSm> shadowSm_;
};

// What it all comes to.
class Model {
 public:
  void write(size_t i, uint32_t value) {
    if (config[i] != value) take(i, value);
  }
  void del(size_t i) {
    if (std::exchange(isThere[i], false)) take(i, 0, false);
  }
  void restart() {
    for (size_t i = 0; i < std::size(places); ++i) config[i] = 0, isThere[i] = true;
    for (uint32_t address = 0; address < registers; ++address) send(address);
    std::fill(std::begin(status), std::end(status), 0);
  }

  uint32_t config[std::size(places)] = {};
  uint32_t status[std::size(places)] = {};
  bool isThere[std::size(places)] = {true, true, true, true, true, true, true};
  Writes writes;

 private:
  void take(size_t i, uint32_t value, bool stays = true) {
    config[i] = value;
    isThere[i] = stays;
    send(places[i].address);
    status[i] = value;
  }
  void send(uint32_t address) {
    uint64_t wanted = 0;
    for (size_t i = 0; i < std::size(places); ++i) {
      const Place& place = places[i];
      if (place.address != address) continue;
      const uint64_t mask = (uint64_t{1} << place.size) - 1;
      wanted |= (config[i] & mask) << place.start;
    }
    if (held[address] == wanted) return;
    held[address] = static_cast<uint32_t>(wanted);
    writes.emplace_back(address, held[address]);
  }

  uint32_t held[registers] = {};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const Testing::StateDirectory state;
  Orb::traceLevelIs("*", -1);
  Fuzz::Input input(data, size);
  Chip chip;
  Model model;
  for (int steps = 0; steps < 200 && !input.empty(); ++steps) {
    const uint8_t what = input.byte();
    const size_t i = what % std::size(places);
    const size_t before = chip.writes.size();
    if (what >= 250) {
      chip.start();
      model.restart();
      // In whatever order.
      std::sort(chip.writes.begin() + static_cast<ptrdiff_t>(before), chip.writes.end());
    } else if (what >= 230) {
      chip.del(places[i]);
      model.del(i);
    } else {
      const uint32_t value = what < 100 ? input.byte() : input.number();
      chip.write(places[i], value, what % 2 == 0);
      model.write(i, value);
    }
    Fuzz::require(chip.writes == model.writes, "other writes went over the bus");
    for (size_t p = 0; p < std::size(places); ++p) {
      Fuzz::require(chip.config(places[p]) == model.config[p], "another value is wanted");
      Fuzz::require(chip.status(places[p]) == model.status[p], "another value was written");
    }
  }
  return 0;
}
