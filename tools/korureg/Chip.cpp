#include "korureg/Chip.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <fnmatch.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "KoruRegFile/AwaitAccess.h"
#include "KoruRegFile/MockTransportMethodImpl.h"
#include "Orb/Errno.h"
#include "board/devices/TransportKind.h"
#include "korureg/MapPlace.h"
#include "korureg/Suggest.h"

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

Orb::Descriptor openMockFile(int flags) {
  return Orb::Descriptor(::open(mockFile, flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0666));
}

// A mock that cannot keep its values says nothing about it, and a write would be lost.
void requireMockFile() {
  const Orb::Descriptor file = openMockFile(O_WRONLY | O_CREAT);
  if (!file) Orb::throwErrno("{}", mockFile);
  struct stat status;
  if (::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    throw std::runtime_error(fmt::format("{} is no regular file", mockFile));
  }
}

// A mock writes its whole file at each access. What would end this process in the middle of that
// waits until it is done.
class MockAccess {
 public:
  explicit MockAccess(const Board::Transport& transport)
      : holds_(transport.kind == &Board::mockKind) {
    if (!holds_) return;
    sigset_t ends;
    ::sigemptyset(&ends);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) ::sigaddset(&ends, signal);
    ::sigprocmask(SIG_BLOCK, &ends, &before_);
  }
  ~MockAccess() {
    if (holds_) ::sigprocmask(SIG_SETMASK, &before_, nullptr);
  }
  MockAccess(const MockAccess&) = delete;
  MockAccess& operator=(const MockAccess&) = delete;

 private:
  const bool holds_;
  sigset_t before_;
};

// The file beside that one by which commands keep out of each other's way; made by the first of
// them, for all users. (In a directory like /tmp the kernel may refuse to "create" what is there.)
Orb::Descriptor openMockLock() {
  constexpr mode_t everybody = 0666;
  const std::string path = fmt::format("{}.korureg", mockFile);
  constexpr int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  Orb::Descriptor made(::open(path.c_str(), flags | O_CREAT | O_EXCL, everybody));
  if (!made) return Orb::Descriptor(::open(path.c_str(), flags));
  ::fchmod(made.get(), everybody);
  return made;
}

// Between seeding a mock and its last write no other command may do the same. Nothing where there
// can be no lock. Throws Failure when somebody does not let go of it.
Orb::Descriptor lockMockFile() {
  constexpr std::chrono::milliseconds pause{10};
  constexpr int mostTries = 1000;
  Orb::Descriptor file = openMockLock();
  for (int tries = 0; file && ::flock(file.get(), LOCK_EX | LOCK_NB) != 0; ++tries) {
    if (tries == mostTries) {
      throw Failure(fmt::format("somebody else keeps {}.korureg locked", mockFile));
    }
    std::this_thread::sleep_for(pause);
  }
  return file;
}

// The first line of the mock's file that is none, as the transport reads it.
std::string damagedMockLine() {
  std::ifstream in(mockFile);
  std::string line;
  std::getline(in, line);
  for (size_t number = 2; std::getline(in, line); ++number) {
    const size_t comma = line.find(',');
    if (comma == std::string::npos) continue;
    try {
      static_cast<void>(std::stoul(line.substr(0, comma)));
      static_cast<void>(std::stoul(line.substr(comma + 1)));
    } catch (const std::logic_error&) {
      return fmt::format("{}:{}: '{}' is no address and value", mockFile, number, line);
    }
  }
  return fmt::format("{} holds something else than register values", mockFile);
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
  if (options.addrBlockSize && transport_) {
    throw UsageError(
        fmt::format("--block-size and --{} exclude each other: the transport has a "
                    "block size of its own, {}",
                    transport_->name(), transport_->addrBlockSize()));
  }
  hasAddresses_ = transport_ || options.addrBlockSize;
  const unsigned blockSize =
      transport_ ? transport_->addrBlockSize() : options.addrBlockSize.value_or(1);
  ownMap_ = std::make_unique<KoruRegFile::RegisterFile>(options.map.c_str(),
                                                        static_cast<uint8_t>(blockSize));
  map_ = ownMap_.get();
}

void Chip::open() {
  const MockAccess access(*transport_);
  if (transport_->kind == &Board::mockKind) mockLock_ = lockMockFile();
  method_ = KoruRegFile::transportMethodFactory(transport_->name());
  try {
    method_->implPtrIs(
        Board::openDevice(*transport_, {.name = transport_->name(), .registerMap = mapName_}));
  } catch (const KoruRegFile::RegisterFileError&) {
    throw;
  } catch (const std::exception& e) {
    const bool isLogicError = dynamic_cast<const std::logic_error*>(&e) != nullptr;
    if (isLogicError && transport_->kind == &Board::mockKind) {
      throw Failure(damagedMockLine());
    }
    throw Failure(Board::explained(*transport_, KoruRegFile::TransportFailure::of(e)));
  }
  // Targets point into the map that was read first.
  if (map_) return;
  mapOwner_ = method_;
  map_ = method_->regFileHelper().csvRegFile();
}

void Chip::lookAgain() {
  if (transport_->kind != &Board::mockKind) return;
  open();
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

void Chip::requireReach(const Register& reg, const std::string& attempt) const {
  if (const auto why = transport_->whyNot(reg)) {
    throw Failure(fmt::format("{} over {}: {}", attempt, transport_->name(), *why));
  }
}

uint32_t Chip::read(const Register& reg) const {
  const std::string attempt = fmt::format("cannot read {}", reg.name);
  requireReach(reg, attempt);
  const MockAccess access(*transport_);
  const KoruRegFile::AccessOutcome outcome = KoruRegFile::awaitRead(*method_, reg.name);
  if (outcome.isDone()) return outcome.value;
  throw Failure(fmt::format("{} over {}: {}", attempt, transport_->name(),
                            Board::explained(*transport_, *outcome.failure)));
}

void Chip::write(const Register& reg, uint32_t value) const {
  const std::string attempt = fmt::format("cannot write {:#x} to {}", value, reg.name);
  requireReach(reg, attempt);
  const MockAccess access(*transport_);
  KoruRegFile::TransportFailure failure;
  try {
    if (transport_->kind == &Board::mockKind) requireMockFile();
    const KoruRegFile::AccessOutcome outcome = KoruRegFile::awaitWrite(*method_, reg.name, value);
    if (outcome.isDone()) return;
    failure = *outcome.failure;
  } catch (const std::runtime_error& e) {
    failure = KoruRegFile::TransportFailure::of(e);
  }
  throw Failure(fmt::format("{} over {}: {}", attempt, transport_->name(),
                            Board::explained(*transport_, failure)));
}

}  // namespace korureg
