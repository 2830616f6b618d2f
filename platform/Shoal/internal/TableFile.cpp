#define XXH_INLINE_ALL
#include "Shoal/internal/TableFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>
#include <xxhash.h>

#include <bit>
#include <cerrno>
#include <cstring>
#include <fstream>

#include "Brio/CorruptionDetectedException.h"
#include "Orb/Descriptor.h"
#include "Orb/Errno.h"
#include "Shoal/StatePath.h"

namespace Shoal {

namespace {

uint64_t identityCheck(const TableIdentity& identity) {
  return XXH3_64bits(&identity, offsetof(TableIdentity, check));
}

void readBootId(uint8_t (&bootId)[16]) {
  std::ifstream in("/proc/sys/kernel/random/boot_id");
  size_t digits = 0;
  for (char c; digits < 2 * sizeof bootId && in.get(c);) {
    if (c == '-') continue;
    const int digit = c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10;
    if (digit < 0 || digit > 15) return;
    bootId[digits / 2] = static_cast<uint8_t>(bootId[digits / 2] << 4 | digit);
    ++digits;
  }
}

TableIdentity newIdentity(const TableFile::Shape& shape) {
  TableIdentity identity = {};
  std::memcpy(identity.magic, tableMagic, sizeof tableMagic);
  identity.byteOrder = tableByteOrder;
  identity.version = tableVersion;
  identity.headerSize = tableHeaderSize;
  identity.slotSize = sizeof(Slot);
  identity.slotCount = std::max(fewestSlots, std::bit_ceil(2 * shape.capacity));
  identity.ringCount = tableRingCount;
  identity.capacity = identity.slotCount / 2;
  identity.hashId = tableHashId;
  identity.generation = shape.generation;
  if (::getrandom(identity.uuid, sizeof identity.uuid, 0) != sizeof identity.uuid) {
    Orb::throwErrno("cannot draw random numbers");
  }
  readBootId(identity.bootId);
  std::memcpy(identity.typeName, shape.typeName.data(), shape.typeName.size());
  identity.check = identityCheck(identity);
  return identity;
}

// Everything that tells a table of ours from anything else, before its contents are looked at.
void verifyIdentity(const TableIdentity& identity, const std::string& path,
                    const std::string& typeName, size_t size) {
  if (std::memcmp(identity.magic, tableMagic, sizeof tableMagic) != 0) {
    throw MountException(fmt::format("{} is no shared table", path));
  }
  if (identity.byteOrder == foreignByteOrder) {
    throw MountException(fmt::format("{} was written by a machine of another byte order", path));
  }
  if (identity.version != tableVersion && identity.byteOrder == tableByteOrder) {
    throw OtherLayoutException(
        fmt::format("{} is of table version {}, not {}", path, identity.version, tableVersion));
  }
  if (identity.check != identityCheck(identity)) {
    throw Brio::CorruptionDetectedException(fmt::format("{}: the header is damaged", path));
  }
  if (identity.hashId != tableHashId || identity.headerSize != tableHeaderSize ||
      identity.slotSize != sizeof(Slot)) {
    throw OtherLayoutException(fmt::format("{} is laid out in a way that is not known here", path));
  }
  const std::string_view found(identity.typeName,
                               ::strnlen(identity.typeName, sizeof identity.typeName));
  if (found != typeName) {
    throw MountException(
        fmt::format("{} is a table of type '{}', not '{}'", path, found, typeName));
  }
  if (!std::has_single_bit(identity.slotCount) || !std::has_single_bit(identity.ringCount) ||
      identity.slotCount < fewestSlots || identity.capacity > identity.slotCount / 2) {
    throw Brio::CorruptionDetectedException(fmt::format("{}: the header makes no sense", path));
  }
  if (size != tableFileSize(identity.ringCount, identity.slotCount)) {
    throw Brio::CorruptionDetectedException(
        fmt::format("{} has {} bytes instead of {}", path, size,
                    tableFileSize(identity.ringCount, identity.slotCount)));
  }
}

void* mapFile(const Orb::Descriptor& file, const std::string& path, size_t size, int protection) {
  void* begin = ::mmap(nullptr, size, protection, MAP_SHARED, file.get(), 0);
  if (begin == MAP_FAILED) Orb::throwErrno("cannot map {}", path);
  return begin;
}

struct stat statusOf(const Orb::Descriptor& file, const std::string& path) {
  struct stat status;
  if (::fstat(file.get(), &status) != 0) Orb::throwErrno("cannot look at {}", path);
  return status;
}

}  // namespace

TableFile::TableFile(void* begin, const TableIdentity& identity, const struct stat& status)
    : identity_(identity),
      mapping_{begin, static_cast<size_t>(status.st_size)},
      device_(status.st_dev),
      inode_(status.st_ino),
      guard_(begin, mapping_.size),
      view_(begin, identity_) {}

TableFile::~TableFile() {
  if (!unplaced_.empty()) ::unlink(unplaced_.c_str());
}

TableFile::Mapping::~Mapping() { ::munmap(begin, size); }

std::unique_ptr<TableFile> TableFile::open(const std::string& path, const std::string& typeName,
                                           Access access) {
  const bool writes = access == Access::write;
  const Orb::Descriptor file(
      ::open(path.c_str(), (writes ? O_RDWR : O_RDONLY) | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!file) {
    if (errno == ENOENT) return nullptr;
    Orb::throwErrno("cannot open {}", path);
  }
  writes ? checkOwnFile(file.get(), path) : checkFile(file.get(), path);
  const struct stat status = statusOf(file, path);
  TableIdentity identity = {};
  const ssize_t count = ::pread(file.get(), &identity, sizeof identity, 0);
  if (count < 0) Orb::throwErrno("cannot read {}", path);
  if (static_cast<size_t>(count) < sizeof identity) {
    throw MountException(fmt::format("{} is no shared table: it has {} bytes", path, count));
  }
  const auto size = static_cast<size_t>(status.st_size);
  verifyIdentity(identity, path, typeName, size);
  void* begin = mapFile(file, path, size, writes ? PROT_READ | PROT_WRITE : PROT_READ);
  return std::unique_ptr<TableFile>(new TableFile(begin, identity, status));
}

std::unique_ptr<TableFile> TableFile::create(const std::string& path, const Shape& shape) {
  if (shape.capacity > mostEntries) {
    throw MountException(fmt::format("{}: {} entries are more than a table can hold ({})", path,
                                     shape.capacity, mostEntries));
  }
  if (shape.typeName.size() >= typeNameSize) {
    throw MountException(fmt::format("{}: the type name '{}' is too long", path, shape.typeName));
  }
  const std::string next = path + ".next";
  ::unlink(next.c_str());
  const Orb::Descriptor file(
      ::open(next.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!file) Orb::throwErrno("cannot make {}", next);
  try {
    setFileAccess(file.get(), next);
    const TableIdentity identity = newIdentity(shape);
    const size_t size = tableFileSize(identity.ringCount, identity.slotCount);
    const int error = ::posix_fallocate(file.get(), 0, static_cast<off_t>(size));
    if (error != 0) Orb::throwError(error, "cannot make room for {}", next);
    const struct stat status = statusOf(file, next);
    void* begin = mapFile(file, next, size, PROT_READ | PROT_WRITE);
    std::memcpy(begin, &identity, sizeof identity);
    auto table = std::unique_ptr<TableFile>(new TableFile(begin, identity, status));
    table->unplaced_ = next;
    const TableView& view = table->view();
    for (uint32_t index = 0; index < view.slotCount(); ++index) {
      view.slot(index).word.store(view.word(0, 0, SlotState::empty, index),
                                  std::memory_order_relaxed);
    }
    return table;
  } catch (...) {
    ::unlink(next.c_str());
    throw;
  }
}

void TableFile::takePlace(const std::string& path) {
  if (::rename(unplaced_.c_str(), path.c_str()) != 0)
    Orb::throwErrno("cannot put in place {}", path);
  unplaced_.clear();
}

const char* TableFile::damage() const {
  if (isCutShort()) return "the file was cut short";
  const bool same = std::memcmp(&view_.header().identity, &identity_, sizeof identity_) == 0;
  return same ? nullptr : "the header was changed";
}

bool TableFile::isAt(const std::string& path) const {
  struct stat status;
  return ::stat(path.c_str(), &status) == 0 && status.st_dev == device_ && status.st_ino == inode_;
}

}  // namespace Shoal
