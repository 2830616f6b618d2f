#include "agent/BoardWatch.h"

#include <filesystem>

#include "Orb/Trace.h"
#include "system/SystemFile.h"

namespace Agent {

namespace {

Orb::TraceHandle trace("korud");

}  // namespace

BoardWatch::BoardWatch(Agent& agent, std::string file) : agent_(agent), file_(std::move(file)) {
  // Editors put a new file in the place of the old one, so the directory is what is watched.
  const auto directory = std::filesystem::absolute(file_).parent_path();
  watch_ = std::make_unique<Orb::DirectoryWatch>(directory.string(), [this] { load(); });
}

void BoardWatch::load() {
  try {
    const System::Board board = System::readFile(file_);
    failure_.clear();
    agent_.boardIs(board);
  } catch (const System::FileError& e) {
    if (failure_ != e.what()) ORB_TRACE(trace, 0, "{}; the chips stay as they are", e.what());
    failure_ = e.what();
  }
}

}  // namespace Agent
