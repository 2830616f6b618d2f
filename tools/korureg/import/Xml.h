#pragma once

// An XML file as a tree that knows its lines. Entities of the file's own are refused, and nothing
// that it names is opened; depth, size and number of elements are bounded. One thread.

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "korureg/import/ImportedMap.h"

namespace korureg {

struct XmlElement {
  std::string name;  // without the prefix of its namespace
  std::string text;  // its own, without blanks around it
  std::vector<std::pair<std::string, std::string>> attributes;  // likewise without prefixes
  std::vector<XmlElement> children;
  const XmlElement* parent = nullptr;
  FilePlace place;

  // The first child of that name, or null.
  const XmlElement* child(std::string_view wanted) const;
  // Its text; empty when there is none.
  std::string_view textOf(std::string_view wanted) const;
  // Null when there is none.
  const std::string* attribute(std::string_view wanted) const;
};

class XmlDocument {
 public:
  // The path outlives all places. Throws ImportError, with the line.
  explicit XmlDocument(const std::string& path);
  XmlDocument(const XmlDocument&) = delete;
  XmlDocument& operator=(const XmlDocument&) = delete;

  const XmlElement& root() const { return root_; }
  // How many there are, with the attributes.
  size_t elements() const { return elements_; }

 private:
  XmlElement root_;
  size_t elements_ = 0;
};

}  // namespace korureg
