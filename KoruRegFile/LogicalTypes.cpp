#include "KoruRegFile/LogicalTypes.h"

#include <algorithm>

#include "Orb/Assert.h"

namespace KoruRegFile {

LogicalField::LogicalField(LogicalFieldName name, uint8_t start, uint8_t size, uint32_t value)
    : name_(std::move(name)), start_(start), size_(size), value_(value) {
  if (start > 63) {
    Orb::throwRangeException("KoruRegFile::LogicalField::start < 0 or > 63 not allowed");
  }
  if (static_cast<uint8_t>(size - 1) > 31) {
    Orb::throwRangeException("KoruRegFile::LogicalField::size < 1 or > 32 not allowed");
  }
}

struct LogicalFieldSet::Shared : Orb::PtrInterface {
  Names names;
};

LogicalFieldSet::LogicalFieldSet() = default;
LogicalFieldSet::LogicalFieldSet(const LogicalFieldSet&) = default;
LogicalFieldSet& LogicalFieldSet::operator=(const LogicalFieldSet&) = default;
LogicalFieldSet::~LogicalFieldSet() = default;

const LogicalFieldSet::Names& LogicalFieldSet::names() const {
  static const Names none;
  return shared_ ? shared_->names : none;
}

void LogicalFieldSet::fetch() const {
  if (!shared_) return;
  Orb::fetchLine(shared_.get());
  Orb::fetchLine(reinterpret_cast<const char*>(shared_.get() + 1) - 1);
}

// What is about to be changed must belong to this set alone.
LogicalFieldSet::Names& LogicalFieldSet::own() {
  if (shared_ && shared_->referenceCount() == 1) return shared_->names;
  const auto copy = Orb::make<Shared>();
  for (const auto& [name, value] : names()) copy->names.is(name, value);
  shared_ = copy;
  return shared_->names;
}

void LogicalFieldSet::is(const LogicalFieldName& name, bool value) {
  if (const bool* found = names().find(name); found && *found == value) return;
  own().is(name, value);
}

void LogicalFieldSet::del(const LogicalFieldName& name) {
  if (names().has(name)) own().del(name);
}

bool LogicalFieldSet::equals(const LogicalFieldSet& other) const {
  if (shared_ == other.shared_) return true;
  const Names& mine = names();
  const Names& theirs = other.names();
  return mine.size() == theirs.size() &&
         std::all_of(mine.begin(), mine.end(), [&theirs](const auto& entry) {
           const bool* found = theirs.find(entry.first);
           return found && *found == entry.second;
         });
}

LogicalRegister LogicalRegister::fromStrep(Orb::StrepReader&) {
  Orb::assertionFailed("No String constructor for LogicalRegister - has collection", "false",
                       __FILE__, __LINE__);
}

}  // namespace KoruRegFile
