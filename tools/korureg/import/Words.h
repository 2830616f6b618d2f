#pragma once

// How the formats write numbers, bits and accesses. Stateless.

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "korureg/import/Xml.h"

namespace korureg {

// 16, 0x10, 0b10000, #10000, 8'h10 and 'h10, with a suffix k, M, G or T; nothing for anything else.
std::optional<uint64_t> numberIn(std::string_view text);

// The number under that name, or nothing when it is not there. Throws ImportError, with the line,
// for anything else.
std::optional<uint64_t> numberOf(const XmlElement& element, std::string_view name);

// Adds without going round. Throws ImportError beyond 2^63.
uint64_t sumAt(const FilePlace& place, uint64_t a, uint64_t b);
uint64_t productAt(const FilePlace& place, uint64_t a, uint64_t b);

// The word as CMSIS-SVD and IP-XACT have it; nothing for another one.
std::optional<Access> accessIn(std::string_view word);

// Tells of what a writing or reading of the field does beside keeping it; `modified` and `read` are
// the words of the formats, which are the same in both.
void tellEffects(Import& import, ImportedField& field, std::string_view modified,
                 std::string_view read);

// Adds a named value, or tells why it cannot be one.
void addValue(Import& import, ImportedField& field, const FilePlace& place, std::string_view name,
              std::string_view value);

// What the value is good for, for people.
void addNote(ImportedField& field, std::string_view name, std::string_view description);

// Throws ImportError when a register with so many fields cannot have another one.
void requireRoom(const FilePlace& place, size_t fields);

// Tells of every child that is none of those.
void tellOthers(Import& import, const XmlElement& element,
                std::initializer_list<std::string_view> known);

// The part of a register's reset value that a field has.
uint32_t partOf(uint64_t value, const Board::Bits& bits);

// One element of an array.
struct Copy {
  std::string index;  // empty for what is no array
  uint64_t offset = 0;
};
// The most elements of one array.
inline constexpr uint64_t longestArray = 65'536;

}  // namespace korureg
