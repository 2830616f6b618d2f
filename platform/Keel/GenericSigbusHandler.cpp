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
  sigjmp_buf back;
};

// Allocated with the thread, so that the handler may touch it at any time.
__attribute__((tls_model("initial-exec"))) thread_local Guard* currentGuard = nullptr;

std::atomic<MappedRegion::Entry*> regions{nullptr};
std::atomic<GenericSigbusHandler::Handler> ownHandler{nullptr};
struct sigaction previous;
uintptr_t pageSize = 0;

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

void handOn(int signal, siginfo_t* info, void* context, bool isFault) {
  if ((previous.sa_flags & SA_SIGINFO) != 0) {
    previous.sa_sigaction(signal, info, context);
  } else if (previous.sa_handler == SIG_IGN && !isFault) {
    return;
  } else if (previous.sa_handler == SIG_DFL || previous.sa_handler == SIG_IGN) {
    endAsByDefault(isFault);  // the system does not ignore a fault either
  } else {
    previous.sa_handler(signal);
  }
}

void onSigbus(int signal, siginfo_t* info, void* context) {
  const bool isFault = info->si_code > 0;
  if (isFault) {
    const auto address = reinterpret_cast<uintptr_t>(info->si_addr);
    Guard* guard = currentGuard;
    if (guard && address - guard->address < sizeof(uint32_t)) ::siglongjmp(guard->back, 1);
    if (servedByRegion(address)) return;
  }
  const auto handler = ownHandler.load(std::memory_order_acquire);
  if (handler && handler(signal, info, context)) return;
  handOn(signal, info, context, isFault);
}

void install() {
  pageSize = static_cast<uintptr_t>(::sysconf(_SC_PAGESIZE));
  struct sigaction action = {};
  action.sa_sigaction = onSigbus;
  // The signal stays unblocked: a guarded access leaves the handler by a jump.
  action.sa_flags = SA_SIGINFO | SA_NODEFER | SA_ONSTACK;
  if (::sigaction(SIGBUS, &action, &previous) != 0) {
    Orb::throwErrno("cannot install the SIGBUS handler");
  }
}

// Runs `access` under a guard. Nothing with a destructor may live in it: a bus error jumps out.
template <class Access>
void runGuarded(const volatile uint32_t* address, Access access) {
  Guard guard;
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

}  // namespace

GenericSigbusHandler::SigbusException::~SigbusException() = default;

const char* GenericSigbusHandler::SigbusException::what() const noexcept { return "Caught SIGBUS"; }

void GenericSigbusHandler::initialize(Handler handler) {
  static std::once_flag once;
  std::call_once(once, install);
  if (handler) ownHandler.store(handler, std::memory_order_release);
}

uint32_t GenericSigbusHandler::guardedRead(const volatile uint32_t* address) {
  volatile uint32_t value = 0;
  runGuarded(address, [&] { value = *address; });
  return value;
}

void GenericSigbusHandler::guardedWrite(volatile uint32_t* address, uint32_t value) {
  runGuarded(address, [=] { *address = value; });
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
