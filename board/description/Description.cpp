#include "board/description/Description.h"

#include <fmt/format.h>

namespace Board {

const char* kindName(FieldKind kind) {
  switch (kind) {
    case FieldKind::stored:
      return "stored";
    case FieldKind::pulse:
      return "pulse";
    case FieldKind::write1clear:
      return "write1clear";
    case FieldKind::changing:
      return "volatile";
  }
  return "(unknown)";
}

std::string Problem::message() const {
  const std::string where = place.empty() ? place : place + ": ";
  return chip.empty() ? where + text : fmt::format("{}chip '{}': {}", where, chip, text);
}

}  // namespace Board
