// Shared tables: made, damaged, read, damaged while they are mapped, written and grown. A value
// that is read was stored once, whatever has happened to the file.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <vector>

#include "Brio/CorruptionDetectedException.h"
#include "Orb/Descriptor.h"
#include "Orb/Trace.h"
#include "Shoal/ShoalMap.h"
#include "fuzz/Input.h"
#include "testing/StateDirectory.h"

namespace {

constexpr uint32_t keys = 40;

class Table {
 public:
  explicit Table(const Testing::StateDirectory& state) : file_(state.file("table")) {
    ::unlink(file_.c_str());
  }

  void fill(Fuzz::Input& input) {
    Shoal::ShoalMap map({});
    map.mountAsWriter("table", "Fuzz::Table", 1 + input.below(8));
    change(map, input);
  }
  void change(Shoal::ShoalMap& map, Fuzz::Input& input) {
    for (uint32_t count = input.below(64); count > 0; --count) {
      const uint64_t key = keyOf(input.below(keys));
      if (input.below(8) == 0) {
        map.del(key);
      } else {
        const uint32_t value = input.number(2);
        stored_[key].push_back(value);
        map.put(key, value);
      }
    }
  }
  void damage(Fuzz::Input& input) const {
    const Orb::Descriptor file(::open(file_.c_str(), O_RDWR | O_CLOEXEC));
    struct stat status = {};
    if (!file || ::fstat(file.get(), &status) != 0 || status.st_size == 0) return;
    for (uint32_t count = input.below(6); count > 0; --count) {
      const auto place =
          static_cast<off_t>(input.number(3) % static_cast<uint32_t>(status.st_size));
      const uint8_t value = input.byte();
      if (::pwrite(file.get(), &value, 1, place) != 1) return;
    }
    if (input.below(16) == 1) {
      static_cast<void>(::ftruncate(file.get(), input.below(1 << 14)));
    }
  }
  void look(const Shoal::ShoalMap& map) const {
    for (uint32_t i = 0; i < keys; ++i) {
      if (const auto value = orNothing([&] { return map.get(keyOf(i)); }))
        wasStored(keyOf(i), *value);
    }
    static_cast<void>(map.damagedSlots());
    const auto all = orNothing([&] { return std::optional(map.entries()); });
    for (const auto& entry : all.value_or(std::vector<Shoal::ShoalMap::Entry>())) {
      wasStored(entry.key, entry.value);
    }
  }
  // What a damaged table may do.
  template <class Action>
  static auto orNothing(Action action) -> decltype(action()) {
    try {
      return action();
    } catch (const Brio::CorruptionDetectedException&) {
    } catch (const std::runtime_error&) {  // MountException and system_error are some
    }
    return decltype(action())();
  }

 private:
  static uint64_t keyOf(uint32_t i) { return uint64_t{i} * 0x9E3779B97F4A7C15; }
  void wasStored(uint64_t key, uint32_t value) const {
    const auto found = stored_.find(key);
    Fuzz::require(found != stored_.end(), "a key that was never stored");
    Fuzz::require(std::count(found->second.begin(), found->second.end(), value) > 0,
                  "a value that was never stored");
  }

  const std::string file_;
  std::map<uint64_t, std::vector<uint32_t>> stored_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const Testing::StateDirectory state;
  Orb::traceLevelIs("*", -1);
  Fuzz::Input input(data, size);
  Table table(state);
  table.fill(input);
  table.damage(input);
  Table::orNothing([&] {
    Shoal::ShoalMap map({});
    map.mountAsReader("table", "Fuzz::Table");
    table.look(map);
    table.damage(input);
    table.look(map);
    return true;
  });
  Table::orNothing([&] {
    Shoal::ShoalMap map({});
    map.mountAsWriter("table", "Fuzz::Table", 1 + input.below(100));
    table.look(map);
    table.damage(input);
    Table::orNothing([&] { return table.change(map, input), true; });
    table.look(map);
    return true;
  });
  return 0;
}
