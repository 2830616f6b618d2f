#include "korureg/CommandLine.h"

#include <fmt/format.h>

#include <charconv>
#include <cmath>
#include <stdexcept>
#include <vector>

#include "KoruRegFile/RegisterBits.h"
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

}  // namespace

namespace {

// What no argument begins with: the library looks at the first character.
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

}  // namespace

void parseArguments(CLI::App& app, int argc, char** argv) {
  takeMarksOff(app);
  std::vector<std::string> arguments;
  for (int i = argc; --i > 0;) {
    const std::string argument = argv[i];
    arguments.push_back(argument.starts_with('[') ? bracketMark + argument : argument);
  }
  app.parse(std::move(arguments));
}

std::shared_ptr<CLI::FormatterBase> helpFormatter() { return std::make_shared<HelpFormatter>(); }

CLI::Validator seconds() {
  return {[](std::string& text) {
            double value = 0;
            const bool good = parseWhole(text, value) && value >= 0 && value <= mostSeconds;
            return good ? ""
                        : fmt::format("'{}' is no number of seconds up to {}", text, mostSeconds);
          },
          ""};
}

CLI::Validator wholeNumber(uint64_t lowest, uint64_t highest) {
  return {[=](std::string& text) {
            try {
              const uint64_t value = KoruRegFile::parseNumber(text, highest);
              if (value < lowest) throw std::invalid_argument("too low");
              text = std::to_string(value);
              return std::string();
            } catch (const std::invalid_argument&) {
              return fmt::format("'{}' is no whole number from {} to {}", text, lowest, highest);
            }
          },
          ""};
}

std::string complaint(const CLI::App& app, const CLI::ParseError& error) {
  const CLI::App& command = deepestCommand(app);
  std::string path;
  for (const CLI::App* part = &command; part; part = part->get_parent()) {
    path.insert(0, part->get_name() + " ");
  }
  return fmt::format("{} ({}--help tells more)", problemOf(app, command, error), path);
}

}  // namespace korureg
