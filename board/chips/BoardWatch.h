#pragma once

// Has the agent follow its system file: reads it again when it, or a register map that it names,
// has changed, once whoever writes it has closed it. A file that cannot be read leaves the chips as
// they are, and is tried again. Used on the framework's thread, served on the event loop.

#include <chrono>
#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Orb/DirectoryWatch.h"
#include "Orb/EventLoop.h"
#include "board/Export.h"
#include "board/chips/BoardKeeper.h"

namespace Board {

class WriteWatch;

class BOARD_EXPORT BoardWatch {
 public:
  BoardWatch(BoardKeeper& keeper, std::string file, Delays delays = {});
  ~BoardWatch();
  BoardWatch(const BoardWatch&) = delete;
  BoardWatch& operator=(const BoardWatch&) = delete;

  // Reads the file and gives the agent what it says. Traces at level 0 what cannot be read.
  void load();
  // Why the file could not be used the last time; empty when it could.
  const std::string& failure() const { return failure_; }

 private:
  // What tells the files of the board that is in force from others: one that is read again and is
  // the same need not be taken apart.
  struct InForce {
    size_t size;
    size_t hash;
    std::map<std::string, std::string> mapStamps;  // by path
    std::vector<std::string> chips;
  };

  void changed();
  void watchFiles();
  bool isBeingWritten();
  std::string stamp() const;
  bool canTellChanges() const;
  void waitForEnd();
  void read(bool isStable);
  void readFile(bool isStable);
  void use(const Description& board);
  bool isInForce(const std::string& text) const;
  void isInForceNow(const std::string& text, const Description& board);
  void failed(const std::string& why);
  void tryAgain();

  BoardKeeper& keeper_;
  const std::string file_;
  const std::string directory_;
  const Delays delays_;
  std::string failure_;
  std::vector<std::string> files_;  // that the chips are described in
  std::string stamp_;               // of these files, when they were read
  std::optional<InForce> inForce_;
  std::chrono::milliseconds delay_;  // until something is tried again that could not be read
  bool isWaiting_ = false;           // for the end of somebody's writing
  std::unique_ptr<Orb::DirectoryWatch> watch_;
  std::unique_ptr<WriteWatch> writes_;
  std::unique_ptr<Orb::EventWatch> timer_;
};

}  // namespace Board
