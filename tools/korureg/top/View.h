#pragma once

// What "korureg top" shows of a board, and what its keys do. Knows of no terminal. One thread.

#include <optional>
#include <string>
#include <vector>

#include "korureg/top/Board.h"
#include "korureg/top/Screen.h"

namespace korureg::top {

class View {
 public:
  explicit View(Board& board) : board_(board) {}

  // What fills a screen of that size.
  std::vector<Line> lines(size_t rows, size_t columns, Board::Clock::time_point now);
  void press(int key);

  bool isOver() const { return isOver_; }
  // What happens is shown when this ends.
  bool isFrozen() const { return isFrozen_; }
  bool isTyping() const { return prompt_.kind == Prompt::Kind::filter || isEditing(); }
  void say(std::string text) { message_ = std::move(text); }

 private:
  // One line of the list: a chip; or a register of the open chip, or one of its fields.
  struct Row {
    size_t index;  // of the chip or register
    std::optional<size_t> field;
  };
  // What is typed below.
  struct Prompt {
    enum class Kind { none, filter, edit, confirmWrite, confirmRead };
    Kind kind = Kind::none;
    std::string text = {};
    std::string question = {};  // that is to be confirmed
    AgentField field = {};      // that is edited
    std::string reg = {};       // that is read
  };
  enum class Sort { asListed, byName, byTrouble };

  bool isEditing() const { return prompt_.kind == Prompt::Kind::edit; }
  bool isOpen() const { return !board_.opened().empty(); }
  std::vector<Row> rows() const;
  std::vector<Row> chipRows() const;
  std::vector<Row> registerRows() const;
  bool passes(const std::string& name) const;

  Line title(Board::Clock::time_point now) const;
  Line heading() const;
  Line rowLine(const Row& row, Board::Clock::time_point now) const;
  Line chipLine(const Chip& chip, Board::Clock::time_point now) const;
  Line registerLine(const Register& reg) const;
  Line fieldLine(const Register& reg, const AgentField& field) const;
  std::vector<Line> ruler() const;
  Line bottom() const;
  std::vector<Line> help() const;

  void move(int key);
  void typed(int key);
  void confirmed(bool isSo);
  void command(int key);
  void enter();
  void leave();
  void read();
  void edit();
  void endEdit();

  Board& board_;
  size_t chosen_ = 0;
  size_t first_ = 0;  // row that is shown
  size_t page_ = 1;
  size_t spare_ = 0;  // columns that a name has more than on a narrow screen
  std::string chosenChip_;
  std::string filter_;
  Sort sort_ = Sort::asListed;
  Prompt prompt_;
  std::string message_;
  bool isFrozen_ = false;
  bool isHelp_ = false;
  bool isOver_ = false;
};

}  // namespace korureg::top
