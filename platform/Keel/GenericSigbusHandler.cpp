#include "Keel/GenericSigbusHandler.h"

#include <setjmp.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <mutex>

#include "Orb/Errno.h"

namespace Keel {

// An entry of the list of regions, which the signal handler walks: entries are never freed, only
// used again, and one without a size is unused.
struct MappedRegion::Entry {
  std::atomic<uintptr_t> begin{0};
  std::atomic<size_t> size{0};
  std::atomic<bool> damaged{false};
  Entry* next = nullptr;
};

namespace {

// A guarded access in progress on this thread.
struct Guard {
  uintptr_t address;
  size_t size;
  sigjmp_buf back;
};

// Allocated with the thread, so that the handler may touch it at any time.
__attribute__((tls_model("initial-exec"))) thread_local Guard* currentGuard = nullptr;

std::atomic<MappedRegion::Entry*> regions{nullptr};
std::atomic<GenericSigbusHandler::Handler> ownHandler{nullptr};
const auto pageSize = static_cast<uintptr_t>(::sysconf(_SC_PAGESIZE));

// Who had the signal before. One more is found each time that somebody else has taken our place; as
// the handler walks them, they are never freed.
struct Disposition {
  struct sigaction action;
  Disposition* before;
  std::atomic<bool> isSpent{false};  // one with SA_RESETHAND that was called
};
std::atomic<Disposition*> latest{nullptr};

// The signal that is being handed on by this thread, to whom, and from which place on its stack.
struct HandingOn {
  const siginfo_t* info;
  uintptr_t frame;
  const Disposition* to;
};
__attribute__((tls_model("initial-exec"))) thread_local HandingOn handingOn = {};

// Whether a fault belongs to a guarded access. Some processors do not say where it was, and for
// memory that has failed the kernel may name the page.
bool isOwn(const Guard& guard, const siginfo_t& info) {
  const auto address = reinterpret_cast<uintptr_t>(info.si_addr);
  if (address == 0 || address - guard.address < guard.size) return true;
  return info.si_code == BUS_MCEERR_AR && (address ^ guard.address) >> info.si_addr_lsb == 0;
}

bool servedByRegion(uintptr_t address) {
  for (auto* entry = regions.load(std::memory_order_acquire); entry; entry = entry->next) {
    const uintptr_t begin = entry->begin.load(std::memory_order_relaxed);
    if (address < begin || address - begin >= entry->size.load(std::memory_order_relaxed)) continue;
    void* page = reinterpret_cast<void*>(address & ~(pageSize - 1));
    const int savedErrno = errno;
    const void* mapped = ::mmap(page, pageSize, PROT_READ | PROT_WRITE,
                                MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
    errno = savedErrno;
    if (mapped == MAP_FAILED) return false;
    entry->damaged.store(true, std::memory_order_relaxed);
    return true;
  }
  return false;
}

// A fault comes again as soon as this handler returns, and then meets the default disposition; a
// signal that was sent has to be sent again.
void endAsByDefault(bool isFault) {
  struct sigaction byDefault = {};
  byDefault.sa_handler = SIG_DFL;
  ::sigaction(SIGBUS, &byDefault, nullptr);
  if (!isFault) ::raise(SIGBUS);
}

// As the kernel would call it: with its signals blocked, and once if it asked for that.
void call(Disposition& to, int signal, siginfo_t* info, void* context) {
  sigset_t mask = to.action.sa_mask;
  sigset_t outside;
  if ((to.action.sa_flags & SA_NODEFER) == 0) ::sigaddset(&mask, signal);
  ::pthread_sigmask(SIG_BLOCK, &mask, &outside);
  if ((to.action.sa_flags & SA_SIGINFO) != 0) {
    to.action.sa_sigaction(signal, info, context);
  } else {
    to.action.sa_handler(signal);
  }
  ::pthread_sigmask(SIG_SETMASK, &outside, nullptr);
}

void handOn(Disposition* to, int signal, siginfo_t* info, void* context, bool isFault) {
  const bool once = to && (static_cast<unsigned>(to->action.sa_flags) & SA_RESETHAND) != 0;
  const bool isGone = !to || (once && to->isSpent.exchange(true));
  const auto handler = isGone ? SIG_DFL : to->action.sa_handler;
  if (handler == SIG_IGN && !isFault) return;
  if (handler == SIG_DFL || handler == SIG_IGN) {
    endAsByDefault(isFault);  // the system does not ignore a fault either
  } else {
    call(*to, signal, info, context);
  }
}

void onSigbus(int signal, siginfo_t* info, void* context) {
  const bool isFault = info->si_code > 0 && info->si_code != BUS_MCEERR_AO;
  if (isFault) {
    Guard* guard = currentGuard;
    if (guard && isOwn(*guard, *info)) ::siglongjmp(guard->back, 1);
    if (servedByRegion(reinterpret_cast<uintptr_t>(info->si_addr))) return;
  }
  // Whoever it was handed on to may have found this handler in place, and call it in turn: then it
  // goes on to the one before. (A handler that left by a jump has left its mark behind; what comes
  // later is no deeper on the stack.)
  const auto frame = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
  const HandingOn outer = handingOn;
  const bool comesBack = outer.info == info && frame < outer.frame;
  const auto handler = ownHandler.load(std::memory_order_acquire);
  if (!comesBack && handler && handler(signal, info, context)) return;
  Disposition* to = comesBack ? outer.to->before : latest.load(std::memory_order_acquire);
  handingOn = {info, frame, to};
  handOn(to, signal, info, context, isFault);
  handingOn = outer;
}

// Exchanges the action for SIGBUS, or only looks at it.
struct sigaction sigbusAction(const struct sigaction* next) {
  struct sigaction present = {};
  if (::sigaction(SIGBUS, next, &present) != 0) {
    Orb::throwErrno("cannot install the SIGBUS handler");
  }
  return present;
}

bool isOurs(const struct sigaction& action) {
  return (action.sa_flags & SA_SIGINFO) != 0 && action.sa_sigaction == onSigbus;
}

bool isSame(const struct sigaction& a, const struct sigaction& b) {
  return a.sa_handler == b.sa_handler && a.sa_flags == b.sa_flags;
}

void remember(const struct sigaction& action) {
  Disposition* before = latest.load(std::memory_order_relaxed);
  if (before && !before->isSpent && isSame(before->action, action)) return;
  latest.store(new Disposition{action, before}, std::memory_order_release);
}

void install() {
  static std::mutex mutex;
  const std::lock_guard lock(mutex);
  const struct sigaction present = sigbusAction(nullptr);
  if (isOurs(present)) return;
  remember(present);
  struct sigaction action = {};
  action.sa_sigaction = onSigbus;
  // The signal stays unblocked: a guarded access leaves the handler by a jump.
  action.sa_flags = SA_SIGINFO | SA_NODEFER | SA_ONSTACK;
  // Somebody may have come in between.
  const struct sigaction replaced = sigbusAction(&action);
  if (!isOurs(replaced)) remember(replaced);
}

// Runs `access` under a guard. Nothing with a destructor may live in it: a bus error jumps out.
template <class Word, class Access>
void runGuarded(const volatile Word* address, Access access) {
  Guard guard;
  guard.size = sizeof(Word);
  guard.address = reinterpret_cast<uintptr_t>(address);
  Guard* const outer = currentGuard;
  if (sigsetjmp(guard.back, 0) != 0) {
    currentGuard = outer;
    throw GenericSigbusHandler::SigbusException();
  }
  currentGuard = &guard;
  std::atomic_signal_fence(std::memory_order_seq_cst);
  access();
  std::atomic_signal_fence(std::memory_order_seq_cst);
  currentGuard = outer;
}

template <class Word>
Word readWord(const volatile Word* address) {
  volatile Word value = 0;
  runGuarded(address, [&] { value = *address; });
  return value;
}

template <class Word>
void writeWord(volatile Word* address, Word value) {
  runGuarded(address, [=] { *address = value; });
}

}  // namespace

GenericSigbusHandler::SigbusException::~SigbusException() = default;

const char* GenericSigbusHandler::SigbusException::what() const noexcept { return "Caught SIGBUS"; }

void GenericSigbusHandler::initialize(Handler handler) {
  install();
  if (handler) ownHandler.store(handler, std::memory_order_release);
}

uint32_t GenericSigbusHandler::guardedRead(const volatile uint32_t* address) {
  return readWord(address);
}
uint16_t GenericSigbusHandler::guardedRead(const volatile uint16_t* address) {
  return readWord(address);
}
uint8_t GenericSigbusHandler::guardedRead(const volatile uint8_t* address) {
  return readWord(address);
}

void GenericSigbusHandler::guardedWrite(volatile uint32_t* address, uint32_t value) {
  writeWord(address, value);
}
void GenericSigbusHandler::guardedWrite(volatile uint16_t* address, uint16_t value) {
  writeWord(address, value);
}
void GenericSigbusHandler::guardedWrite(volatile uint8_t* address, uint8_t value) {
  writeWord(address, value);
}

namespace {

std::mutex& regionMutex() {
  static std::mutex mutex;
  return mutex;
}

}  // namespace

MappedRegion::MappedRegion(const void* begin, size_t size) {
  GenericSigbusHandler::initialize();
  const std::lock_guard lock(regionMutex());
  Entry* entry = regions.load(std::memory_order_relaxed);
  while (entry && entry->size.load(std::memory_order_relaxed) != 0) entry = entry->next;
  if (!entry) {
    entry = new Entry;
    entry->next = regions.load(std::memory_order_relaxed);
    regions.store(entry, std::memory_order_release);
  }
  entry->damaged.store(false, std::memory_order_relaxed);
  entry->begin.store(reinterpret_cast<uintptr_t>(begin), std::memory_order_relaxed);
  entry->size.store(size, std::memory_order_release);
  entry_ = entry;
}

MappedRegion::~MappedRegion() {
  const std::lock_guard lock(regionMutex());
  entry_->size.store(0, std::memory_order_release);
}

bool MappedRegion::isDamaged() const { return entry_->damaged.load(std::memory_order_relaxed); }

}  // namespace Keel
