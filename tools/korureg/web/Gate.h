#pragma once

// Who may ask for anything at all. One thread.

#include <string>

#include "korureg/web/Address.h"

namespace korureg::web {

// What a request says of itself; empty for what it does not say.
struct Visitor {
  std::string method;
  std::string path;
  std::string host;
  std::string origin;
  std::string token;
};

struct Refused {
  unsigned status = 0;  // of HTTP; 0 when it may pass
  const char* why = "";
};

class Gate {
 public:
  explicit Gate(const Address& address);

  // The page is for GET, and everything else for POST by the page's own script, which carries the
  // token in a header: no other site's script can send that, and nothing is done without.
  Refused pass(const Visitor& visitor) const;

  // Whoever knows it may look.
  const std::string& token() const { return token_; }

 private:
  const Address& address_;
  const std::string token_;
};

// So many random bytes, in hexadecimal. Throws std::system_error.
std::string randomText(size_t bytes);
// Takes as long whatever they hold.
bool areSame(const std::string& a, const std::string& b);

}  // namespace korureg::web
