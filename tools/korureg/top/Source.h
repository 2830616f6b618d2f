#pragma once

// Where "korureg top" gets what it shows: from the agent, or from the shadow tables alone. One
// thread; nothing here knows of a screen.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "korureg/AgentClient.h"
#include "korureg/AgentFields.h"

namespace korureg::top {

struct Chip {
  std::string name = {};
  std::string state = {};
  std::string reason = {};
  std::string transport = {};
  uint64_t fields = 0;
  uint64_t inFlight = 0;
  uint64_t failedWrites = 0;
  uint64_t drifted = 0;
  uint64_t resets = 0;
  uint64_t rewrites = 0;
};

// A register of the chip, and which of the fields lie in it.
struct Register {
  std::string name;
  uint64_t address = 0;
  uint32_t width = 32;
  std::optional<uint32_t> wanted;
  std::optional<uint32_t> written;
  std::optional<uint32_t> read;  // when it was asked for the last time
  std::string failure;           // of that time
  uint32_t verified = 0;         // bits that have to be read as they were written
  bool readable = true;
  bool readChanges = false;  // reading it changes the chip
  std::vector<size_t> fields;

  bool waits() const { return wanted != written; }
  bool drifted() const { return read && written && ((*read ^ *written) & verified) != 0; }
};

struct Detail {
  std::vector<Register> registers;
  std::vector<AgentField> fields;
};

// Something has changed: the chip's state, or one of its fields.
struct Event {
  enum class What { chip, field, trouble };
  What what;
  std::string chip;
  std::string text = {};  // of trouble
};

class Source {
 public:
  virtual ~Source() = default;

  // All chips, by name.
  virtual std::vector<Chip> chips() = 0;
  // Of a chip that is there; empty while it is not up.
  virtual Detail detail(const std::string& chip) = 0;

  // Can be read (poll(2)) when event() has one. Throws Failure when no more will come.
  virtual int descriptor() const = 0;
  virtual std::optional<Event> event() = 0;

  // What the register holds now. These three throw Failure or UsageError when it cannot be done.
  virtual uint32_t read(const std::string& chip, const Register& reg) = 0;
  // What writing the field would send, a line each.
  virtual std::vector<std::string> plan(const std::string& chip, const AgentField& field,
                                        const std::string& text) = 0;
  virtual void write(const std::string& chip, const AgentField& field, const std::string& text) = 0;
};

// Throws Failure when nobody listens.
std::unique_ptr<Source> agentSource(const AgentOptions& options);
// The tables of a state directory (empty for the environment's choice): they can only be looked at.
// Fields go by their address and bits, or by the names of a system file. Throws UsageError and
// Board::FileError for one that does not name them.
std::unique_ptr<Source> tableSource(const std::string& stateDirectory, const std::string& config);

}  // namespace korureg::top
