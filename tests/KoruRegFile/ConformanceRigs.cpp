#include "tests/KoruRegFile/ConformanceRigs.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdlib>

#include "Plat/PciPaxImpl.h"
#include "testing/BusSimulator.h"
#include "testing/MockValueFile.h"
#include "testing/RegisterWindow.h"

namespace Conformance {

namespace {

using namespace KoruRegFile;
using Descriptor = Orb::Ptr<BaseTransportDescriptor>;

constexpr const char* i2cNode = "/dev/i2c-7";
constexpr const char* spiNode = "/dev/spidev7.0";
constexpr uint8_t chip = 0x50;

// A device that nobody can look at but through its transport, and that does not fail at will.
class RealRig : public Rig {
 public:
  explicit RealRig(Descriptor descriptor) : descriptor_(std::move(descriptor)) {}
  Descriptor descriptor() override { return descriptor_; }
  std::optional<uint32_t> held(uint32_t) override { return {}; }
  void failsIs(bool) override {}

 private:
  const Descriptor descriptor_;
};

class PciRig : public Rig {
 public:
  Descriptor descriptor() override {
    return pciTransportDescriptorFactory(Plat::pciPaxImplFactory("pci", window_.path()));
  }
  std::optional<uint32_t> held(uint32_t number) override { return window_.at(number * 4); }
  void failsIs(bool fails) override { window_.sizeIs(fails ? 0 : size); }

 private:
  static constexpr size_t size = 4096;
  Testing::RegisterWindow window_{size};
};

class I2cRig : public Rig {
 public:
  explicit I2cRig(unsigned addressBits) { bus_.chipIs(i2cNode, chip, addressBits); }
  std::optional<uint32_t> held(uint32_t number) override {
    return bus_.registers(i2cNode, chip)[number];
  }
  void failsIs(bool fails) override { bus_.silentIs(fails); }

 private:
  Testing::BusSimulator bus_;
};

class I2cRelayRig : public I2cRig {
 public:
  I2cRelayRig() : I2cRig(16) {}
  Descriptor descriptor() override {
    return i2cRelayTransportDescriptorFactory(Hardware::relayFactory("relay", i2cNode), chip);
  }
};

template <TransportFlavour flavour>
class I2cSmbusRig : public I2cRig {
 public:
  I2cSmbusRig() : I2cRig(flavour == TransportFlavour::I2cSmbusDataWord ? 8 : 16) {}
  Descriptor descriptor() override { return i2cTransportDescriptorFactory(flavour, i2cNode, chip); }
};

class MockRig : public Rig {
 public:
  Descriptor descriptor() override { return mockTransportDescriptorFactory(); }
  std::optional<uint32_t> held(uint32_t number) override {
    const std::string text = file_.content();
    const std::string key = fmt::format("\n{},", number * 4);
    const size_t at = text.find(key);
    return at == std::string::npos
               ? 0
               : static_cast<uint32_t>(std::stoul(text.substr(at + key.size())));
  }
  void failsIs(bool) override {}

 private:
  const Testing::MockValueFile file_;
};

class SpiRig : public Rig {
 public:
  SpiRig() { bus_.spiNodeIs(spiNode); }
  Descriptor descriptor() override {
    return spiTransportDescriptorFactory(Orb::make<Plat::Pax>("spi", spiNode));
  }
  std::optional<uint32_t> held(uint32_t number) override {
    for (const std::string& entry : bus_.takeLedger()) {
      unsigned address = 0, high = 0, low = 0;
      if (std::sscanf(entry.c_str(), "spi %x %x %x", &address, &high, &low) == 3) {
        held_[address] = high << 8 | low;
      }
    }
    return held_[number];
  }
  void failsIs(bool fails) override { bus_.faultIs(1, ENODEV, fails ? 1000 : 0); }

 private:
  Testing::BusSimulator bus_;
  std::map<uint32_t, uint32_t> held_;
};

template <class R>
std::unique_ptr<Rig> make() {
  return std::make_unique<R>();
}

std::unique_ptr<Rig> makePci() {
  const char* file = std::getenv("KORU_CONFORMANCE_PCI");
  if (!file) return make<PciRig>();
  return std::make_unique<RealRig>(
      pciTransportDescriptorFactory(Plat::pciPaxImplFactory("pci", file)));
}

std::unique_ptr<Rig> makeI2cWord() {
  const char* text = std::getenv("KORU_CONFORMANCE_I2C_WORD");
  if (!text) return make<I2cSmbusRig<TransportFlavour::I2cSmbusDataWord>>();
  const std::string place = text;
  const size_t colon = place.rfind(':');
  return std::make_unique<RealRig>(i2cTransportDescriptorFactory(
      TransportFlavour::I2cSmbusDataWord, place.substr(0, colon),
      static_cast<uint32_t>(std::stoul(place.substr(colon + 1), nullptr, 0))));
}

std::unique_ptr<Rig> makeSpi() {
  const char* node = std::getenv("KORU_CONFORMANCE_SPI");
  if (!node) return make<SpiRig>();
  return std::make_unique<RealRig>(
      spiTransportDescriptorFactory(Orb::make<Plat::Pax>("spi", node)));
}

}  // namespace

const std::vector<Transport>& transports() {
  static const std::vector<Transport> all = {
      {"pci", {true, true, true, 32}, makePci},
      {"i2cRelay", {true, false, true, 32}, make<I2cRelayRig>},
      {"i2cBlock", {true, true, true, 32}, make<I2cSmbusRig<TransportFlavour::I2cSmbusDataBlock>>},
      {"i2cWord", {true, true, true, 16}, makeI2cWord},
      {"mock", {true, true, true, 32}, make<MockRig>},
      {"spi", {false, false, false, 16}, makeSpi},
  };
  return all;
}

}  // namespace Conformance
