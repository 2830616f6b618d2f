#pragma once

// What the sub-commands of korureg share: the options that stand before them all, the errors they
// end with, and how a command is hung into the command line.

#include <CLI/CLI.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "board/devices/TransportKind.h"

namespace korureg {

// The process's exit codes.
enum ExitCode { done = 0, failed = 1, usage = 2 };

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

// Each adds its command to `app`; the command's work is done in a callback that sets `exitCode`.
// `options` and `exitCode` outlive the parse.
void addMapCommands(CLI::App& app, Options& options, int& exitCode);
void addListCommand(CLI::App& app, Options& options, int& exitCode);
void addReadCommand(CLI::App& app, Options& options, int& exitCode);
void addWriteCommand(CLI::App& app, Options& options, int& exitCode);
void addWaitCommand(CLI::App& app, Options& options, int& exitCode);
void addDumpCommand(CLI::App& app, Options& options, int& exitCode);
void addWatchCommand(CLI::App& app, Options& options, int& exitCode);
void addChipCommands(CLI::App& app, Options& options, int& exitCode);
void addFieldCommands(CLI::App& app, Options& options, int& exitCode);
void addRegisterCommands(CLI::App& app, Options& options, int& exitCode);
void addHardwareCommands(CLI::App& app, Options& options, int& exitCode);
void addApplyCommand(CLI::App& app, Options& options, int& exitCode);
void addVerifyCommand(CLI::App& app, Options& options, int& exitCode);
void addPeekCommands(CLI::App& app, Options& options, int& exitCode);
void addProbeCommand(CLI::App& app, Options& options, int& exitCode);
void addShadowCommands(CLI::App& app, Options& options, int& exitCode);

// The most addresses that a register number stands for on any transport.
inline constexpr unsigned largestBlockSize = 4;

// Adds the option that says so.
void addBlockSize(CLI::App& command, Options& options);

// Adds a command whose help ends with an example. Options of the whole tool may follow it.
CLI::App& addCommand(CLI::App& app, const std::string& name, const std::string& description,
                     const std::string& example);

}  // namespace korureg
