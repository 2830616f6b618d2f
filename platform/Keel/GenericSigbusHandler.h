#pragma once

// Bus errors, turned into something that a program can survive. A SIGBUS of mapped memory (a device
// that is gone, a file that was cut short) reaches one of two kinds of guard:
//
//  - a guarded access, a single load or store that then throws SigbusException;
//  - a mapped region, whose missing page is replaced by an empty one and which is marked as
//  damaged,
//    so that code which checks what it reads can find out.
//
// Every other SIGBUS, one sent with raise() or kill() included, goes to whoever handled the signal
// before the handler was installed; a default disposition still ends the process. Handling is
// process-wide; all of it may be used from any thread, and a guard costs no system call per access.

#include <signal.h>

#include <cstddef>
#include <cstdint>
#include <exception>

#include "Orb/Export.h"

namespace Keel {

class ORB_EXPORT GenericSigbusHandler {
 public:
  // Deliberately no std::runtime_error: a bus error is told apart from every other failure.
  class ORB_EXPORT SigbusException : public std::exception {
   public:
    ~SigbusException() override;
    const char* what() const noexcept override;
  };

  // Called, inside the signal handler, for a SIGBUS that no guard serves. Returns whether it has
  // been dealt with; if not, it goes on to the previous disposition.
  using Handler = bool (*)(int signal, siginfo_t* info, void* context);

  // Installs the signal handler, once per process however often it is called; a handler that is not
  // null replaces the one given before. Throws std::system_error when the system refuses.
  static void initialize(Handler handler = nullptr);

  // Single 32-bit accesses. Throw SigbusException when the access ends in a bus error; initialize()
  // must have been called.
  static uint32_t guardedRead(const volatile uint32_t* address);
  static void guardedWrite(volatile uint32_t* address, uint32_t value);
};

// Guards a mapping for as long as it lives: make it after mmap() and destroy it before munmap().
// Installs the signal handler if need be.
class ORB_EXPORT MappedRegion {
 public:
  MappedRegion(const void* begin, size_t size);
  ~MappedRegion();
  MappedRegion(const MappedRegion&) = delete;
  MappedRegion& operator=(const MappedRegion&) = delete;

  // Whether a page of the mapping was missing when it was accessed. That page reads as zeroes
  // since.
  bool isDamaged() const;

  struct Entry;

 private:
  Entry* entry_;
};

}  // namespace Keel
