#include "korureg/CommandLine.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <memory>
#include <stdexcept>
#include <vector>

#include "KoruRegFile/RegisterBits.h"
#include "korureg/Completion.h"
#include "korureg/Output.h"
#include "korureg/Suggest.h"

namespace korureg {

namespace {

constexpr double mostSeconds = 1e6;

class HelpFormatter : public CLI::Formatter {
 public:
  HelpFormatter() {
    column_width(24);
    label("SUBCOMMAND", "COMMAND");
  }
  // What the usage line says already, such as that a name is required, is not said again.
  std::string make_option_opts(const CLI::Option* option) const override {
    const bool hasValue = option->nonpositional() && option->get_type_size() != 0;
    return hasValue ? " " + option->get_type_name() : "";
  }
  std::string make_option_desc(const CLI::Option* option) const override {
    const std::string byDefault = option->get_default_str();
    return option->get_description() +
           (byDefault.empty() ? "" : fmt::format(" (default {})", byDefault));
  }
};

// The whole text as a number, or false.
template <class Number>
bool parseWhole(const std::string& text, Number& number) {
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  return error == std::errc() && stop == end;
}

// The command as far as it was recognised.
const CLI::App& deepestCommand(const CLI::App& app) {
  const CLI::App* command = &app;
  while (!command->get_subcommands().empty()) command = command->get_subcommands().back();
  return *command;
}

std::string unexpected(const CLI::App& command, std::string argument) {
  if (argument.starts_with('\x01')) argument.erase(0, 1);
  if (argument.starts_with('-')) return fmt::format("there is no option '{}'", argument);
  std::vector<std::string_view> commands;
  for (const CLI::App* known : command.get_subcommands(nullptr)) {
    commands.push_back(known->get_name());
  }
  if (commands.empty()) return fmt::format("'{}' is one argument too many", argument);
  return fmt::format("there is no command '{}'{}", argument, suggestion(argument, commands));
}

// An option with too few or too many values: the error's text begins with its name.
std::string wrongCount(const std::string& text) {
  const std::string option = text.substr(0, text.find(':'));
  return option +
         (text.find("At Most") == std::string::npos ? " needs a value" : " is given twice");
}

std::string problemOf(const CLI::App& app, const CLI::App& command, const CLI::ParseError& error) {
  // Told first: a mistyped option is often the reason for what is missing then.
  const std::vector<std::string> extras = app.remaining(true);
  if (!extras.empty()) return unexpected(command, extras.front());
  if (dynamic_cast<const CLI::ArgumentMismatch*>(&error)) return wrongCount(error.what());
  const bool lacksCommand = command.get_require_subcommand_min() > 0;
  return lacksCommand && dynamic_cast<const CLI::RequiredError*>(&error) ? "a command is required"
                                                                         : error.what();
}

// What is wrong with the command line that `app` has refused with `error`, in one line that says
// which help tells more.
std::string complaint(const CLI::App& app, const CLI::ParseError& error) {
  const CLI::App& command = deepestCommand(app);
  std::string path;
  for (const CLI::App* part = &command; part; part = part->get_parent()) {
    path.insert(0, part->get_name() + " ");
  }
  return fmt::format("{} ({}--help tells more)", problemOf(app, command, error), path);
}

// What no argument begins with: the library looks at the first character, and would take an
// argument in brackets for a list.
constexpr char bracketMark = '\x01';

void takeMarksOff(CLI::App& app) {
  for (CLI::Option* option : app.get_options()) {
    if (option->get_items_expected_max() == 0) continue;
    option->transform(CLI::Validator(
        [](std::string& text) {
          if (text.starts_with(bracketMark)) text.erase(0, 1);
          return std::string();
        },
        ""));
  }
  for (CLI::App* command : app.get_subcommands(nullptr)) takeMarksOff(*command);
}

void parse(CLI::App& app, const std::vector<std::string>& words) {
  takeMarksOff(app);
  std::vector<std::string> arguments;
  for (auto word = words.rbegin(); word != words.rend(); ++word) {
    arguments.push_back(word->starts_with('[') ? bracketMark + *word : *word);
  }
  app.parse(std::move(arguments));
}

// The checks are stricter than the conversion that follows them, which lets through "nan" and wraps
// negative numbers around.

CLI::Validator secondsFrom(double least) {
  return {[=](std::string& text) {
            double value = 0;
            const bool good = parseWhole(text, value) && value >= least && value <= mostSeconds;
            const std::string from = least > 0 ? fmt::format("from {} ", least) : "";
            return good ? ""
                        : fmt::format("'{}' is no number of seconds {}up to {}", text, from,
                                      mostSeconds);
          },
          ""};
}

// To be used as a transformation.
CLI::Validator wholeNumber(uint64_t lowest, uint64_t highest) {
  return {[=](std::string& text) {
            try {
              const uint64_t value = KoruRegFile::parseNumber(text, highest);
              if (value >= lowest) {
                text = std::to_string(value);
                return std::string();
              }
            } catch (const std::invalid_argument&) {
            }
            return fmt::format("'{}' is no whole number from {} to {}", text, lowest, highest);
          },
          ""};
}

// The command, and whether it is to be described.
std::pair<CLI::App*, bool> added(CLI::App& parser, const std::vector<std::string>& words,
                                 const std::string& name, const std::string& text,
                                 const std::string& example) {
  CLI::App* command = parser.add_subcommand(name, text);
  command->group("Commands");
  command->footer("Example:\n  " + example +
                  "\n\nHow to name the map and the way to the chip is told in korureg --help.");
  command->fallthrough();
  return {command, std::find(words.begin(), words.end(), name) != words.end()};
}

// --- Completion

// Whether the word is an option of the command, or of those that it hangs under.
const CLI::Option* optionOf(const CLI::App* command, const std::string& word) {
  for (; command; command = command->get_parent()) {
    for (const CLI::Option* option : command->get_options()) {
      if (option->nonpositional() && option->check_name(word)) return option;
    }
  }
  return nullptr;
}

const CLI::App* subcommandOf(const CLI::App& command, const std::string& word) {
  for (const CLI::App* each : command.get_subcommands(nullptr)) {
    if (each->get_name() == word) return each;
  }
  return nullptr;
}

// Where the last word stands.
struct Cursor {
  const CLI::App* command;
  const CLI::Option* option = nullptr;  // whose value it is
  OperandPlace place;
};

Cursor cursorIn(const CLI::App& app, const std::vector<std::string>& words) {
  Cursor cursor{&app, nullptr, {}};
  for (size_t i = 0; i + 1 < words.size(); ++i) {
    const std::string& word = words[i];
    if (cursor.option) {
      cursor.place.options[cursor.option->get_name()] = word;
      cursor.option = nullptr;
    } else if (const CLI::App* next = subcommandOf(*cursor.command, word)) {
      cursor.place.family = cursor.place.command;
      cursor.place.command = word;
      cursor.command = next;
    } else if (word.starts_with('-')) {
      const CLI::Option* option = optionOf(cursor.command, word);
      if (option && option->get_type_size() != 0) cursor.option = option;
    } else {
      cursor.place.operands.push_back(word);
    }
  }
  return cursor;
}

// What the word at the cursor could be, whatever it begins with; nothing for what only the shell
// knows, files for instance.
std::vector<std::string> candidates(Cursor& cursor, const std::string& begun) {
  std::vector<std::string> all;
  if (cursor.option) return all;
  if (begun.starts_with('-')) {
    for (const CLI::App* part = cursor.command; part; part = part->get_parent()) {
      for (const CLI::Option* option : part->get_options()) {
        for (const std::string& name : option->get_lnames()) all.push_back("--" + name);
      }
    }
    return all;
  }
  if (cursor.place.operands.empty()) {
    for (const CLI::App* command : cursor.command->get_subcommands(nullptr)) {
      all.push_back(command->get_name());
    }
  }
  size_t left = cursor.place.operands.size();
  for (const CLI::Option* operand : cursor.command->get_options()) {
    if (!operand->get_positional()) continue;
    if (left != 0 && operand->get_items_expected_max() == 1) {
      --left;
      continue;
    }
    cursor.place.operand = operand->get_name(true);
    return namesFor(cursor.place);
  }
  return all;
}

int completeWords(const CLI::App& app, const std::vector<std::string>& words) {
  Cursor cursor = cursorIn(app, words);
  const std::string begun = words.empty() ? std::string() : words.back();
  for (const std::string& candidate : candidates(cursor, begun)) {
    // (A name with a control character would be several, or drive the terminal.)
    if (candidate.starts_with(begun) && printable(candidate) == candidate) printLine(candidate);
  }
  return done;
}

}  // namespace

void Command::command(const std::string& name, const std::string& text, const std::string& example,
                      const Describe& describe) {
  const auto [parser, isAsked] = added(*parser_, *words_, name, text, example);
  if (isAsked) describe({*parser, *words_, *exitCode_});
}

void Command::family(const std::string& name, const std::string& text, const std::string& example,
                     const Describe& describe) {
  const auto [parser, isAsked] = added(*parser_, *words_, name, text, example);
  parser->require_subcommand(1);
  if (isAsked) describe({*parser, *words_, *exitCode_});
}

void Command::operand(const char* name, std::string& place, const char* text, Operand need) {
  parser_->add_option(name, place, text)->required(need == Operand::required);
}

void Command::operands(const char* name, std::vector<std::string>& place, const char* text,
                       Operand need) {
  parser_->add_option(name, place, text)->required(need == Operand::required);
}

void Command::flag(const char* name, bool& place, const char* text) {
  parser_->add_flag(name, place, text);
}

void Command::option(const char* name, const char* value, std::string& place, const char* text,
                     const Check& check) {
  CLI::Option* option = parser_->add_option(name, place, text)->type_name(value);
  if (check) option->check(check);
}

void Command::seconds(const char* name, double& place, const char* text, double least) {
  CLI::Option* option = parser_->add_option(name, place, text);
  option->type_name("SECONDS")->check(secondsFrom(least));
  if (place != 0) option->capture_default_str();
}

void Command::number(const char* name, const char* value, uint64_t& place, const char* text) {
  CLI::Option* option = parser_->add_option(name, place, text);
  option->type_name(value)->transform(wholeNumber(0, UINT64_MAX))->capture_default_str();
}

void Command::number(const char* name, const char* value, std::optional<unsigned>& place,
                     uint64_t lowest, uint64_t highest, const char* text) {
  parser_->add_option(name, place, text)->type_name(value)->transform(wholeNumber(lowest, highest));
}

void Command::number(const char* name, const char* value, unsigned& place,
                     std::initializer_list<unsigned> choices, const char* text) {
  const std::vector<unsigned> known(choices);
  parser_->add_option(name, place, text)->type_name(value)->check(CLI::IsMember(known));
}

void Command::each(const std::string& name, const char* value, const char* text,
                   const std::function<void(const std::string&)>& given) {
  if (!value) {
    parser_->add_flag_callback(
        name, [given] { given(""); }, text);
    return;
  }
  parser_->add_option_function<std::string>(name, given, text)->type_name(value);
}

void Command::count(const char* name, const char* text, const std::function<void(int)>& given) {
  parser_->add_flag_function(
      name, [given](int64_t count) { given(static_cast<int>(count)); }, text);
}

void Command::runs(const std::function<int()>& run) {
  parser_->callback([run, exitCode = exitCode_] { *exitCode = run(); });
}

int runCommandLine(int argc, char** argv, const Command::Describe& describe) {
  CLI::App app("Read and write the registers of a chip by name.", "korureg");
  app.footer(
      "Example:\n  korureg --map examples/maps/ina219.csv --mock read CONFIGURATION\n\n"
      "Exit status: 0 done, 1 an access failed, 2 the command line cannot be used.");
  app.formatter(std::make_shared<HelpFormatter>());
  app.set_help_flag("-h,--help", "show this help");
  app.require_subcommand(1);
  std::vector<std::string> words(argv + std::min(argc, 1), argv + argc);
  const bool isCompletion = words.size() >= 2 && words[0] == "complete-words" && words[1] == "--";
  if (isCompletion) words.erase(words.begin(), words.begin() + 2);
  int exitCode = done;
  describe({app, words, exitCode});
  app.set_version_flag("--version", "korureg " KORU_VERSION, "show the version");
  if (isCompletion) return completeWords(app, words);
  try {
    parse(app, words);
  } catch (const CLI::Success& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    printError(complaint(app, e));
    return usage;
  }
  return exitCode;
}

}  // namespace korureg
