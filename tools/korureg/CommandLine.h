#pragma once

// How korureg's command line looks and complains: the form of its help, checks of option values,
// and what is said about a command line that cannot be parsed. Used by main and by the commands
// that have numeric options.

#include <CLI/CLI.hpp>
#include <cstdint>
#include <memory>
#include <string>

namespace korureg {

// Help with one short line per option: name, value, meaning, default.
std::shared_ptr<CLI::FormatterBase> helpFormatter();

// Parses the command line. Takes every argument as it is: the library would take one in brackets
// for a list.
void parseArguments(CLI::App& app, int argc, char** argv);

// Checks for option values. Stricter than the conversion that follows them, which lets through
// "nan" and wraps negative numbers around.
CLI::Validator seconds();
// In any base; to be used as a transformation.
CLI::Validator wholeNumber(uint64_t lowest, uint64_t highest);

// What is wrong with the command line that `app` has refused with `error`, in one line that says
// which help tells more.
std::string complaint(const CLI::App& app, const CLI::ParseError& error);

}  // namespace korureg
