#include "Shoal/TableInfo.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "Brio/CorruptionDetectedException.h"
#include "Orb/Descriptor.h"
#include "Orb/Errno.h"
#include "Shoal/internal/ReaderState.h"
#include "Shoal/internal/TableFile.h"

namespace Shoal {

namespace {

Orb::Descriptor openIfThere(const std::string& path) {
  Orb::Descriptor file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!file && errno != ENOENT && errno != ENOTDIR) Orb::throwErrno("cannot open {}", path);
  return file;
}

// Whether a search for the entry's key ends at another slot.
bool hasStrayed(const TableView& view, const TableView::Entry& entry) {
  try {
    return view.find(entry.key).index != entry.index;
  } catch (const Brio::CorruptionDetectedException&) {
    return false;  // the damage on the way is told for itself
  }
}

// Others than its user may not open the lock file; a writer listens as long as it lives.
std::optional<pid_t> listenerAt(const std::string& path) {
  const Orb::Descriptor socket = connectTo(path);
  ucred peer = {};
  socklen_t size = sizeof peer;
  if (!socket || ::getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
    return std::nullopt;
  }
  return peer.pid;
}

}  // namespace

std::optional<std::string> tableTypeName(const TablePaths& paths) {
  const Orb::Descriptor file = openIfThere(paths.table);
  if (!file) return std::nullopt;
  char name[typeNameSize] = {};
  // What cannot be read has no name; opening it says why.
  [[maybe_unused]] const ssize_t count =
      ::pread(file.get(), name, sizeof name, offsetof(TableIdentity, typeName));
  return std::string(name, ::strnlen(name, sizeof name));
}

std::optional<TableInfo> tableInfo(const TablePaths& paths) {
  checkDirectories(paths);
  const auto typeName = tableTypeName(paths);
  const auto file =
      typeName ? TableFile::open(paths.table, *typeName, TableFile::Access::read) : nullptr;
  if (!file) return std::nullopt;
  const TableView& view = file->view();
  TableInfo info;
  info.typeName = *typeName;
  info.slotCount = view.slotCount();
  info.generation = file->identity().generation;
  TableView::Entry entry;
  for (uint32_t index = 0; index < info.slotCount; ++index) {
    if (!view.read(index, entry)) {
      info.damagedSlots.push_back(index);
    } else if (entry.state != SlotState::empty && hasStrayed(view, entry)) {
      info.strayedSlots.push_back(index);
    } else if (entry.state == SlotState::present) {
      info.entries.push_back({entry.key, entry.value});
    }
  }
  // Marked only after another file has taken the place.
  info.isWronglySuperseded = file->isSuperseded() && file->isAt(paths.table);
  info.isCutShort = file->isCutShort();
  return info;
}

std::optional<pid_t> tableWriter(const TablePaths& paths) {
  Orb::Descriptor file(::open(paths.lock.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!file && errno == EACCES) return listenerAt(paths.socket);
  if (!file && errno != ENOENT && errno != ENOTDIR) {
    Orb::throwErrno("cannot open {}", paths.lock);
  }
  if (!file) return std::nullopt;
  struct flock lock = {};
  lock.l_type = F_RDLCK;
  lock.l_whence = SEEK_SET;
  if (::fcntl(file.get(), F_GETLK, &lock) != 0) Orb::throwErrno("cannot look at {}", paths.lock);
  if (lock.l_type == F_UNLCK) return std::nullopt;
  return lock.l_pid;
}

}  // namespace Shoal
