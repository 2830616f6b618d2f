#pragma once

// The three properties that select a transport implementation, each stored in one byte. For each:
// <Enum>Instance() from its number and from its name (Orb::RangeException for one that does not
// exist), stringValue() to its name, stream output and the framework's string form, which are the
// bare name.

#include <cstdint>
#include <ostream>
#include <string_view>

#include "KoruRegFile/Export.h"
#include "Orb/Enum.h"

namespace KoruRegFile {

// The kind of bus.
enum class TransportType : uint8_t { i2c = 0, pci = 1, spi = 2, mock = 3 };

// The access method.
enum class TransportProtocol : uint8_t {
  DirectAccess = 0,
  I2cRelay = 1,
  I2cSmbusIoctl = 2,
  SpiAccellerator = 3,  // the double l is part of the name: configurations use it
  mockProtocol = 4,
};

// The variant of the access method.
enum class TransportFlavour : uint8_t {
  PciPax = 0,
  I2cSmbusRelay = 1,
  I2cSmbusDataBlock = 2,
  I2cSmbusDataWord = 3,
  SpiPax = 4,
  mockFlavour = 5,
};

KORU_EXPORT TransportType TransportTypeInstance(uint32_t number);
KORU_EXPORT TransportType TransportTypeInstance(std::string_view name);
KORU_EXPORT TransportProtocol TransportProtocolInstance(uint32_t number);
KORU_EXPORT TransportProtocol TransportProtocolInstance(std::string_view name);
KORU_EXPORT TransportFlavour TransportFlavourInstance(uint32_t number);
KORU_EXPORT TransportFlavour TransportFlavourInstance(std::string_view name);

KORU_EXPORT const char* stringValue(TransportType type);
KORU_EXPORT const char* stringValue(TransportProtocol protocol);
KORU_EXPORT const char* stringValue(TransportFlavour flavour);

KORU_EXPORT std::ostream& operator<<(std::ostream& out, TransportType type);
KORU_EXPORT std::ostream& operator<<(std::ostream& out, TransportProtocol protocol);
KORU_EXPORT std::ostream& operator<<(std::ostream& out, TransportFlavour flavour);

}  // namespace KoruRegFile

template <>
struct Orb::EnumDescription<KoruRegFile::TransportType> {
  using T = KoruRegFile::TransportType;
  static constexpr const char* typeName = "KoruRegFile::TransportType";
  static constexpr EnumName<T> names[] = {
      {T::i2c, "i2c"}, {T::pci, "pci"}, {T::spi, "spi"}, {T::mock, "mock"}};
};

template <>
struct Orb::EnumDescription<KoruRegFile::TransportProtocol> {
  using T = KoruRegFile::TransportProtocol;
  static constexpr const char* typeName = "KoruRegFile::TransportProtocol";
  static constexpr EnumName<T> names[] = {{T::DirectAccess, "DirectAccess"},
                                          {T::I2cRelay, "I2cRelay"},
                                          {T::I2cSmbusIoctl, "I2cSmbusIoctl"},
                                          {T::SpiAccellerator, "SpiAccellerator"},
                                          {T::mockProtocol, "mockProtocol"}};
};

template <>
struct Orb::EnumDescription<KoruRegFile::TransportFlavour> {
  using T = KoruRegFile::TransportFlavour;
  static constexpr const char* typeName = "KoruRegFile::TransportFlavour";
  static constexpr EnumName<T> names[] = {{T::PciPax, "PciPax"},
                                          {T::I2cSmbusRelay, "I2cSmbusRelay"},
                                          {T::I2cSmbusDataBlock, "I2cSmbusDataBlock"},
                                          {T::I2cSmbusDataWord, "I2cSmbusDataWord"},
                                          {T::SpiPax, "SpiPax"},
                                          {T::mockFlavour, "mockFlavour"}};
};
