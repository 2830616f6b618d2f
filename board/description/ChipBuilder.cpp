#include "board/description/ChipBuilder.h"

#include <fmt/format.h>

#include "board/description/internal/FieldTables.h"
#include "board/description/internal/Reading.h"
#include "board/devices/TransportKind.h"

namespace Board {

DescriptionError::~DescriptionError() = default;

namespace {

// The table under that key, made if there is none.
toml::table& within(toml::table& parent, const std::string& key) {
  const auto [entry, isNew] = parent.insert(key, toml::table());
  return *entry->second.as_table();
}

// "REGISTER[7:4]" as register and bits. The bits are looked at where a file's are.
Names takenApart(const std::string& bits) {
  const size_t open = bits.rfind('[');
  if (open == std::string::npos || !bits.ends_with(']')) return {bits, ""};
  return {bits.substr(0, open), bits.substr(open + 1, bits.size() - open - 2)};
}

// A number as one, and anything else as a text: both can be values.
void insertText(toml::table& table, const char* key, const std::string& text) {
  if (!text.empty()) table.insert(key, text);
}

toml::table meaningTable(const FieldText& field, const std::string& bits) {
  toml::table table;
  table.insert("bits", bits);
  insertText(table, "kind", field.kind);
  insertText(table, "description", field.description);
  insertText(table, "unit", field.unit);
  if (field.scale != 1) table.insert("scale", field.scale);
  if (field.offset != 0) table.insert("offset", field.offset);
  if (field.isSigned) table.insert("signed", true);
  for (const NamedValue& value : field.values) {
    within(table, "values").insert_or_assign(value.name, int64_t{value.value});
  }
  return table;
}

}  // namespace

struct ChipBuilder::Impl {
  std::string name;
  toml::table table;
  std::vector<Problem> problems;  // that a table could not have

  void problem(const std::string& text) { problems.push_back({name, 0, "", text}); }
};

ChipBuilder::ChipBuilder(const std::string& name, const std::string& registerMap,
                         const std::string& transport, const std::string& place)
    : impl_(std::make_unique<Impl>()) {
  impl_->name = name;
  impl_->table.insert("name", name);
  impl_->table.insert("register_map", registerMap);
  if (!transportKind(transport)) {
    impl_->problem(
        fmt::format("there is no transport '{}'; there are {}", transport, transportKinds()));
  } else if (place.empty()) {
    impl_->table.insert(transport, true);
  } else {
    impl_->table.insert(transport, place);
  }
}

ChipBuilder::~ChipBuilder() = default;

ChipBuilder& ChipBuilder::field(const FieldText& field) {
  const size_t dot = field.name.find('.');
  if (dot == std::string::npos) {
    impl_->problem(fmt::format("'{}' has to be REGISTER.FIELD", field.name));
    return *this;
  }
  const Names names(field.name.substr(0, dot), field.name.substr(dot + 1));
  const auto [reg, bits] = takenApart(field.bits);
  toml::table& physical = within(within(impl_->table, "physical"), reg);
  toml::table& logical = within(within(impl_->table, "logical"), names.first);
  // Both are called the same, so that messages tell which one is meant.
  const bool isNew = physical.insert(field.name, meaningTable(field, bits)).second &&
                     logical.insert(names.second, toml::table()).second;
  if (!isNew) {
    impl_->problem(fmt::format("there are two fields {}", field.name));
    return *this;
  }
  toml::table& made = *logical.get_as<toml::table>(names.second);
  made.insert("to", joined({reg, field.name}));
  insertText(made, "value", field.value);
  return *this;
}

ChipBuilder& ChipBuilder::status(const FieldText& field) {
  const auto [reg, bits] = takenApart(field.bits);
  toml::table& fields = within(within(impl_->table, "status"), reg);
  if (!fields.insert(field.name, meaningTable(field, bits)).second) {
    impl_->problem(fmt::format("there are two status fields {}", joined({reg, field.name})));
  }
  return *this;
}

ChipBuilder& ChipBuilder::key(const std::string& key, const std::string& value) {
  impl_->table.insert_or_assign(key, value);
  return *this;
}

ChipBuilder& ChipBuilder::key(const std::string& key, const std::vector<std::string>& values) {
  toml::array array;
  for (const std::string& value : values) array.push_back(value);
  impl_->table.insert_or_assign(key, std::move(array));
  return *this;
}

Chip ChipBuilder::chip() const {
  toml::table root;
  root.insert("chip", toml::array());
  root.get_as<toml::array>("chip")->push_back(impl_->table);
  Description described = readTables(root, "");
  std::vector<Problem> problems = impl_->problems;
  problems.insert(problems.end(), described.problems.begin(), described.problems.end());
  if (problems.empty()) return std::move(described.chips.front());
  std::string text;
  for (const Problem& problem : problems) {
    text += fmt::format("{}{}", text.empty() ? "" : "\n", problem.message());
  }
  throw DescriptionError(text);
}

}  // namespace Board
