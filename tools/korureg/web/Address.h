#pragma once

// Where the page is listened for, and which addresses a browser may have called it by.

#include <netinet/in.h>
#include <sys/socket.h>

#include <string>

#include "Orb/Descriptor.h"

namespace korureg::web {

class Address {
 public:
  // "127.0.0.1:8017", "[::1]:8017" or "localhost:8017". Throws UsageError.
  explicit Address(const std::string& text);

  // A socket that listens; port 0 has become one that was free. Throws Failure.
  Orb::Descriptor listen();

  bool isLoopback() const;
  // "127.0.0.1:8017"
  std::string text() const;
  // What "Host:" may say. A name that somebody else's server resolves to this address is none of
  // that: where all addresses are listened on, a number or "localhost".
  bool isCalled(const std::string& host) const;

 private:
  const sockaddr* generic() const { return reinterpret_cast<const sockaddr*>(&place_); }
  socklen_t size() const;
  uint16_t port() const;
  bool isWild() const;

  sockaddr_storage place_ = {};
};

}  // namespace korureg::web
