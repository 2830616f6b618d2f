#pragma once

// Runs a program as a user would, and tells how it ended and what it printed. For tests of whole
// programs. No shell is involved, and nothing sleeps: waiting is for descriptors, against a
// deadline that kills the program and fails the test. Standard input is empty. One thread; the
// process ends with its owner.
//
//     EXPECT_EQ(Testing::run({{"/bin/echo", "hello"}}).out, "hello\n");

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

#include "KoruRegFile/Utils.h"

namespace Testing {

struct Command {
  std::vector<std::string> argv;              // the program's path, then its arguments
  std::vector<std::string> environment = {};  // "NAME=value", added to the test's own
  std::string outputPath = {};  // where standard output goes, instead of into the outcome
};

struct Outcome {
  int exitCode = -1;  // -1 when a signal ended the program
  int signal = 0;
  std::string out;
  std::string err;
};

class Process {
 public:
  using Duration = std::chrono::milliseconds;
  static constexpr Duration patience = std::chrono::seconds(30);

  // Throws std::system_error for a program that cannot be started.
  explicit Process(const Command& command);
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  // The next line of standard output, without its end. Throws std::runtime_error, with everything
  // that was printed, when there is none within `timeout` or the program ends before.
  std::string line(Duration timeout = patience);

  void signal(int number);

  // Closes the reading end of standard output, as `head` does.
  void stopReading() { outFd_._destruct(); }

  // Waits for the end. Throws std::runtime_error, as line() does, when it takes too long.
  Outcome wait(Duration timeout = patience);

 private:
  using Deadline = std::chrono::steady_clock::time_point;

  void spawn(const Command& command, int in, int out, int err);
  // Waits for output or the end, and takes what there is. Throws past the deadline.
  void await(Deadline deadline);
  [[noreturn]] void giveUp(const std::string& why);

  const std::string program_;
  pid_t pid_ = -1;
  bool ended_ = false;  // reaped; nothing may be sent to the pid any more
  KoruRegFile::Utils::UnixFdRes pidFd_{-1};
  KoruRegFile::Utils::UnixFdRes outFd_{-1};
  KoruRegFile::Utils::UnixFdRes errFd_{-1};
  size_t linesEnd_ = 0;  // how much of the output line() has returned
  Outcome outcome_;
};

// Starts a program and waits for its end.
Outcome run(const Command& command, Process::Duration timeout = Process::patience);

}  // namespace Testing
