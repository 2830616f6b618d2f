#pragma once

// The logical chip that a description stands for. Used on the framework's thread.

#include "KoruRegFile/LogicalChip.h"
#include "OrbPool/EntityManager.h"
#include "board/chips/internal/ChipFiles.h"
#include "board/description/Description.h"

namespace Board {

struct MadeChip {
  Orb::Ptr<KoruRegFile::LogicalChip> chip;
  bool rewrite;  // its registers cannot be trusted to hold what the status says
};

// With its fields, in front of its tables, which are mounted and hold what survived (ChipTables.h).
// Throws what ChipTables and mounting throw.
MadeChip logicalChipOf(const Chip& description, const ChipFiles& files,
                       const Orb::Ptr<OrbPool::EntityManager>& manager);

}  // namespace Board
