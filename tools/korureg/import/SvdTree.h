#pragma once

// What CMSIS-SVD leaves to its readers: what a derived element has of its base, and how an array
// repeats one.

#include <string>
#include <string_view>
#include <vector>

#include "korureg/import/Words.h"
#include "korureg/import/Xml.h"

namespace korureg {

// An element, then what it is derived from, and so on.
using SvdChain = std::vector<const XmlElement*>;

// Throws ImportError for a base that is not there, and for a derivation in a circle.
SvdChain chainOf(const XmlElement& element, Import& import);

// The first one that has such a child; null when none has.
const XmlElement* inherited(const SvdChain& chain, std::string_view name);
std::string_view inheritedText(const SvdChain& chain, std::string_view name);
std::optional<uint64_t> inheritedNumber(const SvdChain& chain, std::string_view name);

// The children of these kinds in the container of that name (empty: directly), those of the element
// itself first; of two with one name the first.
std::vector<const XmlElement*> members(const SvdChain& chain, std::string_view container,
                                       std::initializer_list<std::string_view> kinds);

// What the array consists of; one copy without an index for an element that is none.
std::vector<Copy> copiesOf(const XmlElement& element, Import& import);
// The text of a copy: "%s" and "[%s]" have its index.
std::string named(std::string_view text, const Copy& copy);

}  // namespace korureg
