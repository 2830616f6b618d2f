#pragma once

// A map in the forms that other people and programs take. All are whole texts; names and
// descriptions are escaped as the form asks for, whatever they are. Stateless.

#include <string>

#include "korureg/import/ImportedMap.h"

namespace korureg {

// Tables for a document.
std::string markdownText(const ImportedMap& map);
// Addresses, masks, shifts and values for a C program. Throws Failure for two names that are one
// there.
std::string headerText(const ImportedMap& map);
// CMSIS-SVD, of which `map import` makes the same map.
std::string svdText(const ImportedMap& map);
// A page that needs nothing else: bits, meanings, and a search.
std::string htmlText(const ImportedMap& map);

// The text in a page, and in XML.
std::string escapedMarkup(std::string_view text);
// "read/write", as tables of korureg have it.
std::string accessText(const Access& access);
// "raw × 0.5 + 1 V", "signed, raw"; empty for a field whose numbers are the raw ones.
std::string scaleText(const Board::Meaning& meaning);
// "[7:4]"
std::string rangeText(const Board::Bits& bits);

}  // namespace korureg
