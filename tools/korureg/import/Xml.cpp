#include "korureg/import/Xml.h"

#include <expat.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>

#include "Orb/Descriptor.h"

namespace korureg {

namespace {

constexpr size_t mostBytes = 64u << 20;
constexpr size_t mostElements = 1'000'000;
constexpr size_t deepest = 64;
constexpr size_t longestText = 65'536;

// (A pipe that nobody writes to would keep its reader waiting; some devices act when opened.)
std::string contentOf(const std::string& path) {
  const FilePlace whole{&path, 0};
  const Orb::Descriptor file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  struct stat status;
  if (file.get() < 0 || ::fstat(file.get(), &status) != 0) {
    throw ImportError(whole, std::strerror(errno));
  }
  if (!S_ISREG(status.st_mode)) throw ImportError(whole, "is no regular file");
  std::string content;
  char block[65536];
  for (;;) {
    const ssize_t count = ::read(file.get(), block, sizeof block);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) throw ImportError(whole, std::strerror(errno));
    if (count == 0) return content;
    content.append(block, static_cast<size_t>(count));
    if (content.size() > mostBytes) throw ImportError(whole, "is larger than 64 MiB");
  }
}

std::string withoutPrefix(const char* name) {
  const char* colon = std::strchr(name, ':');
  return colon ? colon + 1 : name;
}

std::string trimmed(std::string_view text) {
  constexpr std::string_view blanks = " \t\r\n";
  const size_t first = text.find_first_not_of(blanks);
  if (first == text.npos) return {};
  return std::string(text.substr(first, text.find_last_not_of(blanks) - first + 1));
}

void linkChildren(XmlElement& element) {
  for (XmlElement& child : element.children) {
    child.parent = &element;
    linkChildren(child);
  }
}

// Builds the tree. What is wrong ends the parse: no exception may pass through the parser.
class Builder {
 public:
  Builder(const std::string& path, XmlElement& root)
      : path_(path), root_(root), parser_(XML_ParserCreate(nullptr)) {
    if (!parser_) throw std::bad_alloc();
    XML_SetUserData(parser_, this);
    XML_SetElementHandler(parser_, onStart, onEnd);
    XML_SetCharacterDataHandler(parser_, onText);
    XML_SetEntityDeclHandler(parser_, onEntity);
  }
  ~Builder() { XML_ParserFree(parser_); }
  Builder(const Builder&) = delete;
  Builder& operator=(const Builder&) = delete;

  // Returns how many elements there are.
  size_t build(const std::string& content) {
    const int size = static_cast<int>(content.size());
    const bool isSound = XML_Parse(parser_, content.data(), size, 1) == XML_STATUS_OK;
    if (failure_) std::rethrow_exception(failure_);
    if (!isSound) fail(XML_ErrorString(XML_GetErrorCode(parser_)));
    linkChildren(root_);
    return elements_;
  }

 private:
  FilePlace here() const { return {&path_, XML_GetCurrentLineNumber(parser_)}; }
  [[noreturn]] void fail(const std::string& text) const { throw ImportError(here(), text); }

  template <class Step>
  static void guarded(void* self, Step step) noexcept {
    auto& builder = *static_cast<Builder*>(self);
    if (builder.failure_) return;
    try {
      step(builder);
    } catch (...) {
      builder.failure_ = std::current_exception();
      XML_StopParser(builder.parser_, XML_FALSE);
    }
  }

  static void onStart(void* self, const char* name, const char** attributes) {
    guarded(self, [&](Builder& builder) { builder.start(name, attributes); });
  }
  static void onEnd(void* self, const char*) {
    guarded(self, [](Builder& builder) {
      builder.open_.back()->text = trimmed(builder.open_.back()->text);
      builder.open_.pop_back();
    });
  }
  static void onText(void* self, const char* text, int size) {
    guarded(self, [&](Builder& builder) {
      std::string& own = builder.open_.back()->text;
      // (The blanks between elements are no text.)
      const std::string_view piece(text, static_cast<size_t>(size));
      if (!own.empty() || piece.find_first_not_of(" \t\r\n") != piece.npos) own.append(piece);
      if (own.size() > longestText) builder.fail("has a text of more than 64 KiB");
    });
  }
  static void onEntity(void* self, const char*, int, const char*, int, const char*, const char*,
                       const char*, const char*) {
    guarded(self, [](Builder& builder) {
      builder.fail("declares an entity, which a description of registers needs not");
    });
  }

  void start(const char* name, const char** attributes) {
    if (open_.size() == deepest) fail(fmt::format("more than {} elements in each other", deepest));
    XmlElement& element = open_.empty() ? root_ : open_.back()->children.emplace_back();
    element.name = withoutPrefix(name);
    element.place = here();
    for (; *attributes; attributes += 2, count()) {
      if (std::strlen(attributes[1]) > longestText) fail("has a text of more than 64 KiB");
      element.attributes.emplace_back(withoutPrefix(attributes[0]), attributes[1]);
    }
    count();
    open_.push_back(&element);
  }
  void count() {
    if (++elements_ > mostElements) fail(fmt::format("more than {} elements", mostElements));
  }

  const std::string& path_;
  XmlElement& root_;
  const XML_Parser parser_;
  std::vector<XmlElement*> open_;
  size_t elements_ = 0;
  std::exception_ptr failure_;
};

}  // namespace

const XmlElement* XmlElement::child(std::string_view wanted) const {
  for (const XmlElement& each : children) {
    if (each.name == wanted) return &each;
  }
  return nullptr;
}

std::string_view XmlElement::textOf(std::string_view wanted) const {
  const XmlElement* found = child(wanted);
  return found ? std::string_view(found->text) : std::string_view();
}

const std::string* XmlElement::attribute(std::string_view wanted) const {
  for (const auto& [key, value] : attributes) {
    if (key == wanted) return &value;
  }
  return nullptr;
}

XmlDocument::XmlDocument(const std::string& path) {
  const std::string content = contentOf(path);
  elements_ = Builder(path, root_).build(content);
}

}  // namespace korureg
