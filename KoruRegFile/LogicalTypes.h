#pragma once

// Names of logical registers and fields, and what they describe. Plain values, see Orb/Value.h.

#include <cstdint>

#include "KoruRegFile/Export.h"
#include "KoruRegFile/FieldNames.h"
#include "Orb/Collection.h"
#include "Orb/Ptr.h"

namespace KoruRegFile {

class KORU_EXPORT LogicalRegisterName : public RegisterName<LogicalRegisterName> {
 public:
  static constexpr const char* typeName = "KoruRegFile::LogicalRegisterName";
  LogicalRegisterName() = default;
  LogicalRegisterName(Orb::String chipName, Orb::String name)
      : RegisterName(std::move(chipName), std::move(name)) {}
};

class KORU_EXPORT LogicalFieldName : public FieldName<LogicalFieldName, LogicalRegisterName> {
 public:
  static constexpr const char* typeName = "KoruRegFile::LogicalFieldName";
  LogicalFieldName() = default;
  LogicalFieldName(LogicalRegisterName regName, Orb::String name)
      : FieldName(std::move(regName), std::move(name)) {}
};

// A field of a 64-bit logical register: its first bit (0..63), its number of bits (1..32), and the
// value that was last written to it.
class KORU_EXPORT LogicalField : public Orb::Value<LogicalField> {
 public:
  LogicalField() = default;
  // Throws Orb::RangeException.
  LogicalField(LogicalFieldName name, uint8_t start, uint8_t size, uint32_t value);

  static constexpr auto description() {
    using T = LogicalField;
    return Orb::describe("KoruRegFile::LogicalField", Orb::named("name", &T::name_),
                         Orb::named("start", &T::start_), Orb::named("size", &T::size_),
                         Orb::named("value", &T::value_));
  }

  const LogicalFieldName& name() const { return name_; }
  uint8_t start() const { return start_; }
  uint8_t size() const { return size_; }
  uint32_t value() const { return value_; }
  void valueIs(uint32_t value) { value_ = value; }

 private:
  LogicalFieldName name_;
  uint8_t start_ = 0;
  uint8_t size_ = 1;
  uint32_t value_ = 0;
};

// A set of field names, in insertion order. Copies share it until one of them changes, so that
// copying a register costs the same however many fields it has.
class KORU_EXPORT LogicalFieldSet {
 public:
  using Names = Orb::Collection<LogicalFieldName, bool>;

  LogicalFieldSet();
  LogicalFieldSet(const LogicalFieldSet&);
  LogicalFieldSet& operator=(const LogicalFieldSet&);
  ~LogicalFieldSet();

  const Names& names() const;
  // Asks for the memory of names() itself (Orb/Fetch.h).
  void fetch() const;
  void is(const LogicalFieldName& name, bool value);
  void del(const LogicalFieldName& name);

  // The same entries, in whatever order.
  friend bool operator==(const LogicalFieldSet& a, const LogicalFieldSet& b) { return a.equals(b); }

 private:
  struct Shared;
  bool equals(const LogicalFieldSet& other) const;
  Names& own();

  Orb::Ptr<Shared> shared_;
};

// A logical register: the names of its fields, and the 64-bit composition of their values. Prints
// its fields as None and cannot be read back.
class KORU_EXPORT LogicalRegister : public Orb::Value<LogicalRegister> {
 public:
  static constexpr bool parses = false;

  LogicalRegister() = default;
  explicit LogicalRegister(LogicalRegisterName name) : name_(std::move(name)) {}

  static constexpr auto description() {
    using T = LogicalRegister;
    return Orb::describe("KoruRegFile::LogicalRegister", Orb::named("name", &T::name_),
                         Orb::named("field", &T::field_), Orb::named("value", &T::value_));
  }
  // Fails a fatal assertion.
  [[noreturn]] static LogicalRegister fromStrep(Orb::StrepReader& in);

  const LogicalRegisterName& name() const { return name_; }
  const LogicalFieldSet::Names& field() const { return field_.names(); }
  // Asks for the memory of field() itself (Orb/Fetch.h).
  void fetchField() const { field_.fetch(); }
  bool fieldHas(const LogicalFieldName& name) const { return field().has(name); }
  void fieldIs(const LogicalFieldName& name, bool value) { field_.is(name, value); }
  void fieldDel(const LogicalFieldName& name) { field_.del(name); }
  void fieldDelAll() { field_ = LogicalFieldSet(); }
  uint64_t value() const { return value_; }
  void valueIs(uint64_t value) { value_ = value; }

 private:
  LogicalRegisterName name_;
  LogicalFieldSet field_;
  uint64_t value_ = 0;
};

}  // namespace KoruRegFile

template <>
struct Orb::Strep<KoruRegFile::LogicalFieldSet> {
  static constexpr bool parses = false;
  static const char* typeName() { return "Collection"; }
  static void write(std::string& out, const KoruRegFile::LogicalFieldSet&) { out += "None"; }
};
