// The roads that users take, with the hardware's own window below them: field writes by name and by
// handle down to a guarded window of a PCI device, the first one of a cold process, and registers
// read by handle. The figures of ChipBench have an array there in place of the window.

#include <fmt/format.h>
#include <sys/mman.h>

#include <algorithm>
#include <csetjmp>
#include <cstring>
#include <string>
#include <vector>

#include "KoruRegFile/RegisterHandle.h"
#include "KoruRegFile/TransportMethod.h"
#include "bench/BenchChip.h"
#include "bench/Ratio.h"
#include "testing/RegisterWindow.h"

namespace {

using namespace Bench;

std::string counted(size_t fields) {
  return fields < 1000      ? fmt::format("{}", fields)
         : fields < 1000000 ? fmt::format("{} k", fields / 1000)
                            : "1 M";
}

void addByName(Figures& figures, const Chip& chip, double atMost) {
  const OneHit hit;
  Writer writer(chip);
  figures.add(fmt::format("field write by name, {} fields / one hit", counted(chip.fields())),
              medianRatio(million([&](size_t i) { return writer.write(i); }),
                          million([&](size_t i) { return hit.at(i); })),
              atMost);
}

void addByHandle(Figures& figures, const Chip& chip, double atMost) {
  const OneHit hit;
  std::vector<KoruRegFile::LogicalFieldHandle> handles;
  for (const uint32_t i : randomPositions(1 << 16, chip.fields())) {
    handles.push_back(chip.field(i));
  }
  size_t count = 0;
  const auto write = [&](size_t) {
    const KoruRegFile::LogicalFieldHandle& handle = handles[++count % handles.size()];
    handle.write(static_cast<uint32_t>(count % 251));
    return 0;
  };
  figures.add(fmt::format("field write by handle, {} fields / one hit", counted(chip.fields())),
              medianRatio(million(write), million([&](size_t i) { return hit.at(i); })), atMost);
}

// Whatever the processor had in its caches, it has something else now.
void coolDown() {
  static std::vector<char> other(size_t{256} << 20);
  static char value = 0;
  std::memset(other.data(), ++value, other.size());
}

double median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

// The first write of a chip that nothing was written to before, with cold caches, beside the tenth.
void addCold(Figures& figures) {
  std::vector<double> ratios;
  for (int round = 0; round < 9; ++round) {
    const Chip chip(1000);
    const Orb::String reg = registerOf(500), field = "field_500";
    coolDown();
    const double first = secondsOf([&] { chip.fieldWrite(reg, field, 1); });
    std::vector<double> warm;
    for (uint32_t value = 2; value < 102; ++value) {
      warm.push_back(secondsOf([&] { chip.fieldWrite(reg, field, value); }));
    }
    ratios.push_back(first / median(warm));
  }
  figures.add("the first field write, cold / a warm one", median(ratios), 8);
}

// What a guard cannot do without: a jump point, and that the thread knows it.
thread_local sigjmp_buf* volatile guard = nullptr;

void addRegisterRead(Figures& figures) {
  constexpr size_t registers = 1000;
  std::string map = "number,name,type,writeable,width\n";
  for (size_t i = 0; i < registers; ++i) map += fmt::format("{},{},cfg,true,32\n", i, nameOf(i));
  const Testing::TempFile file(map);
  const Testing::RegisterWindow window(registers * 4);
  const auto tm = KoruRegFile::transportMethodFactory("road");
  tm->implPtrIs(std::make_unique<KoruRegFile::PciTransportMethodImpl>(
      Plat::pciPaxImplFactory("road", window.path()), file.path(), nullptr));
  std::vector<KoruRegFile::RegisterHandle> handles;
  for (size_t i = 0; i < registers; ++i) handles.push_back(tm->reg(nameOf(i)));

  const KoruRegFile::Utils::UnixFdRes fd(::open(window.path(), O_RDWR | O_CLOEXEC));
  const auto* plain = static_cast<const volatile uint32_t*>(
      ::mmap(nullptr, registers * 4, PROT_READ | PROT_WRITE, MAP_SHARED, fd.fd(), 0));
  const auto guarded = [&](size_t i) {
    sigjmp_buf here;
    sigjmp_buf* const outer = guard;
    uint32_t value = 0;
    if (sigsetjmp(here, 0) == 0) {
      guard = &here;
      value = plain[i * 7 % registers];
    }
    guard = outer;
    return value;
  };
  figures.add("register read by handle, guarded PCI / a guarded load",
              medianRatio(million([&](size_t i) { return handles[i * 7 % registers].read(); }),
                          million(guarded)),
              3);
}

}  // namespace

int main() {
  Figures figures("roads, over a guarded PCI window");
  addCold(figures);
  addRegisterRead(figures);
  addByName(figures, Chip(100, Below::pciWindow), 20);
  addByHandle(figures, Chip(1000, Below::pciWindow), 5);
  {
    const Chip chip(100000, Below::pciWindow);
    addByName(figures, chip, 60);
    addByHandle(figures, chip, 20);
  }
  addByName(figures, Chip(1000000, Below::pciWindow), 90);
  return figures.exitStatus();
}
