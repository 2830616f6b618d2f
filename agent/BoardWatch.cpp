#include "agent/BoardWatch.h"

#include <filesystem>

#include "Orb/Trace.h"
#include "system/SystemFile.h"

namespace Agent {

namespace {

Orb::TraceHandle trace("korud");

}  // namespace

BoardWatch::BoardWatch(Agent& agent, std::string file)
    : agent_(agent), file_(std::move(file)), files_{file_} {
  // Editors put a new file in the place of the old one, so the directory is what is watched.
  const auto directory = std::filesystem::absolute(file_).parent_path();
  watch_ = std::make_unique<Orb::DirectoryWatch>(directory.string(), [this] { changed(); });
}

// Much may go on in the directory.
void BoardWatch::changed() {
  if (stamp() != stamp_) load();
}

std::string BoardWatch::stamp() const {
  std::string stamp;
  for (const std::string& file : files_) stamp += System::fileStamp(file) + ' ';
  return stamp;
}

void BoardWatch::load() {
  // Taken before the files are read: what changes meanwhile is read again.
  stamp_ = stamp();
  try {
    const System::Board board = System::readFile(file_);
    failure_.clear();
    if (files_ != board.files) {
      files_ = board.files;
      stamp_ = stamp();
    }
    agent_.boardIs(board);
  } catch (const System::FileError& e) {
    if (failure_ != e.what()) ORB_TRACE(trace, 0, "{}; the chips stay as they are", e.what());
    failure_ = e.what();
  }
}

}  // namespace Agent
