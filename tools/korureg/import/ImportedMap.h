#pragma once

// What the files of others say about registers: the model that all readers of this folder fill and
// all writers take. Plain values; one thread.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "board/description/Description.h"

namespace korureg {

struct XmlElement;

// Where something stands. Line 0 is the whole file.
struct FilePlace {
  const std::string* file = nullptr;
  size_t line = 0;
};

// The file cannot be used at all; what() says where, and why.
class ImportError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  ImportError(const FilePlace& place, const std::string& text);
};

struct Access {
  bool reads = true;
  bool writes = true;
  bool operator==(const Access&) const = default;
};

struct ImportedField {
  std::string name;
  Board::Bits bits;
  Access access;
  Board::FieldKind kind = Board::FieldKind::stored;
  Board::Meaning meaning;
  std::string notes;   // for people: what its values are good for
  uint32_t value = 0;  // after a reset
  bool readChanges = false;
  FilePlace place;
};

struct ImportedRegister {
  std::string name;
  uint64_t address = 0;  // in bytes
  uint64_t width = 32;
  Access access;
  std::string type;  // the map's word; empty for what follows from the rest
  bool readChanges = false;
  std::optional<uint64_t> reset;
  std::string description;
  std::vector<ImportedField> fields;
  FilePlace place;
};

struct ImportedMap {
  std::string name;
  std::vector<ImportedRegister> registers;
  std::vector<std::string> notes;  // for people: what the registers lie in
};

// What a reader has to say of its file: the registers, and what could not be held. Keeps within
// bounds whatever the file asks for.
class Import {
 public:
  struct Remark {
    FilePlace place;
    std::string text;
    std::string message() const;
  };
  static constexpr size_t mostRegisters = 100'000;
  static constexpr size_t mostFields = 200'000;

  ImportedMap map;
  bool namesBlocks = false;  // also when there is only one of them

  // Keeps the name of a file, for places in it.
  const std::string& fileNamed(const std::string& path) { return *files_.insert(path).first; }
  // Tells what is left out; the same thing of the same line only once.
  void remark(const FilePlace& place, const std::string& text);
  // Keeps the description of what registers lie in.
  void note(std::string_view name, std::string_view description);
  // Adds a register. Throws ImportError when there are too many.
  void add(ImportedRegister reg);
  // Counts work that a few lines may ask for many times. Throws ImportError beyond all measure.
  void spend(const FilePlace& place, size_t steps = 1);

  const std::vector<Remark>& remarks() const { return remarks_; }
  // How many there were beyond those that are kept.
  size_t omitted() const { return omitted_; }

 private:
  std::set<std::string> files_;
  std::vector<Remark> remarks_;
  std::set<std::pair<size_t, std::string>> told_;
  size_t omitted_ = 0;
  size_t fields_ = 0;
  size_t bytes_ = 0;
  size_t steps_ = 0;
};

// In one line, with blanks between words, and without what would drive a terminal.
std::string inOneLine(std::string_view text);

}  // namespace korureg
