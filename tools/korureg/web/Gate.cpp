#include "korureg/web/Gate.h"

#include <fmt/format.h>
#include <sys/random.h>

#include <algorithm>
#include <iterator>

#include "Orb/Errno.h"

namespace korureg::web {

namespace {

constexpr size_t tokenBytes = 16;

constexpr const char* posted[] = {"/ask", "/events", "/history", "/plot", "/plot.csv", "/forget"};

bool isPosted(const std::string& path) {
  return std::find(std::begin(posted), std::end(posted), path) != std::end(posted);
}

}  // namespace

std::string randomText(size_t bytes) {
  std::string text;
  for (size_t i = 0; i < bytes; ++i) {
    unsigned char byte = 0;
    if (::getrandom(&byte, 1, 0) != 1) Orb::throwErrno("there are no random numbers");
    text += fmt::format("{:02x}", byte);
  }
  return text;
}

bool areSame(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;  // (which everybody knows)
  unsigned char different = 0;
  for (size_t i = 0; i < a.size(); ++i) {
    different = static_cast<unsigned char>(different | (a[i] ^ b[i]));
  }
  return different == 0;
}

Gate::Gate(const Address& address) : address_(address), token_(randomText(tokenBytes)) {}

Refused Gate::pass(const Visitor& visitor) const {
  if (!address_.isCalled(visitor.host)) {
    return {403, "the page is not to be had under this name; use the address that was printed"};
  }
  const bool isGet = visitor.method == "GET";
  const bool isSilent = isGet && visitor.origin.empty();
  if (!isSilent && visitor.origin != "http://" + visitor.host) {
    return {403, "this was asked by another site"};
  }
  if (!areSame(visitor.token, token_)) {
    return {403, "the token is missing or wrong; use the address that was printed at the start"};
  }
  const bool isPage = visitor.path == "/";
  if (!isPage && !isPosted(visitor.path)) return {404, "there is no such page"};
  if (visitor.method != (isPage ? "GET" : "POST")) return {405, "that cannot be done here"};
  return {};
}

}  // namespace korureg::web
