#include "korureg/import/SvdTree.h"

#include <fmt/format.h>

#include <algorithm>
#include <set>

namespace korureg {

namespace {

bool isContainer(std::string_view name) {
  return name == "peripherals" || name == "registers" || name == "fields";
}

std::string_view nameOf(const XmlElement& element) {
  const std::string_view name = element.textOf("name");
  return name.empty() && element.attribute("name") ? *element.attribute("name") : name;
}

// The child of that name, or that of a container; `kind` may be empty.
const XmlElement* below(const XmlElement& in, std::string_view name, std::string_view kind,
                        Import& import) {
  import.spend(in.place, in.children.size());
  for (const XmlElement& each : in.children) {
    if (isContainer(each.name)) {
      if (const XmlElement* found = below(each, name, kind, import)) return found;
    } else if ((kind.empty() || each.name == kind) && nameOf(each) == name) {
      return &each;
    }
  }
  return nullptr;
}

// "TIMER0.CTRL.EN", from that element downwards.
const XmlElement* walk(const XmlElement& from, std::string_view path, std::string_view kind,
                       Import& import) {
  const XmlElement* at = &from;
  while (at) {
    const size_t dot = path.find('.');
    const bool isLast = dot == path.npos;
    at = below(*at, path.substr(0, dot), isLast ? kind : std::string_view(), import);
    if (isLast) return at;
    path.remove_prefix(dot + 1);
  }
  return nullptr;
}

const XmlElement& baseOf(const XmlElement& element, std::string_view path, Import& import) {
  for (const XmlElement* in = element.parent; in; in = in->parent) {
    const XmlElement* found = walk(*in, path, element.name, import);
    if (found && found != &element) return *found;
  }
  throw ImportError(element.place, fmt::format("derived from '{}', which is not there", path));
}

// "0-3", "A-D", "A,B,C"; the numbers from 0 when it is empty.
std::vector<std::string> indexesOf(const XmlElement& element, uint64_t count) {
  const std::string_view text = element.textOf("dimIndex");
  std::vector<std::string> indexes;
  const size_t dash = text.find('-');
  if (text.empty()) {
    for (uint64_t i = 0; i < count; ++i) indexes.push_back(std::to_string(i));
  } else if (dash == 1 && text.size() == 3 && text[0] >= 'A' && text[2] <= 'Z') {
    for (char c = text[0]; c <= text[2]; ++c) indexes.emplace_back(1, c);
  } else if (dash != text.npos) {
    const auto first = numberIn(text.substr(0, dash));
    const auto last = numberIn(text.substr(dash + 1));
    const bool isRange = first && last && *first <= *last && *last - *first < longestArray;
    for (uint64_t i = 0; isRange && i <= *last - *first; ++i) {
      indexes.push_back(std::to_string(*first + i));
    }
  } else {
    for (size_t begin = 0; begin <= text.size();) {
      const size_t end = std::min(text.find(',', begin), text.size());
      indexes.push_back(inOneLine(text.substr(begin, end - begin)));
      begin = end + 1;
    }
  }
  if (indexes.size() == count) return indexes;
  throw ImportError(element.place,
                    fmt::format("dimIndex '{}' does not have {} words", text, count));
}

}  // namespace

SvdChain chainOf(const XmlElement& element, Import& import) {
  SvdChain chain;
  for (const XmlElement* at = &element;;) {
    chain.push_back(at);
    import.spend(at->place);
    const std::string* path = at->attribute("derivedFrom");
    if (!path) return chain;
    at = &baseOf(*at, *path, import);
    if (std::find(chain.begin(), chain.end(), at) != chain.end()) {
      throw ImportError(element.place, fmt::format("'{}' is derived in a circle", nameOf(element)));
    }
  }
}

const XmlElement* inherited(const SvdChain& chain, std::string_view name) {
  for (const XmlElement* each : chain) {
    if (const XmlElement* found = each->child(name)) return found;
  }
  return nullptr;
}

std::string_view inheritedText(const SvdChain& chain, std::string_view name) {
  const XmlElement* found = inherited(chain, name);
  return found ? std::string_view(found->text) : std::string_view();
}

std::optional<uint64_t> inheritedNumber(const SvdChain& chain, std::string_view name) {
  const XmlElement* found = inherited(chain, name);
  return found ? numberOf(*found->parent, name) : std::nullopt;
}

std::vector<const XmlElement*> members(const SvdChain& chain, std::string_view container,
                                       std::initializer_list<std::string_view> kinds) {
  std::vector<const XmlElement*> found;
  std::set<std::string_view> names;
  for (const XmlElement* each : chain) {
    const XmlElement* in = container.empty() ? each : each->child(container);
    if (!in) continue;
    std::set<std::string_view> own;
    for (const XmlElement& child : in->children) {
      if (std::find(kinds.begin(), kinds.end(), child.name) == kinds.end()) continue;
      if (names.contains(nameOf(child))) continue;
      own.insert(nameOf(child));
      found.push_back(&child);
    }
    names.merge(own);
  }
  return found;
}

std::vector<Copy> copiesOf(const XmlElement& element, Import& import) {
  const auto count = numberOf(element, "dim");
  if (!count) return {Copy()};
  if (*count > longestArray) {
    throw ImportError(element.place,
                      fmt::format("a dim of {} is more than {}", *count, longestArray));
  }
  import.spend(element.place, static_cast<size_t>(*count));
  const uint64_t step = numberOf(element, "dimIncrement").value_or(0);
  std::vector<Copy> copies;
  for (std::string& index : indexesOf(element, *count)) {
    copies.push_back({std::move(index), productAt(element.place, step, copies.size())});
  }
  return copies;
}

std::string named(std::string_view text, const Copy& copy) {
  std::string result(text);
  const auto replace = [&](std::string_view mark, const std::string& by) {
    for (size_t at = 0; (at = result.find(mark, at)) != result.npos; at += by.size()) {
      result.replace(at, mark.size(), by);
    }
  };
  if (copy.index.empty()) return result;
  replace("[%s]", "_" + copy.index);
  replace("%s", copy.index);
  return result;
}

}  // namespace korureg
