#pragma once

// What a chip's shadow tables hold from before, when the agent brings the chip up: looked at before
// the chip mounts them, which sets the configuration to zero. Damaged tables are set aside and
// entries that nobody describes any more are removed, under the mark that has the chip rewritten.

#include <map>
#include <string>

#include "KoruRegFile/ShoalTypes.h"
#include "OrbPool/EntityManager.h"
#include "agent/ChipFiles.h"
#include "system/Description.h"

namespace Agent {

// The mount paths of a chip's tables.
std::string configPath(const std::string& chip);
std::string statusPath(const std::string& chip);

class ChipTables {
 public:
  // Whether the chip is to be rewritten.
  bool rewrite() const { return rewrite_; }

  // Mounts both tables, with room for the chip's fields, and saves the configuration that they
  // hold. Marks the chip in `files` when its registers cannot be trusted to hold what the status
  // says. Throws what mounting throws, but for damage, and std::system_error when something cannot
  // be saved.
  ChipTables(const Orb::Ptr<OrbPool::EntityManager>& manager, const System::Chip& chip,
             const ChipFiles& files);

  // The value to begin with: the one last written, or the file's.
  uint32_t valueOf(const System::Field& field) const;
  // When the chip is to be rewritten: has the status agree with the configuration, so that nothing
  // but the rewriting writes registers. Called after the chip has mounted the tables.
  void agree(const System::Chip& chip);

 private:
  void surviving(const System::Chip& chip);
  void removeStale(const System::Chip& chip);

  const ChipFiles& files_;
  bool rewrite_;
  Orb::Ptr<KoruRegFile::ShadowFieldsConfig> config_;
  Orb::Ptr<KoruRegFile::ShadowFieldsStatus> status_;
  std::map<KoruRegFile::ShadowFieldKey, uint32_t> values_;  // that survived
};

}  // namespace Agent
