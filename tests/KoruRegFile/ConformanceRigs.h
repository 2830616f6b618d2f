#pragma once

// The six transports of the conformance suite, each with what it can do and with the device behind
// it, seen from outside. A rig stands for a simulated device unless the environment names a real
// one: KORU_CONFORMANCE_I2C_WORD as NODE:ADDRESS, KORU_CONFORMANCE_PCI as the file to be mapped,
// KORU_CONFORMANCE_SPI as the device node.

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "KoruRegFile/TransportMethod.h"

namespace Conformance {

struct Capabilities {
  bool reads;
  bool waits;      // regRead and regWrite return when the access is over
  bool callsBack;  // an access with a callback tells how the access itself ended
  unsigned bits;   // of a value
};

class Rig {
 public:
  virtual ~Rig() = default;

  virtual Orb::Ptr<KoruRegFile::BaseTransportDescriptor> descriptor() = 0;
  // What the device holds in the register of that map number; empty where nobody can look.
  virtual std::optional<uint32_t> held(uint32_t number) = 0;
  // Whether the device fails every access. What it holds may be lost then.
  virtual void failsIs(bool fails) = 0;
};

struct Transport {
  const char* name;
  Capabilities can;
  std::unique_ptr<Rig> (*rig)();
};

// In the order of the factory's table.
const std::vector<Transport>& transports();

}  // namespace Conformance
