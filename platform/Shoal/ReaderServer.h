#pragma once

// The writer's side of its readers: accepts them, wakes those that sleep, forgets those that are
// gone. A reader that never drains, dies armed or talks nonsense costs the writer nothing but its
// entry here. Internal to Shoal; served on the event loop.

#include <list>
#include <memory>
#include <string>

#include "Orb/EventLoop.h"
#include "Orb/Export.h"
#include "Shoal/ReaderState.h"
#include "Shoal/TableWriter.h"

namespace Shoal {

class ORB_EXPORT ReaderServer {
 public:
  static constexpr size_t mostReaders = 256;

  // Listens for the readers of `writer`, which it tells when there are any. Throws
  // std::system_error.
  ReaderServer(TableWriter& writer, const std::string& socketPath);
  // Hangs up on all readers.
  ~ReaderServer();
  ReaderServer(const ReaderServer&) = delete;
  ReaderServer& operator=(const ReaderServer&) = delete;

  size_t readerCount() const { return readers_.size(); }

 private:
  struct Reader {
    Orb::Descriptor socket;
    Orb::Descriptor event;
    ReaderMemory memory;
    std::unique_ptr<Orb::EventWatch> watch;
  };
  using Place = std::list<Reader>::iterator;

  void acceptAll();
  void heard(Place reader);
  bool welcome(Reader& reader);
  void drop(Place reader);
  void wake(bool all);

  TableWriter& writer_;
  const std::string socketPath_;
  Orb::Descriptor listener_;
  std::list<Reader> readers_;
  std::unique_ptr<Orb::EventWatch> watch_;
};

}  // namespace Shoal
