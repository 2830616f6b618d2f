#include "board/chips/Verification.h"

#include <fmt/format.h>

#include "KoruRegFile/ShadowSms.h"

namespace Board {

namespace {

using KoruRegFile::RegisterType;

uint32_t maskOf(const Bits& bits) {
  return KoruRegFile::bitStreamSet(0, bits.start, bits.size, UINT32_MAX);
}

bool changes(RegisterType type) {
  return type == RegisterType::counter || type == RegisterType::sts || type == RegisterType::ctl;
}

}  // namespace

Verification::Verification(const Chip& chip) : chip_(chip) {
  for (const StatusField& field : chip.statusFields) {
    changing_[field.address] |= maskOf(field.bits);
  }
  // What is written and kept is the agent's, whoever else looks at it.
  for (const Field& field : chip.fields) {
    uint32_t& bits = changing_[field.address];
    bits = field.kind == FieldKind::stored ? bits & ~maskOf(field.physical)
                                           : bits | maskOf(field.physical);
  }
}

Verification::Verified Verification::verified(const KoruRegFile::Register& reg) const {
  if (changes(reg.type)) {
    return {.whyNot =
                fmt::format("is of type {}", KoruRegFile::Register::regTypeToString(reg.type))};
  }
  if (chip_.readChanges.contains(reg.name.c_str()))
    return {.whyNot = "reading it changes the chip"};
  if (const auto why = chip_.transport.whyNotRead(reg)) return {.whyNot = *why};
  const uint32_t mask = kept(reg);
  if (mask == 0) return {.whyNot = "the hardware changes all of it"};
  return {.mask = mask};
}

uint32_t Verification::kept(const KoruRegFile::Register& reg) const {
  const auto found = changing_.find(reg.address);
  const uint32_t changing = found == changing_.end() ? 0 : found->second;
  return maskOf({0, static_cast<uint8_t>(reg.width)}) & ~changing;
}

}  // namespace Board
