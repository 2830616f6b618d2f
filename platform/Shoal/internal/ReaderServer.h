#pragma once

// The writer's side of its readers: accepts them, wakes those that sleep, forgets those that are
// gone. A reader that never drains, dies armed or talks nonsense costs the writer nothing but its
// entry here, and one that never greets not even that. Internal to Shoal; served on the event loop.

#include <list>
#include <memory>
#include <string>

#include "Orb/Backoff.h"
#include "Orb/EventLoop.h"
#include "Orb/Export.h"
#include "Orb/Seldom.h"
#include "Shoal/internal/ReaderState.h"
#include "Shoal/internal/TableWriter.h"

namespace Shoal {

class ORB_EXPORT ReaderServer {
 public:
  static constexpr size_t mostReaders = 256;
  // Connections that have not greeted yet: one more, and the oldest of them has to go.
  static constexpr size_t mostStrangers = 32;

  // Listens for the readers of `writer`, which it tells when there are any. Throws
  // std::system_error.
  ReaderServer(TableWriter& writer, const std::string& socketPath);
  // Hangs up on all readers.
  ~ReaderServer();
  ReaderServer(const ReaderServer&) = delete;
  ReaderServer& operator=(const ReaderServer&) = delete;

  size_t readerCount() const { return welcomed_; }

 private:
  struct Reader {
    Orb::Descriptor socket;
    ReaderMemory memory;  // once it has greeted
    Bell bell;
    std::unique_ptr<Orb::EventWatch> watch;
  };
  using Place = std::list<Reader>::iterator;

  void listen();
  void acceptAll();
  void pause(int error);
  void heard(Place reader);
  bool welcome(Reader& reader, const Orb::Descriptor& memory);
  void drop(Place reader);
  void wake(bool all);

  TableWriter& writer_;
  const std::string socketPath_;
  Orb::Descriptor listener_;
  std::list<Reader> readers_;
  size_t welcomed_ = 0;
  Orb::Seldom refusal_;  // that was told
  Orb::Backoff backoff_;
  std::unique_ptr<Orb::EventWatch> watch_;  // of the listener, or of the time to try again
};

}  // namespace Shoal
