#include "korureg/top/Screen.h"

#define NCURSES_NOMACROS 1
#define NCURSES_WIDECHAR 1
#include <curses.h>
#include <poll.h>
#include <unistd.h>

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <map>
#include <string_view>

#include "korureg/Command.h"

namespace korureg::top {

namespace {

// How long the rest of a key's sequence may take: an escape that is one by itself is to be felt.
constexpr int sequencePatience = 50;  // ms

// Names that are no ASCII are shown as they are where the terminal can.
void chooseLocale() {
  if (!std::setlocale(LC_CTYPE, "") || MB_CUR_MAX == 1) std::setlocale(LC_CTYPE, "C.UTF-8");
}

bool wantsColours() {
  const char* no = std::getenv("NO_COLOR");
  return !no || !*no;
}

attr_t attributeOf(Tint tint) {
  switch (tint) {
    case Tint::title:
      return A_BOLD;
    case Tint::heading:
      return A_UNDERLINE;
    case Tint::wrong:
      return A_BOLD;
    case Tint::faint:
      return A_DIM;
    default:
      return A_NORMAL;
  }
}

short colourOf(Tint tint) {
  switch (tint) {
    case Tint::good:
      return COLOR_GREEN;
    case Tint::waiting:
      return COLOR_YELLOW;
    case Tint::wrong:
      return COLOR_RED;
    default:
      return -1;
  }
}

int keyOf(int code) {
  static const std::map<int, int> keys = {
      {KEY_UP, Key::up},          {KEY_DOWN, Key::down},    {KEY_LEFT, Key::left},
      {KEY_RIGHT, Key::right},    {KEY_PPAGE, Key::pageUp}, {KEY_NPAGE, Key::pageDown},
      {KEY_HOME, Key::home},      {KEY_END, Key::end},      {KEY_BACKSPACE, Key::backspace},
      {KEY_RESIZE, Key::resized}, {KEY_ENTER, Key::enter}};
  const auto found = keys.find(code);
  return found == keys.end() ? 0 : found->second;
}

}  // namespace

struct Screen::Curses {
  SCREEN* screen;
  bool hasColours = false;
};

Screen::Screen() : curses_(std::make_unique<Curses>()) {
  chooseLocale();
  if (::isatty(STDOUT_FILENO) != 1 || ::isatty(STDIN_FILENO) != 1) {
    throw Failure("top needs a terminal; 'chip list' and 'field watch' print lines");
  }
  ::set_escdelay(sequencePatience);
  curses_->screen = ::newterm(nullptr, stdout, stdin);
  if (!curses_->screen) {
    const char* name = std::getenv("TERM");
    throw Failure(std::string("nobody knows the terminal '") + (name ? name : "") +
                  "'; set TERM to what it is, as in TERM=xterm");
  }
  ::cbreak();
  ::noecho();
  ::nonl();
  ::keypad(stdscr, true);
  ::nodelay(stdscr, true);
  if (!wantsColours() || ::start_color() == ERR || ::use_default_colors() == ERR) return;
  curses_->hasColours = true;
  for (const Tint tint : {Tint::good, Tint::waiting, Tint::wrong}) {
    ::init_pair(static_cast<short>(tint), colourOf(tint), -1);
  }
}

Screen::~Screen() {
  ::endwin();
  ::delscreen(curses_->screen);
}

size_t Screen::rows() const { return static_cast<size_t>(getmaxy(stdscr)); }
size_t Screen::columns() const { return static_cast<size_t>(getmaxx(stdscr)); }

void Screen::show(const std::vector<Line>& lines, bool isTyping) {
  ::werase(stdscr);
  const size_t count = std::min(lines.size(), rows());
  for (size_t row = 0; row < count; ++row) {
    const Line& line = lines[row];
    ::wmove(stdscr, static_cast<int>(row), 0);
    int left = static_cast<int>(columns());
    for (const Piece& piece : line.pieces) {
      const bool hasColour = curses_->hasColours && colourOf(piece.tint) >= 0;
      const attr_t attributes = attributeOf(piece.tint) | (line.isChosen ? A_REVERSE : A_NORMAL);
      ::wattr_set(stdscr, attributes, hasColour ? static_cast<short>(piece.tint) : short{0},
                  nullptr);
      // What does not fit would go on in the next line.
      std::wstring wide(piece.text.size() + 1, L'\0');
      const size_t length = std::mbstowcs(wide.data(), piece.text.c_str(), wide.size());
      if (length == static_cast<size_t>(-1)) continue;
      wide.resize(length);
      for (const wchar_t character : wide) {
        const int columnsTaken = ::wcwidth(character);
        if (columnsTaken < 0 || (left -= columnsTaken) < 0) break;
        ::waddnwstr(stdscr, &character, 1);
      }
    }
    if (line.isChosen) {
      while (left-- > 0) ::waddnwstr(stdscr, L" ", 1);
    }
  }
  ::wattr_set(stdscr, A_NORMAL, 0, nullptr);
  ::curs_set(isTyping ? 1 : 0);
  if (isTyping && count > 0) ::wmove(stdscr, static_cast<int>(count) - 1, getcurx(stdscr));
  ::wrefresh(stdscr);
}

int Screen::descriptor() { return STDIN_FILENO; }

std::optional<int> Screen::key() {
  wint_t code = 0;
  const int kind = ::wget_wch(stdscr, &code);
  if (kind == KEY_CODE_YES) return keyOf(static_cast<int>(code));
  if (kind == OK) {
    if (code == '\r') return Key::enter;
    if (code == 127 || code == 8) return Key::backspace;
    return static_cast<int>(code);
  }
  pollfd input = {STDIN_FILENO, POLLIN, 0};
  if (::poll(&input, 1, 0) > 0 && (input.revents & (POLLHUP | POLLERR)) != 0) {
    throw Failure("the terminal has gone");
  }
  return std::nullopt;
}

}  // namespace korureg::top
