#include "board/devices/Probe.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <linux/i2c.h>
#include <linux/spi/spidev.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <optional>
#include <system_error>
#include <thread>

#include "Orb/Descriptor.h"
#include "Orb/Errno.h"
#include "Smbus/Bus.h"
#include "board/devices/I2cFormat.h"
#include "board/devices/Window.h"

namespace Board {

namespace {

namespace fs = std::filesystem;

constexpr uint8_t firstAddress = 0x08;
constexpr uint8_t lastAddress = 0x77;

// As accesses do.
constexpr std::chrono::milliseconds pauseBetweenTries{1};
constexpr int mostTries = 100;

// The first line of a file of the system; empty when there is none.
std::string lineOf(const std::string& path) {
  std::ifstream in(path);
  std::string line;
  std::getline(in, line);
  return line;
}

std::string busName(const std::string& node) { return fs::path(node).filename().string(); }

struct Ability {
  unsigned long function;
  const char* name;
};
constexpr Ability abilities[] = {
    {I2C_FUNC_I2C, "messages (I2C_RDWR)"},
    {I2C_FUNC_SMBUS_QUICK, "quick"},
    {I2C_FUNC_SMBUS_BYTE, "byte"},
    {I2C_FUNC_SMBUS_BYTE_DATA, "byte data"},
    {I2C_FUNC_SMBUS_WORD_DATA, "word data"},
    {I2C_FUNC_SMBUS_I2C_BLOCK, "I2C block"},
    {I2C_FUNC_SMBUS_PEC, "packet error check"},
};

std::string abilitiesOf(unsigned long functions) {
  std::string names;
  for (const Ability& ability : abilities) {
    if ((functions & ability.function) != ability.function) continue;
    names += fmt::format("{}{}", names.empty() ? "" : ", ", ability.name);
  }
  return names.empty() ? "nothing that it tells" : names;
}

// Where an empty write might change something.
bool mayBeEeprom(uint8_t address) {
  return (address >= 0x30 && address <= 0x37) || (address >= 0x50 && address <= 0x5f);
}

std::string driverOf(const std::string& node, uint8_t address) {
  const std::string number = busName(node).substr(busName(node).find('-') + 1);
  std::error_code error;
  const fs::path driver = fs::read_symlink(
      fmt::format("/sys/bus/i2c/devices/{}-{:04x}/driver", number, address), error);
  return error ? "a driver" : driver.filename().string();
}

// What adapters say where nothing acknowledges.
bool meansSilence(int error) {
  return error == ENXIO || error == EREMOTEIO || error == EIO || error == ETIMEDOUT ||
         error == ENODEV;
}

// The errno of the question. A bus that another master has won is tried again.
int question(Smbus::Bus& bus, uint8_t address) {
  const bool canWrite = (bus.functions() & I2C_FUNC_SMBUS_QUICK) != 0;
  uint8_t byte = 0;
  for (int tries = 1;; ++tries) {
    if (const int error = bus.lock()) return error;
    const int answer = canWrite && !mayBeEeprom(address) ? bus.quickWrite()
                                                         : bus.exchange({{}, {&byte, 1}, false});
    bus.unlock();
    if (answer != EAGAIN || tries == mostTries) return answer;
    std::this_thread::sleep_for(pauseBetweenTries);
  }
}

ProbeReport::Device ask(Smbus::Bus& bus, const std::string& node, uint8_t address) {
  int error = bus.deviceIs(address);
  if (error == EBUSY) return {address, true, driverOf(node, address), {}};
  if (error == 0) error = question(bus, address);
  if (error == 0 || meansSilence(error)) return {address, error == 0, {}, {}};
  const bool isUnable = error == EOPNOTSUPP;
  return {address,
          false,
          {},
          isUnable ? "the adapter has no transaction to ask with"
                   : std::generic_category().message(error)};
}

// The form's widest register that it may have.
std::string whyNoForm(Smbus::Bus& bus, const Form& form) {
  const Transport transport = Transport::at(i2cKind, fmt::format("/dev/i2c-0:0x10,{}", form.name));
  const unsigned long functions = bus.functions();
  if (!transport.format) {
    const unsigned long needed =
        transport.words ? I2C_FUNC_SMBUS_WORD_DATA : I2C_FUNC_SMBUS_I2C_BLOCK;
    return (functions & needed) == needed ? "" : "the adapter has no such SMBus transaction";
  }
  const auto& format = static_cast<const I2cFormat&>(*transport.format);
  const unsigned width = format.registerBits != 0 ? format.registerBits : 8;
  const auto read = format.readMessage(0, width);
  const std::string why = bus.whyNoExchange(read.size, read.awaited, format.pec);
  if (!why.empty()) return why;
  return bus.whyNoExchange(format.writeMessage(0, width, 0).size, 0, format.pec);
}

}  // namespace

ProbeReport probeI2c(const std::string& node, int address) {
  Smbus::Bus bus{Orb::String(node)};
  ProbeReport report;
  const std::string name = lineOf(fmt::format("/sys/class/i2c-dev/{}/name", busName(node)));
  report.facts.push_back({"bus", node});
  if (!name.empty()) report.facts.push_back({"adapter", name});
  report.facts.push_back({"can do", abilitiesOf(bus.functions())});
  const bool all = address < 0;
  for (unsigned at = all ? firstAddress : static_cast<unsigned>(address);
       at <= (all ? lastAddress : static_cast<unsigned>(address)); ++at) {
    const ProbeReport::Device device = ask(bus, node, static_cast<uint8_t>(at));
    if (device.answers || !device.trouble.empty() || !all) report.devices.push_back(device);
  }
  for (const Form& form : i2cKind.forms) report.fits.push_back({&form, whyNoForm(bus, form)});
  return report;
}

ProbeReport probeSpi(const std::string& node) {
  const Orb::Descriptor device(::open(node.c_str(), O_RDWR | O_CLOEXEC));
  if (!device) Orb::throwErrno("cannot open SPI device {}", node);
  uint8_t mode = 0;
  uint8_t bits = 0;
  uint32_t speed = 0;
  if (::ioctl(device.get(), SPI_IOC_RD_MODE, &mode) < 0 ||
      ::ioctl(device.get(), SPI_IOC_RD_BITS_PER_WORD, &bits) < 0 ||
      ::ioctl(device.get(), SPI_IOC_RD_MAX_SPEED_HZ, &speed) < 0) {
    Orb::throwErrno("cannot ask SPI device {}", node);
  }
  ProbeReport report;
  report.facts = {
      {"device", node},
      {"mode", fmt::format("{}{}", mode & 3, (mode & SPI_LSB_FIRST) ? ", low bit first" : "")},
      {"bits per word", std::to_string(bits == 0 ? 8 : bits)},
      {"highest speed", fmt::format("{} Hz", speed)}};
  return report;
}

ProbeReport probeWindow(const std::string& path) {
  const Window window = deviceWindow(path, path);
  ProbeReport report;
  report.facts = {{"file", path}, {"window", fmt::format("{:#x} bytes", window.size)}};
  return report;
}

}  // namespace Board
