#pragma once

// What a test of shared tables and its other processes (TablePeer.cpp) say to each other: messages
// over a SEQPACKET socket.

#include <cstdint>

namespace Peer {

enum class Op : uint32_t {
  done,    // the answer to everything, and to the start once the table is mounted
  put,     // store `value` under `key`
  del,     // delete `key`
  change,  // make change number `value`
  traced,  // the same, between two stops
  burst,   // make `key` changes, beginning with number `value`; each is answered with its number
  fork,    // make a child that does nothing; answered with its process id as `key`
  told,    // catch up; answered with all entries as they were told, then done
  entry,   // one of these
};

struct Message {
  Op op = Op::done;
  uint32_t value = 0;
  uint64_t key = 0;
};

// The changes of a burst are numbered: every process can tell what a table holds after any of them.
inline uint64_t keyOf(uint32_t number) { return number * 7919 % 61; }
inline bool isRemoval(uint32_t number) { return number % 5 == 0; }

}  // namespace Peer
