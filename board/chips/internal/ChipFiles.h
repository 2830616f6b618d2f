#pragma once

// What the agent keeps about a chip beside its tables, in the state directory: the configuration
// that survives while the tables are being made anew, fields that are being written together, the
// registers that the tables' entries are of, and the mark of a chip whose registers may not hold
// what the status table says. All outlive a kill at any instruction.

#include <optional>
#include <string>
#include <vector>

#include "KoruRegFile/ShadowFieldTypes.h"

namespace Board {

// A field's value, and the register that it was written to: another map may have another register
// at that address.
struct KeptField {
  KoruRegFile::ShadowFieldValue value;
  std::string reg;  // empty when nobody knows
};

class ChipFiles {
 public:
  // Touches nothing. The others throw std::system_error, and std::runtime_error for files that are
  // not the agent's own (StateFiles.h); what was there before is there then.
  ChipFiles(const std::string& stateDirectory, const std::string& chip);

  // Makes the directory "korud" in the state directory; before anything is saved.
  void prepare() const;

  // The saved configuration, if there is one. A file that is not complete is set aside, with a
  // trace at level 0.
  std::optional<std::vector<KeptField>> saved() const;
  // Replaces it as a whole.
  void savedIs(const std::vector<KeptField>& fields) const;
  void savedDel() const;

  // Fields that are being written together. As long as they are there, they hold, whatever the
  // table says.
  std::vector<KeptField> together() const;
  void togetherIs(const std::vector<KeptField>& fields) const;
  void togetherDel() const;

  // The registers of the tables' entries, with the values of when the chip was taken down the last
  // time, or else of its description. None when that is not known.
  std::vector<KeptField> names() const;
  void namesAre(const std::vector<KeptField>& fields) const;

  bool isDirty() const;
  // Takes no descriptor: there may be none when a write fails.
  void dirtyIs(bool dirty) const;

 private:
  const std::string directory_;
  const std::string savedPath_;
  const std::string togetherPath_;
  const std::string namesPath_;
  const std::string dirtyPath_;
};

}  // namespace Board
