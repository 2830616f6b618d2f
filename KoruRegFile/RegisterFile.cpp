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
  const uint32_t address = reg.address;
  const auto next = static_cast<uint32_t>(registers_.size());
  const auto [named, isNew] = byName_.try_emplace(reg.name.view(), next);
  if (isNew) registers_.push_back(std::move(reg));
  byAddress_.try_emplace(address, named->second);
}

const Register& RegisterFile::findRegisterByName(std::string_view name) const {
  const auto found = byName_.find(name);
  if (found == byName_.end()) {
    throw std::runtime_error(fmt::format("RegisterFile does not have register '{}'!", name));
  }
  return registers_[found->second];
}

const Register& RegisterFile::findRegisterByName(const char* name) const {
  return findRegisterByName(nonNullName(name));
}

bool RegisterFile::hasRegName(const char* name) const { return hasRegName(nonNullName(name)); }

std::string RegisterFile::findRegNameByAddr(uint32_t address) const {
  return std::string(regNameAtAddr(address));
}

const Orb::String& RegisterFile::regNameAtAddr(uint32_t address) const {
  const auto found = byAddress_.find(address);
  if (found == byAddress_.end()) {
    throw std::runtime_error(fmt::format("RegisterFile does not have address: {}!", address));
  }
  return registers_[found->second].name;
}

}  // namespace KoruRegFile
