#include "KoruRegFile/RegisterFile.h"

#include <fmt/format.h>

#include <array>
#include <utility>

#include "KoruRegFile/RegisterRecord.h"
#include "Orb/Trace.h"

namespace KoruRegFile {

namespace {

constexpr int traceLevel = 8;
Orb::TraceHandle trace("Register");

// Indexed by the number of the type.
const std::array<std::string, 7>& typeWords() {
  static const std::array<std::string, 7> words = {"(unknown)", "reserved", "const", "cfg",
                                                   "sts",       "counter",  "ctl"};
  return words;
}

// Refuses what cannot be used and traces the rest.
class RefusingSink : public RecordProblemSink {
 public:
  explicit RefusingSink(size_t line) : line_(line) {}

  void problem(const RecordProblem& problem) override {
    switch (problem.fault) {
      case RecordFault::unknownType:
        ORB_TRACE(trace, traceLevel, "Unknown register type '{}'", problem.field);
        return;
      case RecordFault::extraFields:
        ORB_TRACE(trace, traceLevel, "Found extraneous field(s) in CSV file.");
        return;
      case RecordFault::missingFields:
        ORB_TRACE(trace, traceLevel, "Incomplete CSV fields. Found {} fields only.",
                  problem.fieldCount);
        return;
      case RecordFault::addressWraps:
      case RecordFault::emptyName:
      case RecordFault::nulInName:
      case RecordFault::oddWriteable:
        return;
      default:
        throw RegisterFileError(refusalText(problem.fault), line_, problem.column);
    }
  }

 private:
  const size_t line_;
};

std::string_view nonNullName(const char* name) {
  if (name == nullptr) throw std::logic_error("the name of a register is a null pointer");
  return name;
}

}  // namespace

RegisterFileError::~RegisterFileError() = default;

Register::Register(std::string_view line, uint8_t addrBlockSize) {
  RefusingSink sink(0);
  *this = parseRecord(line, addrBlockSize, sink);
}

RegisterType Register::regTypeFromString(std::string_view word) {
  const auto& words = typeWords();
  for (size_t i = 1; i < words.size(); ++i) {
    if (words[i] == word) return static_cast<RegisterType>(i);
  }
  return RegisterType::unknown;
}

const std::string& Register::regTypeToString(RegisterType type) {
  const auto& words = typeWords();
  const auto index = static_cast<size_t>(type);
  return words[index < words.size() ? index : 0];
}

Register::operator std::string() const {
  // A prefix is part of the eight characters, and zero has none.
  const std::string addressText =
      address == 0 ? std::string(8, '0') : fmt::format("{:#08x}", address);
  return fmt::format("{} {} {} {}", addressText, name, writeable ? "writeable" : "readonly", width);
}

namespace {

// Hands every register of the map to `add`.
template <class Add>
void readRegisters(RecordLines lines, uint8_t addrBlockSize, Add add) {
  std::string_view line;
  if (!lines.next(line) || line != registerFileHeader) {
    throw RegisterFileError("Encountered wrong CSV header!", 1, 1);
  }
  while (lines.next(line)) {
    RefusingSink sink(lines.number());
    add(parseRecord(line, addrBlockSize, sink));
  }
}

}  // namespace

RegisterFile::RegisterFile(const char* csvPath, uint8_t addrBlockSize) {
  readRegisters(RecordLines(csvPath), addrBlockSize,
                [this](Register&& reg) { add(std::move(reg)); });
  registers_.shrink_to_fit();
}

RegisterFile::RegisterFile(std::istream& in, uint8_t addrBlockSize) {
  readRegisters(RecordLines(in), addrBlockSize, [this](Register&& reg) { add(std::move(reg)); });
  registers_.shrink_to_fit();
}

void RegisterFile::add(Register&& reg) {
  const Register* named = find(reg.name);
  const bool isNewAddress = find(reg.address) == nullptr;
  if (named) {
    const auto position = static_cast<uint32_t>(named - registers_.data());
    if (isNewAddress) otherAddresses_.emplace(reg.address, position);
    return;
  }
  const auto position = static_cast<uint32_t>(registers_.size());
  const auto nameHashAt = [this](uint32_t at) { return Orb::StringHash()(registers_[at].name); };
  const auto addressAt = [this](uint32_t at) { return registers_[at].address; };
  registers_.push_back(std::move(reg));
  byName_.insert(nameHashAt(position), position, nameHashAt);
  if (isNewAddress) byAddress_.insert(addressAt(position), position, addressAt);
}

const Register* RegisterFile::find(std::string_view name) const {
  const uint32_t found = byName_.find(Orb::StringHash()(name),
                                      [&](uint32_t at) { return registers_[at].name == name; });
  return found == Orb::PositionIndex::none ? nullptr : &registers_[found];
}

const Register* RegisterFile::find(uint32_t address) const {
  const uint32_t found =
      byAddress_.find(address, [&](uint32_t at) { return registers_[at].address == address; });
  if (found != Orb::PositionIndex::none) return &registers_[found];
  const auto other = otherAddresses_.find(address);
  return other == otherAddresses_.end() ? nullptr : &registers_[other->second];
}

const Register& RegisterFile::findRegisterByName(std::string_view name) const {
  if (const Register* found = find(name)) return *found;
  throwNoRegister(name);
}

const Register& RegisterFile::findRegisterByName(const char* name) const {
  const Register* last = lastNamed_.load(std::memory_order_relaxed);
  if (last && last->name.c_str() == name) return *last;
  return findRegisterByName(nonNullName(name));
}

bool RegisterFile::hasRegName(const char* name) const { return hasRegName(nonNullName(name)); }

std::string RegisterFile::findRegNameByAddr(uint32_t address) const {
  return std::string(regNameAtAddr(address));
}

const Orb::String& RegisterFile::regNameAtAddr(uint32_t address) const {
  const Register* found = find(address);
  if (!found) {
    throw std::runtime_error(fmt::format("RegisterFile does not have address: {}!", address));
  }
  lastNamed_.store(found, std::memory_order_relaxed);
  return found->name;
}

void RegisterFile::regFetch(uint32_t address) const {
  const uint32_t likely = byAddress_.likely(address);
  if (likely != Orb::PositionIndex::none) Orb::fetchLine(&registers_[likely]);
}

}  // namespace KoruRegFile
