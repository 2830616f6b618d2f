#include "board/agent/Signals.h"

#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <utility>

#include "Orb/Errno.h"

namespace Board {

Signals::Signals(std::function<void()> hangup) : hangup_(std::move(hangup)) {
  sigset_t set;
  ::sigemptyset(&set);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) ::sigaddset(&set, signal);
  ::sigprocmask(SIG_BLOCK, &set, nullptr);
  // (Who has gone, and a file that may not grow, are told by the call that meets them.)
  for (const int signal : {SIGPIPE, SIGXFSZ}) ::signal(signal, SIG_IGN);
  fd_ = Orb::Descriptor(::signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC));
  if (!fd_) Orb::throwErrno("cannot wait for signals");
  watch_ = Orb::eventLoop().readable(fd_.get(), [this] { serve(); });
}

Signals::~Signals() = default;

void Signals::serve() {
  signalfd_siginfo info;
  while (::read(fd_.get(), &info, sizeof info) == sizeof info) {
    if (info.ssi_signo != SIGHUP) return Orb::eventLoop().stop();
    hangup_();
  }
}

}  // namespace Board
