#include "korureg/Chip.h"

#include <fmt/format.h>
#include <fnmatch.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "korureg/Output.h"
#include "korureg/Suggest.h"

namespace korureg {

using KoruRegFile::Register;
using KoruRegFile::RegisterBits;

namespace {

// Why the map at `path` could not be used: the library's message, with the place or the reason that
// it leaves out.
std::string reasonOf(const std::exception& e, const std::string& path) {
  const auto* mapError = dynamic_cast<const KoruRegFile::RegisterFileError*>(&e);
  if (!mapError) return e.what();
  if (mapError->line() != 0) return fmt::format("line {}: {}", mapError->line(), e.what());
  if (::access(path.c_str(), R_OK) != 0) {
    return fmt::format("{}: {}", e.what(), std::strerror(errno));
  }
  return e.what();
}

}  // namespace

std::string Target::name() const {
  if (!hasRange) return printable(reg->name);
  if (range.high == range.low) return fmt::format("{}[{}]", printable(reg->name), range.high);
  return fmt::format("{}[{}:{}]", printable(reg->name), range.high, range.low);
}

Chip::Chip(const Options& options, Use use) : mapName_(options.map) {
  if (options.map.empty()) throw UsageError("name the chip's register map with --map FILE");
  if (use == Use::registers && !options.mock) {
    throw UsageError("say how the chip is reached, for instance with --mock");
  }
  try {
    if (options.mock) {
      open(options);
    } else {
      readMap(options);
    }
  } catch (const std::exception& e) {
    throw Failure(fmt::format("{}: {}", options.map, reasonOf(e, options.map)));
  }
}

void Chip::readMap(const Options& options) {
  ownMap_ = std::make_unique<KoruRegFile::RegisterFile>(
      options.map.c_str(), static_cast<uint8_t>(options.addrBlockSize));
  map_ = ownMap_.get();
}

void Chip::open(const Options& options) {
  transport_ = KoruRegFile::transportMethodFactory("mock");
  transport_->init(KoruRegFile::mockTransportDescriptorFactory(), options.map);
  map_ = transport_->implPtr()->regFileHelper()->csvRegFile();
}

std::vector<Target> Chip::matching(const std::string& glob) const {
  std::vector<Target> found;
  for (const Register& reg : registers()) {
    if (glob.empty() || ::fnmatch(glob.c_str(), reg.name.c_str(), 0) == 0) {
      found.push_back({&reg, {}, false});
    }
  }
  return found;
}

Target Chip::target(const std::string& text) const {
  // A name may itself look like a range.
  if (map_->hasRegName(text)) return {&map_->findRegisterByName(text), {}, false};
  RegisterBits bits;
  try {
    bits = RegisterBits::parse(text);
  } catch (const std::invalid_argument& e) {
    throw UsageError(printable(e.what()));
  }
  if (!map_->hasRegName(bits.name)) {
    throw UsageError(fmt::format("{} has no register '{}'{}", mapName_, printable(bits.name),
                                 suggestion(bits.name, registers())));
  }
  const Register& reg = map_->findRegisterByName(bits.name);
  if (bits.hasRange && bits.range.high >= reg.width) {
    throw UsageError(fmt::format("{}: the register has {} bits only", text, reg.width));
  }
  return {&reg, bits.range, bits.hasRange};
}

std::vector<Target> Chip::targets(const std::vector<std::string>& texts) const {
  std::vector<Target> all;
  for (const std::string& text : texts) all.push_back(target(text));
  return all;
}

uint32_t Chip::read(const Register& reg) const {
  try {
    return transport_->implPtr()->regRead(reg.name.c_str());
  } catch (const std::exception& e) {
    throw Failure(fmt::format("cannot read {} over {}: {}", printable(reg.name), transport_->name(),
                              e.what()));
  }
}

void Chip::write(const Register& reg, uint32_t value) const {
  try {
    transport_->implPtr()->regWrite(reg.name.c_str(), value);
  } catch (const std::exception& e) {
    throw Failure(fmt::format("cannot write {:#x} to {} over {}: {}", value, printable(reg.name),
                              transport_->name(), e.what()));
  }
}

}  // namespace korureg
