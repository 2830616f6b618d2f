#include "testing/Process.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <iterator>
#include <stdexcept>
#include <system_error>

namespace Testing {

using KoruRegFile::Utils::UnixFdRes;

namespace {

int checked(int result, const std::string& what) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), what);
  return result;
}

struct Pipe {
  UnixFdRes readEnd{-1};
  UnixFdRes writeEnd{-1};

  Pipe() {
    int fds[2];
    checked(::pipe2(fds, O_CLOEXEC), "pipe2");
    readEnd = UnixFdRes(fds[0]);
    writeEnd = UnixFdRes(fds[1]);
    checked(::fcntl(fds[0], F_SETFL, O_NONBLOCK), "fcntl");
  }
};

std::vector<char*> pointers(std::vector<std::string>& texts) {
  std::vector<char*> result;
  for (std::string& text : texts) result.push_back(text.data());
  result.push_back(nullptr);
  return result;
}

// The test's own environment, in which `added` replaces variables of the same name.
std::vector<std::string> environmentWith(const std::vector<std::string>& added) {
  std::vector<std::string> all = added;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    const std::string name = text.substr(0, text.find('=') + 1);
    const bool replaced = std::any_of(added.begin(), added.end(),
                                      [&](const std::string& a) { return a.starts_with(name); });
    if (!replaced) all.push_back(text);
  }
  return all;
}

// Takes what can be read now; closes at the end.
void takeFrom(UnixFdRes& fd, std::string& text) {
  char part[4096];
  while (fd.fd() >= 0) {
    const ssize_t count = ::read(fd.fd(), part, sizeof part);
    if (count > 0) {
      text.append(part, static_cast<size_t>(count));
    } else if (count < 0 && errno == EAGAIN) {
      return;
    } else if (count == 0 || errno != EINTR) {
      fd._destruct();
    }
  }
}

}  // namespace

Process::Process(const Command& command) : program_(command.argv.at(0)) {
  const UnixFdRes in(checked(::open("/dev/null", O_RDONLY | O_CLOEXEC), "/dev/null"));
  Pipe out;
  Pipe err;
  if (!command.outputPath.empty()) {
    out.writeEnd = UnixFdRes(
        checked(::open(command.outputPath.c_str(), O_WRONLY | O_CLOEXEC), command.outputPath));
  }
  spawn(command, in.fd(), out.writeEnd.fd(), err.writeEnd.fd());
  outFd_ = std::move(out.readEnd);
  errFd_ = std::move(err.readEnd);
}

Process::~Process() {
  if (ended_ || pid_ < 0) return;
  ::kill(pid_, SIGKILL);
  ::waitpid(pid_, nullptr, 0);
}

void Process::spawn(const Command& command, int in, int out, int err) {
  std::vector<std::string> arguments = command.argv;
  std::vector<std::string> environment = environmentWith(command.environment);
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_adddup2(&actions, in, STDIN_FILENO);
  ::posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
  ::posix_spawn_file_actions_adddup2(&actions, err, STDERR_FILENO);
  // Whatever the test's own shell ignores.
  posix_spawnattr_t attributes;
  ::posix_spawnattr_init(&attributes);
  sigset_t all;
  ::sigfillset(&all);
  ::posix_spawnattr_setsigdefault(&attributes, &all);
  ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
  const int error = ::posix_spawn(&pid_, program_.c_str(), &actions, &attributes,
                                  pointers(arguments).data(), pointers(environment).data());
  ::posix_spawnattr_destroy(&attributes);
  ::posix_spawn_file_actions_destroy(&actions);
  if (error != 0) {
    pid_ = -1;
    throw std::system_error(error, std::generic_category(), program_);
  }
  pidFd_ = UnixFdRes(static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0)));
  if (pidFd_.fd() < 0) giveUp("cannot be waited for");
}

std::string Process::line(Duration timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  size_t end;
  while ((end = outcome_.out.find('\n', linesEnd_)) == std::string::npos) {
    if (ended_) giveUp("ended without another line");
    await(deadline);
  }
  const std::string text = outcome_.out.substr(linesEnd_, end - linesEnd_);
  linesEnd_ = end + 1;
  return text;
}

void Process::signal(int number) {
  if (!ended_) checked(::kill(pid_, number), "kill");
}

Outcome Process::wait(Duration timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!ended_) await(deadline);
  return outcome_;
}

void Process::await(Deadline deadline) {
  const auto left = std::chrono::ceil<Duration>(deadline - std::chrono::steady_clock::now());
  pollfd fds[] = {{pidFd_.fd(), POLLIN, 0}, {outFd_.fd(), POLLIN, 0}, {errFd_.fd(), POLLIN, 0}};
  const int ready = ::poll(fds, std::size(fds), static_cast<int>(std::max(left.count(), 0L)));
  if (ready < 0 && errno == EINTR) return;
  if (checked(ready, "poll") == 0) giveUp("takes too long");
  int status = 0;
  const bool ends = fds[0].revents != 0 && ::waitpid(pid_, &status, 0) == pid_;
  takeFrom(outFd_, outcome_.out);
  takeFrom(errFd_, outcome_.err);
  if (!ends) return;
  ended_ = true;
  if (WIFEXITED(status)) outcome_.exitCode = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) outcome_.signal = WTERMSIG(status);
}

void Process::giveUp(const std::string& why) {
  if (!ended_) {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    ended_ = true;
  }
  throw std::runtime_error(program_ + " " + why + "; it printed:\n" + outcome_.out + outcome_.err);
}

Outcome run(const Command& command, Process::Duration timeout) {
  return Process(command).wait(timeout);
}

}  // namespace Testing
