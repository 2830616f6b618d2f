#pragma once

// A terminal's whole screen: lines of coloured text, and keys. There is one at a time; the terminal
// is as it was when it goes. Used on one thread.

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace korureg::top {

enum class Tint { plain, title, heading, good, waiting, wrong, faint };

struct Piece {
  std::string text;  // has gone through Orb::printable
  Tint tint = Tint::plain;
};

struct Line {
  std::vector<Piece> pieces;
  bool isChosen = false;  // stands out over its whole width
};

// Printable characters are themselves.
namespace Key {
enum : int {
  enter = '\n',
  escape = 27,
  up = 0x110000,
  down,
  left,
  right,
  pageUp,
  pageDown,
  home,
  end,
  backspace,
  resized,
};
}  // namespace Key

class Screen {
 public:
  // Throws Failure when standard output is no terminal, or one that nobody knows.
  Screen();
  ~Screen();
  Screen(const Screen&) = delete;
  Screen& operator=(const Screen&) = delete;

  size_t rows() const;
  size_t columns() const;

  // From the top; sends only what is different. What is too long is cut. The cursor stands at the
  // end of the last line when somebody types there.
  void show(const std::vector<Line>& lines, bool isTyping);

  // The next key, if one was pressed. Throws Failure when the terminal has gone.
  std::optional<int> key();
  // Can be read (poll(2)) when there may be one.
  static int descriptor();

 private:
  struct Curses;
  const std::unique_ptr<Curses> curses_;
};

}  // namespace korureg::top
