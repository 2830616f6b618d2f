#pragma once

// What the sub-commands of korureg share: the options that stand before them all, the errors they
// end with, and how a command says what it takes and does.

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "board/devices/TransportKind.h"

namespace CLI {
class App;
}  // namespace CLI

namespace korureg {

// The process's exit codes.
enum ExitCode {
  done = 0,
  failed = 1,
  usage = 2,
  partly = 3,  // done, but for something that was told
};

// Something the user asked for that cannot be: ends with `usage`, before anything is accessed.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Something that did not work out: ends with `failed`.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The options of the whole tool.
struct Options {
  std::string map;
  std::vector<std::pair<const Board::KindRow*, std::string>>
      places;  // of the kinds that were given
  bool json = false;
  std::optional<unsigned> addrBlockSize;
};

// The tool, a family of commands, or one command: what it takes from the command line, and what it
// does. A handle, which may be copied; the parser behind it is CommandLine.cpp's own. What is taken
// goes to places that outlive the parse.
class Command {
 public:
  using Describe = std::function<void(Command)>;
  // Why a value cannot be; empty when it can.
  using Check = std::function<std::string(const std::string&)>;
  enum class Operand { required, optional };

  Command(CLI::App& parser, const std::vector<std::string>& words, int& exitCode)
      : parser_(&parser), words_(&words), exitCode_(&exitCode) {}

  // Adds a command whose help ends with an example. It is described only when its name is among the
  // words of the command line. Options of the whole tool may follow it.
  void command(const std::string& name, const std::string& text, const std::string& example,
               const Describe& describe);
  // The same for a command that consists of others.
  void family(const std::string& name, const std::string& text, const std::string& example,
              const Describe& describe);

  // Operands, in the order in which they stand; a list takes all that are left.
  void operand(const char* name, std::string& place, const char* text,
               Operand need = Operand::required);
  void operands(const char* name, std::vector<std::string>& place, const char* text,
                Operand need = Operand::required);

  // Options. `value` is what the help calls the value.
  void flag(const char* name, bool& place, const char* text);
  void option(const char* name, const char* value, std::string& place, const char* text,
              const Check& check = nullptr);
  // In seconds; the help tells a default that is not 0.
  void seconds(const char* name, double& place, const char* text, double least = 0);
  // Whole numbers, in any base.
  void number(const char* name, const char* value, uint64_t& place, const char* text);
  void number(const char* name, const char* value, std::optional<unsigned>& place, uint64_t lowest,
              uint64_t highest, const char* text);
  void number(const char* name, const char* value, unsigned& place,
              std::initializer_list<unsigned> choices, const char* text);
  // Calls back for each time that it is given; with an empty text for one without a value, which
  // has no name for it.
  void each(const std::string& name, const char* value, const char* text,
            const std::function<void(const std::string&)>& given);
  // Counts how often it is given.
  void count(const char* name, const char* text, const std::function<void(int)>& given);

  // What the command does, which ends the process with this code.
  void runs(const std::function<int()>& run);

 private:
  CLI::App* parser_;
  const std::vector<std::string>* words_;
  int* exitCode_;
};

// Each adds its commands to `app`. `options` outlives the parse.
void addMapCommands(Command app, Options& options);
void addListCommand(Command app, Options& options);
void addReadCommand(Command app, Options& options);
void addWriteCommand(Command app, Options& options);
void addWaitCommand(Command app, Options& options);
void addDumpCommand(Command app, Options& options);
void addWatchCommand(Command app, Options& options);
void addChipCommands(Command app, Options& options);
void addFieldCommands(Command app, Options& options);
void addRegisterCommands(Command app, Options& options);
void addHardwareCommands(Command app, Options& options);
void addApplyCommand(Command app, Options& options);
void addVerifyCommand(Command app, Options& options);
void addPeekCommands(Command app, Options& options);
void addProbeCommand(Command app, Options& options);
void addLogCommand(Command app, Options& options);
void addRecordCommand(Command app, Options& options);
void addShadowCommands(Command app, Options& options);

// The most addresses that a register number stands for on any transport.
inline constexpr unsigned largestBlockSize = 4;

// Adds the option that says so.
void addBlockSize(Command command, Options& options);

}  // namespace korureg
