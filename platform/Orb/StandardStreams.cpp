#include "Orb/StandardStreams.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <initializer_list>

namespace Orb {

// The wrong direction has whoever reads or writes see an error: nothing is taken as printed that
// nobody can see.
void reserveStandardStreams() {
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (::fcntl(fd, F_GETFD) >= 0) continue;
    if (::open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY) != fd) std::abort();
  }
}

}  // namespace Orb
