#include "simulator/model/Ledger.h"

#include <cstring>

namespace Simulator {

void appendByte(std::string& line, uint8_t byte) {
  constexpr char digits[] = "0123456789abcdef";
  line += ' ';
  line += digits[byte >> 4];
  line += digits[byte & 15];
}

void appendAddress(std::string& line, unsigned address, bool isRead) {
  appendByte(line, static_cast<uint8_t>(address));
  line += isRead ? 'r' : 'w';
}

void appendFailure(std::string& line, int error, bool isShort) {
  if (isShort) line += " ! short";
  if (error == 0) return;
  const char* name = ::strerrorname_np(error);
  line += " ! ";
  line += name ? name : "error";
}

}  // namespace Simulator
