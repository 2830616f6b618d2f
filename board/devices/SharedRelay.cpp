#include "board/devices/SharedRelay.h"

#include <sys/stat.h>

#include <map>
#include <tuple>
#include <utility>

namespace Board {

namespace {

// What tells a node from another one of that name.
using Identity = std::tuple<std::string, dev_t, ino_t, dev_t>;

Identity identityOf(const std::string& node) {
  struct stat status = {};
  if (::stat(node.c_str(), &status) != 0) return {node, 0, 0, 0};
  return {node, status.st_dev, status.st_ino, status.st_rdev};
}

std::map<Identity, Hardware::Relay*>& relays() {
  static std::map<Identity, Hardware::Relay*> all;
  return all;
}

class SharedRelay : public Hardware::Relay {
 public:
  SharedRelay(Identity identity, const std::string& node)
      : Relay(node, node), identity_(std::move(identity)) {
    relays()[identity_] = this;
  }
  ~SharedRelay() override {
    const auto found = relays().find(identity_);
    if (found != relays().end() && found->second == this) relays().erase(found);
  }
  SharedRelay(const SharedRelay&) = delete;
  SharedRelay& operator=(const SharedRelay&) = delete;

 private:
  const Identity identity_;
};

}  // namespace

Orb::Ptr<Hardware::Relay> sharedRelay(const std::string& node) {
  const Identity identity = identityOf(node);
  const auto found = relays().find(identity);
  if (found != relays().end()) return Orb::Ptr<Hardware::Relay>(found->second);
  return Orb::make<SharedRelay>(identity, node);
}

}  // namespace Board
