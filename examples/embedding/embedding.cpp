// An agent of one's own, the long way, with the hooks that the library calls for each chip: it
// describes one chip, says how the chip is reached, and writes a field; agent.cpp is the short way,
// with retries, a socket and more. The library composes the register, writes it when it differs,
// and remembers what it wrote, so that the second run writes nothing.
//
//     KORU_STATE_DIR=/tmp/embedding embedding examples/maps/ina219.csv

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>

#include "KoruRegFile/BaseTransportMethodImpl.h"
#include "KoruRegFile/SystemChipStatusSm.h"

namespace {

using KoruRegFile::LogicalChip;
using KoruRegFile::TransportMethod;

// Registers that only say that they were written. A chip on a bus needs none of this:
// TransportMethod has the transports, and takes a descriptor of the wanted one.
class Printer : public KoruRegFile::BaseTransportMethodImpl {
 public:
  explicit Printer(const char* map) : BaseTransportMethodImpl(map, 1, nullptr) {}
  uint32_t regRead(const char*) override { return 0; }
  void regWrite(const char* regName, uint32_t value) override {
    std::printf("%s <- 0x%x\n", regName, value);
  }
};

class Agent : public KoruRegFile::SystemChipStatusSmBase {
 public:
  Agent(const Orb::Ptr<KoruRegFile::PossibleSystemStatus>& status, const char* map)
      : SystemChipStatusSmBase(OrbPool::entityManagerFactory(), status,
                               KoruRegFile::logicalModelFactory(),
                               KoruRegFile::physicalModelFactory()),
        map_(map) {}

  Orb::Ptr<LogicalChip> createLogicalChip(const Orb::String& name) override {
    auto chip = KoruRegFile::logicalChipFactory(name);
    // The first physical field lies in register number 0 of the map.
    chip->populateLogicalField("config", "gain", 0, 2, 1);
    chip->populatePhysicalField("CONFIGURATION", "PG", 11, 2);
    chip->translation()->populate("config", "gain", "CONFIGURATION", "PG");
    chip->mountShadowFields(shmemEntityManager(), "embedding/config", "embedding/status");
    return chip;
  }

  Orb::Ptr<TransportMethod> createTransport(const Orb::String& name) override {
    auto transport = KoruRegFile::transportMethodFactory(name);
    transport->implPtrIs(std::make_unique<Printer>(map_));
    return transport;
  }

 private:
  const char* map_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2 && argc != 3) {
    std::fprintf(stderr, "usage: embedding MAP [VALUE]\n");
    return 2;
  }
  try {
    const auto status = KoruRegFile::possibleSystemStatusFactory("system");
    const auto agent = Orb::make<Agent>(status, argv[1]);
    status->chipStatusIs("power0");
    const auto chip = agent->logicalModel()->chip("power0");
    if (argc == 3) chip->fieldWrite("config", "gain", static_cast<uint32_t>(std::atoi(argv[2])));
  } catch (const std::exception& e) {
    std::fprintf(stderr, "embedding: %s\n", e.what());
    return 1;
  }
}
