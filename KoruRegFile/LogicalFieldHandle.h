#pragma once

// A logical field that is named once and written again and again:
//
//     auto gain = chip->field("config", "gain");
//     gain.write(2);
//
// Writing and reading are those of LogicalChip, with the same notifications and tables; only making
// and hashing the name is left out. A handle keeps nothing alive, may be copied, and is used on the
// thread of its chip. Unlike an access by name, one that cannot be throws std::runtime_error: the
// chip is gone or not ready, or has lost the field.

#include <cstdint>

#include "KoruRegFile/Export.h"
#include "KoruRegFile/LogicalTypes.h"
#include "Orb/Anchor.h"

namespace KoruRegFile {

class LogicalChip;

class KORU_EXPORT LogicalFieldHandle {
 public:
  // Stands for no field.
  LogicalFieldHandle() = default;

  // Whether the field can be written now.
  explicit operator bool() const;
  const LogicalFieldName& name() const { return name_; }

  // As LogicalChip::fieldWrite().
  void write(uint32_t value) const;
  // As LogicalChip::fieldGetLastWritten().
  uint32_t lastWritten() const;

 private:
  friend class LogicalChip;
  LogicalFieldHandle(const Orb::Anchored<LogicalChip>& chip, const LogicalFieldName& name)
      : chip_(chip), name_(name) {}
  [[noreturn]] void throwLost() const;

  Orb::Anchored<LogicalChip> chip_;
  LogicalFieldName name_;
};

}  // namespace KoruRegFile
