#pragma once

// What a chip's shadow tables hold from before, when the agent brings the chip up: looked at before
// the chip mounts them, which sets the configuration to zero. Damaged tables, and those of another
// version, are set aside, entries that nobody describes any more are removed, and values follow
// their registers to new addresses, under the mark that has the chip rewritten.

#include <boost/unordered/unordered_flat_map.hpp>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "KoruRegFile/ShoalTypes.h"
#include "Orb/Hash.h"
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
  struct Place {
    std::string reg;
    uint8_t start;
    uint8_t size;
    friend bool operator==(const Place&, const Place&) = default;
    friend size_t hash_value(const Place& place) {
      return std::hash<std::string>()(place.reg) * 31 + place.start * 64u + place.size;
    }
  };
  template <class Value>
  using ByKey = boost::unordered_flat_map<KoruRegFile::ShadowFieldKey, Value,
                                          Orb::KeyHash<KoruRegFile::ShadowFieldKey>>;

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
  boost::unordered_flat_map<Place, uint32_t> values_;
  ByKey<uint32_t> nameless_;
};

}  // namespace Board
