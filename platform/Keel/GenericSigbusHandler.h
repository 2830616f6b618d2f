#pragma once

// Bus errors, turned into something that a program can survive. A SIGBUS of mapped memory (a device
// that is gone, a file that was cut short) reaches one of two kinds of guard:
//
//  - a guarded access, a single load or store that then throws SigbusException;
//  - a mapped region, whose missing page is replaced by an empty one and which is marked as
//    damaged, so that code which checks what it reads can find out.
//
// Every other SIGBUS, one sent with raise() or kill() included, goes to whoever handled the signal
// before the handler was installed, called as the kernel would have called it: its mask and its
// SA_RESETHAND hold. A default disposition still ends the process. Handling is process-wide; all of
// it may be used from any thread, and a guard costs no system call per access. A thread that blocks
// SIGBUS is not guarded: the kernel ends the process at its first fault, without asking a handler.

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

  // Installs the signal handler unless it is in place; whoever has replaced it in the meantime then
  // comes after it, also one that calls it in turn. A handler that is not null replaces the one
  // given before. Throws std::system_error when the system refuses.
  static void initialize(Handler handler = nullptr);

  // Single accesses. Throw SigbusException when the access ends in a bus error; initialize()
  // must have been called.
  static uint32_t guardedRead(const volatile uint32_t* address);
  static uint16_t guardedRead(const volatile uint16_t* address);
  static uint8_t guardedRead(const volatile uint8_t* address);
  static void guardedWrite(volatile uint32_t* address, uint32_t value);
  static void guardedWrite(volatile uint16_t* address, uint16_t value);
  static void guardedWrite(volatile uint8_t* address, uint8_t value);
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
