#pragma once

// The reading side of a shared table: maps it, hears of its changes, and keeps serving the last
// contents when its writer is gone. Internal to Shoal; used on the framework's thread and served on
// the event loop.
//
// After a change the reader is told at least once of every key whose value differs, and then sees
// the latest value; values in between may be missed. It sleeps without any periodic wake-up; a
// writer that does not take it is tried again, less and less often.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Orb/Backoff.h"
#include "Orb/DirectoryWatch.h"
#include "Orb/EventLoop.h"
#include "Orb/Export.h"
#include "Orb/LoopTask.h"
#include "Shoal/MountStatus.h"
#include "Shoal/StatePath.h"
#include "Shoal/internal/ReaderState.h"
#include "Shoal/internal/TableFile.h"

namespace Shoal {

// Made with std::make_shared; close() before the last reference goes. Callbacks may call close().
class ORB_EXPORT TableReader : public std::enable_shared_from_this<TableReader> {
 public:
  struct Callbacks {
    std::function<void(uint64_t key)> changed;
    std::function<void()> statusChanged;
    // False when changes are known to be on their way, true when all have been told.
    std::function<void(bool)> quiesced;
    // A part of the table turned out to be damaged.
    std::function<void(const std::string& message)> corrupted;
  };

  TableReader(const TablePaths& paths, std::string typeName, Callbacks callbacks);

  // Maps the table if it exists and begins to listen. Throws what TableFile::open() throws.
  void open();
  void close();

  MountStatus status() const {
    return !closed_ && file_ && file_->damage() ? MountStatus::damaged : status_;
  }
  // Of no table until there is one. Stays where it is, whatever it shows.
  const TableView& view() const { return view_; }
  uint64_t generation() const { return file_ ? file_->identity().generation : 0; }
  // Marks the table as damaged after an access has thrown, and says so once.
  void accessFailed(const std::string& message);

 private:
  void attach();
  int connect();
  void retryLater(const std::string& why);
  void heardWriter();
  void hungUp();
  void woken();
  bool catchUp(int round);
  void drain();
  void tell(uint64_t first, uint64_t last);
  void scan(uint64_t head);
  std::vector<uint64_t> newerKeys(const TableView& view, uint64_t head);
  void tellSlot(uint32_t index);
  void tellAll(const std::vector<uint64_t>& keys);
  void lookAgain();
  void switchFile(std::unique_ptr<TableFile> next);
  void detach();
  void statusIs(MountStatus status);
  void quiescedIs(bool quiesced);

  const TablePaths paths_;
  const std::string typeName_;
  const Callbacks callbacks_;
  std::unique_ptr<TableFile> file_;
  TableView view_;       // of the file, one step nearer
  uint64_t cursor_ = 0;  // the latest change that was told
  MountStatus status_ = MountStatus::unmounted;
  bool quiesced_ = false;
  bool closed_ = true;
  bool accepted_ = false;
  std::string refusal_;  // why the present file was refused, as last said
  Orb::Descriptor socket_;
  SocketId attachedTo_;  // the socket that was connected to, or tried
  std::chrono::steady_clock::time_point acceptedAt_;
  Orb::Backoff backoff_;  // between attempts at the same socket
  ReaderMemory memory_;
  Orb::Descriptor bell_;  // this reader's end
  Orb::LoopTask again_;   // goes on catching up
  std::unique_ptr<Orb::EventWatch> socketWatch_;
  std::unique_ptr<Orb::EventWatch> bellWatch_;
  std::unique_ptr<Orb::EventWatch> retry_;
  std::unique_ptr<Orb::DirectoryWatch> directoryWatch_;
};

}  // namespace Shoal
