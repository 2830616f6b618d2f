#pragma once

// What the agent keeps about a chip beside its tables, in the state directory: the configuration
// that survives while the tables are being made anew, and the mark of a chip whose registers may
// not hold what the status table says. Both outlive a kill at any instruction.

#include <optional>
#include <string>
#include <vector>

#include "KoruRegFile/ShadowFieldTypes.h"

namespace Agent {

class ChipFiles {
 public:
  // Makes the directory "korud" in the state directory. Throws std::system_error.
  ChipFiles(const std::string& stateDirectory, const std::string& chip);

  // The saved configuration, if there is one. A file that is not complete or not of ours is set
  // aside, with a trace at level 0.
  std::optional<std::vector<KoruRegFile::ShadowFieldValue>> saved() const;
  // Replaces it as a whole. Throws std::system_error; what was there before is there then.
  void savedIs(const std::vector<KoruRegFile::ShadowFieldValue>& values) const;
  void savedDel() const;

  bool isDirty() const;
  // Throws std::system_error.
  void dirtyIs(bool dirty) const;

 private:
  std::optional<std::vector<KoruRegFile::ShadowFieldValue>> readSaved() const;

  const std::string savedPath_;
  const std::string dirtyPath_;
};

}  // namespace Agent
