#include "korureg/Chip.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <fnmatch.h>
#include <sys/stat.h>

#include <cerrno>
#include <system_error>

#include "KoruRegFile/MockTransportMethodImpl.h"
#include "KoruRegFile/Utils.h"
#include "korureg/MapPlace.h"
#include "korureg/Suggest.h"
#include "system/Device.h"

namespace korureg {

using KoruRegFile::Register;
using KoruRegFile::RegisterBits;

namespace {

constexpr const char* mockFile = KoruRegFile::MockTransportMethodImpl::valueFilePath;

// The library's message, with the place or the reason that it leaves out.
Failure mapFailure(const std::string& file, const KoruRegFile::RegisterFileError& e) {
  const std::string reason = e.line() == 0 ? whyUnreadable(file) : "";
  return Failure(fmt::format("{}: {}", mapPlace(file, e.line(), e.column()),
                             reason.empty() ? e.what() : reason));
}

// A mock that cannot keep its values says nothing about it, and a write would be lost.
void requireMockFile() {
  const KoruRegFile::Utils::UnixFdRes file(
      ::open(mockFile, O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0666));
  if (file.fd() < 0) throw std::system_error(errno, std::generic_category(), mockFile);
  struct stat status;
  if (::fstat(file.fd(), &status) != 0 || !S_ISREG(status.st_mode)) {
    throw std::runtime_error(fmt::format("{} is no regular file", mockFile));
  }
}

}  // namespace

std::string Target::name() const {
  if (!hasRange) return std::string(reg->name);
  if (range.high == range.low) return fmt::format("{}[{}]", reg->name, range.high);
  return fmt::format("{}[{}:{}]", reg->name, range.high, range.low);
}

Chip::Chip(const Options& options, Use use)
    : transport_(chosenTransport(options)), mapName_(options.map) {
  if (options.map.empty()) throw UsageError("name the chip's register map with --map FILE");
  if (use == Use::registers && !transport_) {
    throw UsageError("say how the chip is reached, for instance with --mock");
  }
  try {
    if (use == Use::registers) {
      open();
    } else {
      readMap(options);
    }
  } catch (const KoruRegFile::RegisterFileError& e) {
    throw mapFailure(options.map, e);
  }
}

// Listing touches no device, but the transport says what the map's numbers stand for.
void Chip::readMap(const Options& options) {
  const unsigned blockSize = transport_ ? transport_->addrBlockSize() : options.addrBlockSize;
  ownMap_ = std::make_unique<KoruRegFile::RegisterFile>(options.map.c_str(),
                                                        static_cast<uint8_t>(blockSize));
  map_ = ownMap_.get();
}

void Chip::open() {
  method_ = KoruRegFile::transportMethodFactory(transport_->name());
  try {
    method_->init(System::openDevice(*transport_, transport_->name()), mapName_);
  } catch (const std::logic_error&) {
    throw Failure(fmt::format("{} holds something else than register values", mockFile));
  } catch (const KoruRegFile::RegisterFileError&) {
    throw;
  } catch (const std::exception& e) {
    throw Failure(System::explained(*transport_, e));
  }
  map_ = method_->implPtr()->regFileHelper()->csvRegFile();
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
    throw UsageError(e.what());
  }
  if (!map_->hasRegName(bits.name)) {
    std::vector<std::string_view> names;
    for (const Register& reg : registers()) names.push_back(reg.name);
    throw UsageError(fmt::format("{} has no register '{}'{}", mapName_, bits.name,
                                 suggestion(bits.name, names)));
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
    return readThrough(*method_->implPtr(), reg.name.c_str());
  } catch (const std::exception& e) {
    throw Failure(fmt::format("cannot read {} over {}: {}", reg.name, transport_->name(),
                              System::explained(*transport_, e)));
  }
}

void Chip::write(const Register& reg, uint32_t value) const {
  try {
    if (transport_->kind == System::TransportKind::mock) requireMockFile();
    writeThrough(*method_->implPtr(), reg.name.c_str(), value);
  } catch (const std::exception& e) {
    throw Failure(fmt::format("cannot write {:#x} to {} over {}: {}", value, reg.name,
                              transport_->name(), System::explained(*transport_, e)));
  }
}

}  // namespace korureg
