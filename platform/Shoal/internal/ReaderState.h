#pragma once

// What a reader and the writer of a table share: a page of memory that the reader makes and the
// writer maps, and the messages by which they get there. Internal to Shoal.
//
// The reader connects to the writer's socket and sends a greeting with the memory's descriptor,
// sealed against changes of its size. The writer answers, when it has accepted the reader, with the
// bell by which it wakes it; after that the connection only tells each side that the other is gone.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "Keel/GenericSigbusHandler.h"
#include "Orb/Descriptor.h"
#include "Orb/Export.h"

namespace Shoal {

inline constexpr std::string_view readerGreeting = "KoruRd02";
inline constexpr std::string_view writerAnswer = "A";

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
  static ReaderMemory map(const Orb::Descriptor& file);

  ReaderState* state() const { return state_.get(); }
  int fd() const { return file_.get(); }

 private:
  struct Unmap {
    void operator()(ReaderState* state) const;
  };
  Orb::Descriptor file_;
  std::unique_ptr<ReaderState, Unmap> state_;
  std::unique_ptr<Keel::MappedRegion> guard_;  // of another's memory
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

// What wakes a reader, and can never make the writer wait. The two must not share an eventfd: its
// flags and its count are everybody's who has it, and a write to a full one may wait. So the reader
// gets an epoll instance that watches the writer's eventfd, and cannot get at that.
class ORB_EXPORT Bell {
 public:
  // Of no reader.
  Bell() = default;
  // Makes both ends; null when there are no descriptors for them.
  static Bell make(Orb::Descriptor& readersEnd);

  explicit operator bool() const { return static_cast<bool>(event_); }
  void ring() const;
  // For the reader: takes what has been rung; false when this is no such end.
  static bool take(int readersEnd);

 private:
  Orb::Descriptor event_;
};

// A message of a few bytes, with a descriptor; sending never waits. `nothing` has come yet, or what
// is `expected`, or something else, such as the end of the connection.
enum class Received { nothing, expected, other };
ORB_EXPORT bool sendWith(int socket, std::string_view message, int descriptor);
ORB_EXPORT Received receiveWith(int socket, std::string_view expected, Orb::Descriptor& descriptor);

}  // namespace Shoal
