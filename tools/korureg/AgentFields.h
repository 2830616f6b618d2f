#pragma once

// The fields of a chip, as the agent lists them, and what their values stand for. Used by the
// commands that show fields.

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "KoruRegFile/RegisterBits.h"
#include "board/description/Meaning.h"
#include "korureg/AgentClient.h"

namespace korureg {

struct AgentField {
  std::string reg;
  std::string field;
  std::string kind;
  std::optional<KoruRegFile::BitRange> bits;  // of the logical register; none of a status field
  std::string hardwareRegister;
  std::string hardwareField;
  KoruRegFile::BitRange hardwareBits;
  std::optional<uint32_t> wanted;
  std::optional<uint32_t> written;
  Board::Meaning meaning;
  bool readChanges = false;  // reading it changes the chip

  bool isStatus() const { return kind == "status"; }
  // "config.gain"
  std::string name() const { return reg + '.' + field; }
  // "x2", "24.75 °C"; "0x1f" for what has no meaning, and when it is to be raw.
  std::string shown(uint32_t value, bool raw) const;
  // The same with "-" for a value that there is not.
  std::string shown(const std::optional<uint32_t>& value, bool raw) const;
  uint32_t in(uint64_t hardwareValue) const {
    return hardwareBits.extract(static_cast<uint32_t>(hardwareValue));
  }
};

// The fields of a chip, or of one of its registers. Throws as AgentClient::ask() does.
std::vector<AgentField> fieldsOf(AgentClient& client, const std::string& chip,
                                 const std::string& reg = "");

// What the status fields of a chip hold just now: one read a register, as long as this lives.
class LiveFields {
 public:
  LiveFields(AgentClient& client, std::string chip) : client_(client), chip_(std::move(chip)) {}
  // Nothing for a field that cannot be read, which is told on standard error.
  std::optional<uint32_t> value(const AgentField& field);
  bool anyFailed() const { return anyFailed_; }

 private:
  nlohmann::ordered_json ask(const char* op, const std::string& reg, const char* field);

  AgentClient& client_;
  const std::string chip_;
  std::map<std::string, nlohmann::ordered_json> fields_;  // by register
  bool anyFailed_ = false;
};

// "[7:4]", "[3]"
std::string bitsText(const KoruRegFile::BitRange& bits);

// The value in an answer about one field: its text, if it has one, or else the number. Alone, it
// is without its unit.
struct Shown {
  bool raw = false;
  bool alone = false;
};
std::string valueText(const nlohmann::ordered_json& answer, const Shown& how);

}  // namespace korureg
