#include "Orb/String.h"

#include <cstring>
#include <limits>
#include <new>
#include <ostream>
#include <stdexcept>

namespace Orb {

String::String(const char* text) {
  if (text == nullptr) throw std::logic_error("Orb::String cannot be made from a null pointer");
  rep_ = create(text);
}

String::String(std::string_view text) : rep_(create(text)) {}

String::Rep* String::create(std::string_view text) {
  if (text.empty()) return nullptr;
  if (text.size() > std::numeric_limits<uint32_t>::max()) {
    throw std::length_error("Orb::String is limited to 4 GiB");
  }
  void* memory = ::operator new(sizeof(Rep) + text.size() + 1);
  Rep* rep = new (memory) Rep{{}, static_cast<uint32_t>(text.size())};
  char* to = reinterpret_cast<char*>(rep + 1);
  std::memcpy(to, text.data(), text.size());
  to[text.size()] = '\0';
  rep->references.add();
  return rep;
}

void String::destroy(Rep* rep) noexcept {
  rep->~Rep();
  ::operator delete(rep);
}

std::ostream& operator<<(std::ostream& out, const String& s) { return out << s.view(); }

}  // namespace Orb
