#pragma once

// What a chip's shadow tables hold from before, when the agent brings the chip up: looked at before
// the chip mounts them, which sets the configuration to zero. Damaged tables, and those of another
// version, are set aside, entries that nobody describes any more are removed, and values follow
// their registers to new addresses, under the mark that has the chip rewritten.

#include <cstdint>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "KoruRegFile/ShoalTypes.h"
#include "OrbPool/EntityManager.h"
#include "board/chips/internal/ChipFiles.h"
#include "board/description/Description.h"

namespace Board {

// The mount paths of a chip's tables.
std::string configPath(const std::string& chip);
std::string statusPath(const std::string& chip);

// The chip's fields, with the values of the file.
std::vector<KeptField> keptFields(const Chip& chip);

class ChipTables {
 public:
  // Whether the chip is to be rewritten.
  bool rewrite() const { return rewrite_; }

  // Mounts both tables, with room for the chip's fields, and saves the values that the chip begins
  // with. Marks the chip in `files` when its registers cannot be trusted to hold what the status
  // says. Throws what mounting throws, but for damage, and std::system_error when something cannot
  // be saved.
  ChipTables(const Orb::Ptr<OrbPool::EntityManager>& manager, const Chip& chip,
             const ChipFiles& files);

  // The value to begin with: the one last written, or the file's.
  uint32_t valueOf(const Field& field) const;
  // When the chip is to be rewritten: has the status agree with the configuration, so that nothing
  // but the rewriting writes registers. Fields that are sent once agree in any case. Called after
  // the chip has mounted the tables.
  void agree(const Chip& chip);

 private:
  // A field that belongs to a register, wherever that lies.
  using Place = std::tuple<std::string, uint8_t, uint8_t>;

  void saveSound(const std::string& chip) const;
  void surviving(const Chip& chip);
  void save(const Chip& chip) const;
  void follow(const Chip& chip, const std::vector<KeptField>& kept);
  void removeStale(const Chip& chip);

  const ChipFiles& files_;
  bool rewrite_;
  Orb::Ptr<KoruRegFile::ShadowFieldsConfig> config_;
  Orb::Ptr<KoruRegFile::ShadowFieldsStatus> status_;
  // What survived: of registers that are known, and where nobody knows which one it was.
  std::map<Place, uint32_t> values_;
  std::map<KoruRegFile::ShadowFieldKey, uint32_t> nameless_;
};

}  // namespace Board
