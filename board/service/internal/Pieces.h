#pragma once

// A line for a client that is made piece by piece, so that a long one holds up nobody and needs no
// memory as a whole. Used on the framework's thread.

#include <string>

namespace Board {

class Pieces {
 public:
  virtual ~Pieces() = default;
  // Appends a little more of the line, which has no end of line; false when that was the last of
  // it. What is told of may have changed since the last call, or be gone.
  virtual bool next(std::string& out) = 0;
};

}  // namespace Board
