#pragma once

// The chip that a command works on: its register map, and its transport when the command accesses
// registers.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "KoruRegFile/RegisterBits.h"
#include "KoruRegFile/RegisterFile.h"
#include "KoruRegFile/TransportMethod.h"
#include "Orb/Descriptor.h"
#include "korureg/Command.h"
#include "korureg/Transport.h"

namespace korureg {

// A register of the map, or a range of its bits, as named on the command line.
struct Target {
  const KoruRegFile::Register* reg;
  KoruRegFile::BitRange range;
  bool hasRange;

  // The part of the whole register's value that the target stands for.
  uint32_t valueIn(uint32_t registerValue) const {
    return hasRange ? range.extract(registerValue) : registerValue;
  }
  uint32_t width() const { return hasRange ? range.width() : reg->width; }
  // "config" or "config[7:4]", just as the map has the name.
  std::string name() const;
};

class Chip {
 public:
  enum class Use { map, registers };

  // Reads the map, and opens the transport when registers are to be accessed. Throws UsageError
  // when the command line does not name them, Failure when they cannot be used.
  Chip(const Options& options, Use use);

  // Whether it is known what the map's numbers stand for.
  bool hasAddresses() const { return hasAddresses_; }

  const std::vector<KoruRegFile::Register>& registers() const { return map_->registers(); }

  // The registers whose names match a shell pattern; all of them when it is empty.
  std::vector<Target> matching(const std::string& glob) const;

  // Throws UsageError for a register that the map lacks (with the nearest names) and for bits
  // beyond the register's width.
  Target target(const std::string& text) const;
  std::vector<Target> targets(const std::vector<std::string>& texts) const;

  // Access a whole register. Throw Failure with a text that names register, transport and reason;
  // nothing is accessed that the transport cannot carry as it is.
  uint32_t read(const KoruRegFile::Register& reg) const;
  void write(const KoruRegFile::Register& reg, uint32_t value) const;

  // Whether it carries a value that is wider than its register; a format never does.
  bool carriesTooWide() const { return !transport_ || !transport_->format; }

  // For commands that look again after a pause: what others have changed meanwhile is seen, and
  // stays. (The values of a mock are a file, of which the transport has a copy.)
  void pause() { mockLock_.reset(); }
  void lookAgain();

 private:
  void readMap(const Options& options);
  void open();
  void requireReach(const KoruRegFile::Register& reg, const std::string& attempt) const;

  const std::optional<Board::Transport> transport_;
  std::unique_ptr<KoruRegFile::RegisterFile> ownMap_;
  Orb::Ptr<KoruRegFile::TransportMethod> method_;
  Orb::Ptr<KoruRegFile::TransportMethod> mapOwner_;
  const KoruRegFile::RegisterFile* map_ = nullptr;
  std::string mapName_;
  bool hasAddresses_ = true;
  Orb::Descriptor mockLock_;  // keeps other commands out of the mock's file
};

}  // namespace korureg
