#pragma once

// A chip as it runs in an agent: every field has a register of its own, which is the most that a
// chip can have to keep; its tables lie in shared memory; below it is an array in memory, or a
// guarded window of a PCI device.

#include <fmt/format.h>

#include <memory>
#include <string>
#include <vector>

#include "KoruRegFile/LogicalSms.h"
#include "KoruRegFile/PciTransportMethodImpl.h"
#include "KoruRegFile/ShadowSms.h"
#include "bench/Ratio.h"
#include "testing/ArrayTransport.h"
#include "testing/RegisterWindow.h"
#include "testing/StateDirectory.h"
#include "testing/TempFile.h"

namespace Bench {

constexpr size_t fieldsOfRegister = 8;

inline std::string registerOf(size_t i) { return nameOf(i / fieldsOfRegister); }

// For the tables of one chip or pass.
inline std::string uniquePath() {
  static const Testing::StateDirectory state;
  static int count = 0;
  return fmt::format("{}/", ++count);
}

class CountingTransport : public Testing::ArrayTransport {
 public:
  using ArrayTransport::ArrayTransport;
  void regWrite(const char* regName, uint32_t value) override {
    ++writes;
    ArrayTransport::regWrite(regName, value);
  }
  size_t writes = 0;
};

enum class Below { array, pciWindow };

class Chip {
 public:
  explicit Chip(size_t fields, Below below = Below::array) : fields_(fields) {
    std::string map = "number,name,type,writeable,width\n";
    for (size_t i = 0; i < fields; ++i) {
      const std::string field = fmt::format("field_{}", i);
      const auto start = static_cast<uint8_t>(i % fieldsOfRegister * 8);
      chip_->populateLogicalField(registerOf(i), field, start, 8, 1);
      chip_->populatePhysicalField(registerOf(i), field, 0, 8);
      chip_->translation()->populate(registerOf(i), field, registerOf(i), field);
      map += fmt::format("{},{},cfg,true,32\n", i, nameOf(i));
    }
    if (below == Below::pciWindow) keysAreInBytes();
    transportIs(Testing::TempFile(map).path(), below);
    start();
  }

  void start() {
    mount();
    carry();
    react();
  }
  void mount() {
    chip_->mountShadowFields(manager_, path_ + "config", path_ + "status");
    chip_->readyIs(true);
  }
  void carry() { writeSm_ = KoruRegFile::logicalWriteSmFactory(chip_); }
  void react() {
    shadowSm_ = KoruRegFile::shadowFieldsSmFactory(chip_->shadowFieldsConfig(),
                                                   chip_->shadowFieldsStatus(), transport_, false);
  }
  void stop() {
    shadowSm_.reset();
    writeSm_.reset();
    chip_->shadowFieldsConfigIs(nullptr);
    chip_->shadowFieldsStatusIs(nullptr);
  }
  void fieldWrite(const Orb::String& reg, const Orb::String& field, uint32_t value) const {
    chip_->fieldWrite(reg, field, value);
  }
  KoruRegFile::LogicalFieldHandle field(size_t i) const {
    return chip_->field(registerOf(i), fmt::format("field_{}", i));
  }

  size_t fields() const { return fields_; }
  // Of the array.
  size_t writes() const { return registers_->writes; }
  const KoruRegFile::LogicalChip& chip() const { return *chip_; }

 private:
  // The fields were given the addresses 0, 1, 2, ...; those of a window count bytes.
  void keysAreInBytes() {
    const auto nameAt = [&](size_t i) {
      return chip_->translation()->physicalFieldName(registerOf(i), fmt::format("field_{}", i));
    };
    for (size_t i = 0; i < fields_; ++i) {
      chip_->shadowToPhysicalNameDel(chip_->physicalField(nameAt(i)).key());
    }
    for (size_t i = 0; i < fields_; ++i) {
      auto field = chip_->physicalField(nameAt(i));
      field.keyIs({static_cast<uint32_t>(4 * i), field.start(), field.size()});
      chip_->physicalFieldIs(field);
      chip_->shadowToPhysicalNameIs(field.key(), nameAt(i));
    }
  }
  void transportIs(const char* map, Below below) {
    if (below == Below::array) {
      auto made = std::make_unique<CountingTransport>(map, fields_);
      registers_ = made.get();
      transport_->implPtrIs(std::move(made));
      return;
    }
    window_ = std::make_unique<Testing::RegisterWindow>(fields_ * 4);
    transport_->implPtrIs(std::make_unique<KoruRegFile::PciTransportMethodImpl>(
        Plat::pciPaxImplFactory("bench", window_->path()), map, nullptr));
  }

  const size_t fields_;
  const std::string path_ = uniquePath();
  const Orb::Ptr<OrbPool::EntityManager> manager_ = OrbPool::entityManagerFactory();
  const Orb::Ptr<KoruRegFile::LogicalChip> chip_ = KoruRegFile::logicalChipFactory("chip");
  const Orb::Ptr<KoruRegFile::TransportMethod> transport_ =
      KoruRegFile::transportMethodFactory("chip");
  std::unique_ptr<Testing::RegisterWindow> window_;
  CountingTransport* registers_ = nullptr;
  Orb::Ptr<KoruRegFile::LogicalWriteSm> writeSm_;
  Orb::Ptr<KoruRegFile::ShadowFieldsSm> shadowSm_;
};

// Writes to fields at random, each with a value that it did not have.
class Writer {
 public:
  explicit Writer(const Chip& chip) : chip_(chip) {
    for (const uint32_t i : randomPositions(1 << 16, chip.fields())) {
      targets_.push_back({registerOf(i), fmt::format("field_{}", i)});
    }
  }
  uint32_t write(size_t) {
    const Target& target = targets_[count_++ % targets_.size()];
    chip_.fieldWrite(target.reg, target.field, static_cast<uint32_t>(count_ % 251));
    return 0;
  }

 private:
  struct Target {
    Orb::String reg;
    Orb::String field;
  };
  const Chip& chip_;
  std::vector<Target> targets_;
  size_t count_ = 0;
};

}  // namespace Bench
