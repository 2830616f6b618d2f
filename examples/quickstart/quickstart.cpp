// The shortest way to a register: a map, a transport, a name. Runs on the mock transport, so it
// needs no hardware.
//
//     quickstart examples/maps/ina219.csv

#include <cstdio>
#include <stdexcept>

#include "KoruRegFile/TransportMethod.h"

namespace {

// Hears of the first failed access; the accesses themselves do not throw.
class ErrorWatcher : public KoruRegFile::TransportMethodError::Notifiee {
 public:
  explicit ErrorWatcher(const Orb::Ptr<KoruRegFile::TransportMethodError>& error)
      : Notifiee(error) {
    hasNotificationActiveIs(true);
  }
  void onError() override {
    if (notifier()->error())
      std::printf("  %s: an access failed\n", notifier()->chipName().c_str());
  }
};

void run(const char* map) {
  const auto chip = KoruRegFile::transportMethodFactory("sensor0");
  chip->init(KoruRegFile::mockTransportDescriptorFactory(), map);
  const ErrorWatcher watcher(chip->errorNotifierIs("sensor0"));

  chip->regWrite("CONFIGURATION", 0x399f);
  std::printf("  CONFIGURATION holds 0x%04x\n", chip->regRead("CONFIGURATION"));
  std::printf("  CONFIGURATION is at address %u\n", chip->regNameToAddr("CONFIGURATION"));
  chip->regRead("NO_SUCH_REGISTER");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: quickstart MAP.csv\n");
    return 2;
  }
  try {
    run(argv[1]);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "quickstart: %s\n", e.what());
    return 1;
  }
}
