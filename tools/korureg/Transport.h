#pragma once

// How korureg reaches a chip: the transport that the command line names, opened, and accesses that
// are seen through to their end, those that are queued or answered later included.

#include <cstdint>
#include <exception>
#include <optional>
#include <string>

#include "KoruRegFile/TransportMethod.h"
#include "korureg/Command.h"

namespace korureg {

class Transport {
 public:
  // The one that the options name, or none. Throws UsageError when they name several, or one that
  // cannot be.
  static std::optional<Transport> chosen(const Options& options);

  // The option without its dashes, as in "i2c".
  const std::string& name() const { return name_; }

  // The addresses that one register number of a map stands for.
  unsigned addrBlockSize() const { return name_ == "i2c" || name_ == "spi" ? 1 : 4; }

  // Opens what the transport is made over. Throws std::runtime_error.
  Orb::Ptr<KoruRegFile::BaseTransportDescriptor> descriptor() const;

  // The exception's text, and what to do about it.
  std::string explained(const std::exception& e) const;

 private:
  Transport(std::string name, std::string device) : name_(std::move(name)), device_(device) {}
  static Transport i2c(const char* name, const std::string& text);
  static Transport pci(const std::string& text);

  std::string advice(int error) const;
  std::string i2cAdvice(int error) const;
  std::string pciAdvice(int error) const;

  std::string name_;
  std::string device_;
  uint32_t address_ = 0;  // of an I2C chip
  bool words_ = false;    // word transactions rather than blocks
};

// Access a register and serve the event loop until the access is over. Throw what the transport
// throws, and std::runtime_error for a failure that it tells later.
uint32_t readThrough(KoruRegFile::BaseTransportMethodImpl& transport, const char* regName);
void writeThrough(KoruRegFile::BaseTransportMethodImpl& transport, const char* regName,
                  uint32_t value);

}  // namespace korureg
