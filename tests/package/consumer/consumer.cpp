#include <cstdio>

#include "KoruRegFile/Utils.h"
#include "Orb/String.h"

// Prints the fields of "left,right", each by way of both libraries.
int main() {
  uint32_t pos = 0;
  std::string_view field;
  while (KoruRegFile::Utils::tokenize("left,right", pos, field, ',')) {
    std::puts(Orb::String(field).c_str());
  }
}
