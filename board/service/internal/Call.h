#pragma once

// One request of a client, taken apart; internal to the request handling. What cannot be used
// throws RequestError, which becomes the answer.

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

#include "board/service/internal/Requests.h"

namespace Board {

class RequestError : public std::runtime_error {
 public:
  // `kind` is one of those in docs/Agent.md.
  RequestError(const char* kind, const std::string& message)
      : std::runtime_error(message), kind_(kind) {}
  ~RequestError() override;
  const char* kind() const { return kind_; }

 private:
  const char* kind_;
};

struct Requests::Call {
  const Json& request;
  const Reply& reply;
  const Asker& asker;
  bool answersLater = false;

  // A string of the request.
  std::string text(const char* key) const;
  std::optional<std::string> optionalText(const char* key) const;
  // A number of at most so many bits, given as such or as a string, as in "0x1f" or
  // "0b11".
  uint64_t number(const char* key, unsigned bits) const;
  // Absent means false.
  bool flag(const char* key) const;
  // The place in a list from which on it is wanted, and how much of it.
  size_t from() const;
  size_t limit() const;

  // The answer to this request, as a line, and for one that comes later.
  std::string resultLine(const Json& value) const;
  Json id() const;
  Json result(const Json& value) const;
  Json failure(const char* kind, const std::string& message) const;
};

// A logical field of a chip that is up, and everything about it.
struct FoundField {
  Orb::Ptr<KoruRegFile::LogicalChip> chip;
  KoruRegFile::LogicalFieldName name;
  const Field* described;
};

// Throw RequestError for what is not there.
void requireChip(const BoardKeeper& keeper, const std::string& chip);
Orb::Ptr<KoruRegFile::LogicalChip> findChip(const BoardKeeper& keeper, const std::string& chip);
Orb::Ptr<KoruRegFile::TransportMethod> findTransport(const BoardKeeper& keeper,
                                                     const std::string& chip);
const KoruRegFile::LogicalRegister& findRegister(const KoruRegFile::LogicalChip& chip,
                                                 const std::string& reg);
// The value that a request has for the field: "value", raw or by name, or "text", as a person
// says it.
uint32_t fieldValue(const Requests::Call& call, const Field& field);
// The bits of a field in the value of its register.
uint32_t valueIn(uint32_t registerValue, const Bits& bits);
// Adds what a raw value stands for: "text", "number", "name", as far as there is something to say.
void addMeaning(Json& json, const Meaning* meaning, uint32_t value, unsigned size);

FoundField findField(const BoardKeeper& keeper, const std::string& chip, const std::string& reg,
                     const std::string& field);

}  // namespace Board
