// A program of somebody else on a simulated bus, for tests to run and to kill: two threads, a
// forked child and a program that inherits its descriptor write to their own places of a memory
// chip, and read back what they wrote.
//
//     SimulatorPeer NODE CHIP COUNT [FD PLACE]     COUNT 0: until it is killed; says "ready" then
//     SimulatorPeer NODE CHIP plain                with read() and write() instead

#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

namespace {

unsigned address = 0;
unsigned long count = 0;

// Four equal bytes, written, and read after a repeated start. What somebody else left half done
// would show here.
bool exchange(int fd, unsigned place, uint8_t value) {
  uint8_t out[5] = {static_cast<uint8_t>(place), value, value, value, value};
  uint8_t in[4] = {};
  i2c_msg messages[] = {{static_cast<uint16_t>(address), 0, 5, out},
                        {static_cast<uint16_t>(address), 0, 1, out},
                        {static_cast<uint16_t>(address), I2C_M_RD, 4, in}};
  i2c_rdwr_ioctl_data call = {messages, 3};
  return ::ioctl(fd, I2C_RDWR, &call) == 3 && std::memcmp(in, out + 1, 4) == 0;
}

bool work(int fd, unsigned place) {
  for (unsigned long i = 0; count == 0 || i < count; ++i) {
    if (!exchange(fd, place, static_cast<uint8_t>(i))) {
      std::perror("exchange");
      return false;
    }
  }
  return true;
}

// Without ioctl() for the messages; the address that was set stays with the descriptor, however
// many it becomes.
bool worksPlainly(const char* node) {
  std::FILE* const stream = std::fopen(node, "r+");
  if (!stream) return false;
  const int fd = ::fileno(stream), twin = ::dup(fd);
  struct stat status;
  if (::fstat(fd, &status) != 0 || !S_ISCHR(status.st_mode)) return false;
  if (::ioctl(fd, I2C_SLAVE, address) != 0) return false;
  const uint8_t out[] = {0xf0, 1, 2};
  uint8_t in[2] = {};
  const bool isWritten = ::write(fd, out, 3) == 3 && ::write(twin, out, 1) == 1;
  const bool isRead = ::read(twin, in, 2) == 2 && in[0] == 1 && in[1] == 2;
  std::fclose(stream);
  ::close(twin);
  return isWritten && isRead && ::access(node, R_OK | W_OK) == 0;
}

// A child that ends with this process, however that is.
pid_t forked() {
  const pid_t child = ::fork();
  if (child == 0) ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  return child;
}

bool hasEndedWell(pid_t child) {
  int status = 0;
  return ::waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  address = static_cast<unsigned>(std::strtoul(argv[2], nullptr, 0));
  if (argv[3] == std::string("plain")) return worksPlainly(argv[1]) ? 0 : 1;
  count = std::strtoul(argv[3], nullptr, 0);
  if (argc > 5) return work(std::atoi(argv[4]), static_cast<unsigned>(std::atoi(argv[5]))) ? 0 : 1;
  const auto mine = static_cast<unsigned>(::getpid() % 8 * 16);
  const int fd = ::open(argv[1], O_RDWR);
  if (fd < 0) return 2;
  const pid_t child = forked();
  if (child == 0) ::_exit(work(fd, mine) ? 0 : 1);
  const pid_t executed = forked();
  if (executed == 0) {
    const std::string number = std::to_string(fd), place = std::to_string(mine + 4);
    ::execl(argv[0], argv[0], argv[1], argv[2], argv[3], number.c_str(), place.c_str(), nullptr);
    ::_exit(127);
  }
  std::atomic<bool> areRight = true;
  std::thread other([&] {
    if (!work(fd, mine + 8)) areRight = false;
  });
  if (!exchange(fd, mine + 12, 1)) areRight = false;
  std::puts("ready");
  std::fflush(stdout);
  if (!work(fd, mine + 12)) areRight = false;
  other.join();
  for (const pid_t each : {child, executed}) {
    if (!hasEndedWell(each)) areRight = false;
  }
  return areRight ? 0 : 1;
}
