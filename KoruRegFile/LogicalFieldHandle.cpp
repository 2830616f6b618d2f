#include "KoruRegFile/LogicalFieldHandle.h"

#include <fmt/format.h>

#include <stdexcept>

#include "KoruRegFile/LogicalChip.h"

namespace KoruRegFile {

void LogicalFieldHandle::throwLost() const {
  const LogicalChip* chip = chip_.get();
  const char* why = !chip           ? "the chip is gone"
                    : chip->ready() ? "the chip has no such field any more"
                                    : "the chip is not ready";
  throw std::runtime_error(fmt::format("field '{}' cannot be accessed: {}", name_.fullName(), why));
}

LogicalFieldHandle::operator bool() const {
  const LogicalChip* chip = chip_.get();
  return chip && chip->findField(name_).second;
}

void LogicalFieldHandle::write(uint32_t value) const {
  LogicalChip* chip = chip_.get();
  if (!chip || !chip->handleWrite(name_, value)) throwLost();
}

uint32_t LogicalFieldHandle::lastWritten() const {
  const LogicalChip* chip = chip_.get();
  const LogicalField* field = chip ? chip->findField(name_).second : nullptr;
  if (!field) throwLost();
  return field->value();
}

}  // namespace KoruRegFile
