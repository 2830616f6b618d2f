// Address tables of uHAL: nodes with addresses in words of 32 bits, and masks for fields.

#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <filesystem>
#include <map>
#include <memory>

#include "korureg/import/Readers.h"
#include "korureg/import/Words.h"

namespace korureg {

namespace {

namespace fs = std::filesystem;

constexpr uint64_t wordBytes = 4;
constexpr uint64_t wholeWord = 0xffffffff;
constexpr size_t deepest = 64;
constexpr size_t mostElements = 1'000'000;  // of all modules

std::string attributeOf(const XmlElement& node, std::string_view name) {
  const std::string* found = node.attribute(name);
  return found ? *found : std::string();
}

std::optional<uint64_t> numberIn(const XmlElement& node, std::string_view name) {
  const std::string* text = node.attribute(name);
  if (!text) return std::nullopt;
  if (const auto number = korureg::numberIn(*text)) return number;
  throw ImportError(node.place, fmt::format("{}: '{}' is no number", name, *text));
}

Access accessOf(const XmlElement& node, Access around) {
  const std::string word = attributeOf(node, "permission");
  if (word.empty()) return around;
  const bool reads = word == "r" || word == "read";
  const bool writes = word == "w" || word == "write";
  if (reads || writes) return {reads, writes};
  if (word == "rw" || word == "wr" || word == "readwrite" || word == "writeread") return {};
  throw ImportError(node.place, fmt::format("no permission: '{}'", word));
}

class UhalReader {
 public:
  explicit UhalReader(Import& import) : import_(import) {}

  // `names` is what stands before the names of the nodes below.
  void readBelow(const XmlElement& holder, const std::string& names, uint64_t base, Access access) {
    if (++depth_ > deepest) throw ImportError(holder.place, "more than 64 nodes in each other");
    std::map<uint64_t, ImportedRegister> masked;  // of nodes with a mask and without a parent
    for (const XmlElement& node : holder.children) {
      import_.spend(node.place);
      if (node.name == "node") {
        readNode(node, names, base, access, masked);
      } else {
        import_.remark(node.place, fmt::format("{} is not held", node.name));
      }
    }
    for (auto& [at, reg] : masked) import_.add(std::move(reg));
    --depth_;
  }

 private:
  void readNode(const XmlElement& node, const std::string& names, uint64_t base, Access around,
                std::map<uint64_t, ImportedRegister>& masked) {
    tellAttributes(node);
    const std::string name = names + attributeOf(node, "id");
    const uint64_t at = sumAt(node.place, base, numberIn(node, "address").value_or(0));
    const Access access = accessOf(node, around);
    const std::string mode = attributeOf(node, "mode");
    if (mode == "block" || mode == "incremental" || mode == "inc") {
      return import_.remark(node.place, fmt::format("'{}' is a block of {} words, which a map does "
                                                    "not hold",
                                                    name, attributeOf(node, "size")));
    }
    if (node.attribute("module")) import_.note(name, attributeOf(node, "description"));
    if (node.attribute("module")) return readModule(node, name, at, access);
    const uint64_t mask = numberIn(node, "mask").value_or(wholeWord);
    if (mask != wholeWord) {
      ImportedRegister& reg =
          masked.try_emplace(at, registerAt(node, name, at, access)).first->second;
      return addField(node, attributeOf(node, "id"), mask, access, reg);
    }
    const bool isFamily = std::any_of(node.children.begin(), node.children.end(),
                                      [](const XmlElement& each) { return !isFieldOf(each); });
    if (isFamily) import_.note(name, attributeOf(node, "description"));
    if (isFamily) return readBelow(node, name + "_", at, access);
    ImportedRegister reg = registerAt(node, name, at, access);
    if (mode == "port" || mode == "non-inc") reg.readChanges = access.reads;
    for (const XmlElement& each : node.children) {
      tellAttributes(each);
      addField(each, attributeOf(each, "id"), *numberIn(each, "mask"), accessOf(each, access), reg);
    }
    import_.add(std::move(reg));
  }

  // Whether the node is bits of the one that it stands in.
  static bool isFieldOf(const XmlElement& node) {
    return node.name == "node" && node.children.empty() && !node.attribute("address") &&
           numberIn(node, "mask").value_or(wholeWord) != wholeWord;
  }

  static ImportedRegister registerAt(const XmlElement& node, const std::string& name, uint64_t at,
                                     Access access) {
    ImportedRegister reg;
    reg.place = node.place;
    reg.name = inOneLine(name);
    reg.address = productAt(node.place, at, wordBytes);
    reg.access = access;
    reg.description = inOneLine(attributeOf(node, "description"));
    return reg;
  }

  void addField(const XmlElement& node, const std::string& name, uint64_t mask, Access access,
                ImportedRegister& reg) {
    requireRoom(node.place, reg.fields.size());
    const int low = mask == 0 ? 0 : std::countr_zero(mask);
    const int size = std::popcount(mask);
    if (mask == 0 || mask > wholeWord || mask >> low != (uint64_t{1} << size) - 1) {
      return import_.remark(node.place, fmt::format("field '{}': the mask {:#x} is not one run of "
                                                    "bits within 32",
                                                    name, mask));
    }
    ImportedField field;
    field.place = node.place;
    field.name = inOneLine(name);
    field.bits = {static_cast<uint8_t>(low), static_cast<uint8_t>(size)};
    field.access = access;
    field.meaning.description = inOneLine(attributeOf(node, "description"));
    reg.fields.push_back(std::move(field));
  }

  void readModule(const XmlElement& node, const std::string& name, uint64_t at, Access access) {
    std::string module = attributeOf(node, "module");
    if (!module.starts_with("file://")) {
      throw ImportError(node.place, fmt::format("module '{}' is no file://", module));
    }
    const fs::path path = fs::path(*node.place.file).parent_path() / module.substr(7);
    const std::string file = path.lexically_normal().string();
    if (std::find(open_.begin(), open_.end(), file) != open_.end()) {
      throw ImportError(node.place, fmt::format("module '{}' has itself as a part", module));
    }
    auto& document = modules_[file];
    if (!document) {
      document = std::make_shared<XmlDocument>(import_.fileNamed(file));
      elements_ += document->elements();
      if (modules_.size() > 100 || elements_ > mostElements) {
        throw ImportError(node.place, "the modules are too many, or too large");
      }
    }
    open_.push_back(file);
    readBelow(document->root(), name + "_", at, access);
    open_.pop_back();
  }

  void tellAttributes(const XmlElement& node) {
    constexpr std::string_view known[] = {"id",   "address", "mask",       "mode",
                                          "size", "module",  "permission", "description"};
    for (const auto& [key, value] : node.attributes) {
      if (std::find(std::begin(known), std::end(known), key) == std::end(known)) {
        import_.remark(node.place, fmt::format("{} of a node is not held", key));
      }
    }
  }

  Import& import_;
  std::map<std::string, std::shared_ptr<XmlDocument>> modules_;
  std::vector<std::string> open_;
  size_t elements_ = 0;
  size_t depth_ = 0;
};

}  // namespace

void readUhal(const XmlElement& top, Import& import) {
  const std::string name = attributeOf(top, "id");
  import.map.name = inOneLine(name);
  UhalReader(import).readBelow(top, "", numberIn(top, "address").value_or(0), accessOf(top, {}));
}

}  // namespace korureg
