#pragma once

// Small helpers of the register map reader and the transports: lines and fields of a text, system
// calls, errno, numbers, file descriptors and file locks. Stateless unless said otherwise; usable
// from any thread.

#include <cstdint>
#include <functional>
#include <istream>
#include <string>
#include <string_view>

#include "KoruRegFile/Export.h"

namespace KoruRegFile::Utils {

// Reads one line, whatever its line ending, into `buffer` and sets `line` to its text without the
// LF and without one CR before it. `line` views `buffer` and is valid until that changes. When
// nothing can be read, `line` is an empty view with null data and the stream says why.
KORU_EXPORT std::istream& getline_lea(std::istream& in, std::string& buffer,
                                      std::string_view& line);

// Yields the field of `text` that begins at `pos` and moves `pos` behind its delimiter; false, with
// `token` untouched, when there is none. Start with pos 0. Two delimiters in a row enclose an empty
// field, but a delimiter at the very end is followed by none, and an empty text has no field.
KORU_EXPORT bool tokenize(const std::string_view& text, uint32_t& pos, std::string_view& token,
                          char delim);

// Repeats `call` until it returns 0 or more, or fails with an errno that is not to be retried:
// EINTR is retried at once, EAGAIN after a millisecond, each without limit and only when asked.
// Returns the last result, with errno as the call left it. Throws std::bad_function_call when
// `call` is empty.
KORU_EXPORT int syscallAutoRetry(std::function<int()> call, bool retryOnEagain, bool retryOnEintr);

// The current errno in words and number, as in "No such file or directory (2)".
KORU_EXPORT std::string errnoMsg() noexcept;

// Converts a decimal number that takes up the whole of `text`; leading white space and a sign are
// accepted as strtoul does. Sets `ok` to whether that succeeded and the value fits in 32 bits; on
// failure the result is 0. Clears errno before.
KORU_EXPORT uint32_t strtouint32_checked(const char* text, bool& ok);

// Owns one file descriptor; a negative value stands for none.
class KORU_EXPORT UnixFdRes {
 public:
  // Takes ownership of `fd`.
  explicit UnixFdRes(int fd) noexcept : fd_(fd) {}
  UnixFdRes(UnixFdRes&& other) noexcept;
  UnixFdRes& operator=(UnixFdRes&& other) noexcept;
  UnixFdRes(const UnixFdRes&) = delete;
  UnixFdRes& operator=(const UnixFdRes&) = delete;
  // Closes the descriptor and ignores the result.
  ~UnixFdRes() { _destruct(); }

  int fd() const noexcept { return fd_; }

  // Closes the descriptor, if there is one, and returns what close() returned; otherwise returns
  // the negative value that stands for none.
  int _destruct() noexcept;

 private:
  int fd_;
};

// Holds an advisory lock (flock) on a descriptor that it does not own.
class KORU_EXPORT UnixFlockRes {
 public:
  // Takes the lock. `mode` is LOCK_SH or LOCK_EX; LOCK_NB may be added but changes nothing, since a
  // lock that somebody else holds is waited for in either case. Throws std::runtime_error when `fd`
  // is negative, when `mode` names no lock or LOCK_UN, and when flock fails.
  UnixFlockRes(int fd, int mode);
  UnixFlockRes(const UnixFlockRes&) = delete;
  UnixFlockRes& operator=(const UnixFlockRes&) = delete;
  // Releases the lock and ignores the result.
  ~UnixFlockRes();

 private:
  int fd_ = -1;
};

}  // namespace KoruRegFile::Utils
