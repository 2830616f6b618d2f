#pragma once

// What a reader and the writer of a table share: a page of memory that the reader makes and the
// writer maps, and the messages by which they get there. Internal to Shoal.
//
// The reader connects to the writer's socket and sends a greeting with two descriptors: the memory,
// sealed against changes of its size, and an eventfd on which it sleeps. The writer answers when it
// has accepted the reader; after that the connection only tells each side that the other is gone.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "Orb/Descriptor.h"
#include "Orb/Export.h"

namespace Shoal {

inline constexpr char readerGreeting[8] = {'K', 'o', 'r', 'u', 'R', 'd', '0', '1'};
inline constexpr char writerAnswer = 'A';

struct ReaderState {
  // 1 while the reader sleeps, or is about to; whoever takes it back to 0 is the one to act: the
  // writer by waking the reader.
  std::atomic<uint32_t> armed;
  uint32_t reserved;
  // The latest change that the reader has seen; for whoever looks at the system.
  std::atomic<uint64_t> cursor;
};
inline constexpr size_t readerStateSize = 4096;
static_assert(offsetof(ReaderState, cursor) == 8);

// The memory of a ReaderState.
class ORB_EXPORT ReaderMemory {
 public:
  // Makes it; throws std::system_error.
  static ReaderMemory make();
  // Maps what somebody else has made; null state when it is not what it should be.
  static ReaderMemory map(Orb::Descriptor file);

  ReaderState* state() const { return state_.get(); }
  int fd() const { return file_.get(); }

 private:
  struct Unmap {
    void operator()(ReaderState* state) const;
  };
  Orb::Descriptor file_;
  std::unique_ptr<ReaderState, Unmap> state_;
};

// A connected or a listening socket at `path`, however long that is; no descriptor when there is
// nobody, with errno set.
ORB_EXPORT Orb::Descriptor connectTo(const std::string& path);
ORB_EXPORT Orb::Descriptor listenAt(const std::string& path);

// Tells a socket from the one that was at the same path before; all 0 when there is none.
struct SocketId {
  uint64_t device = 0;
  uint64_t inode = 0;
  int64_t seconds = 0;  // when it got its name
  int64_t nanoseconds = 0;
  bool operator==(const SocketId&) const = default;
};
ORB_EXPORT SocketId socketAt(const std::string& path);

// Send and receive the greeting and its two descriptors; false when that fails.
ORB_EXPORT bool sendGreeting(int socket, int memory, int event);
ORB_EXPORT bool receiveGreeting(int socket, Orb::Descriptor& memory, Orb::Descriptor& event);

}  // namespace Shoal
