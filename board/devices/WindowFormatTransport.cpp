#include "board/devices/WindowFormatTransport.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <string>
#include <utility>

#include "Keel/GenericSigbusHandler.h"

namespace Board {

using Keel::GenericSigbusHandler;
using KoruRegFile::Register;
using KoruRegFile::TransportError;

namespace {

uint64_t endOf(uint32_t address, uint32_t width) { return uint64_t{address} + bytesOf(width); }

template <class Word>
volatile Word* wordAt(volatile std::byte* place) {
  return reinterpret_cast<volatile Word*>(place);
}

// From the order of the machine into the window's, and back.
template <class Word>
Word swapped(Word word, ByteOrder order) {
  uint8_t bytes[sizeof(Word)];
  putNumber(bytes, word, order);
  Word result;
  __builtin_memcpy(&result, bytes, sizeof(Word));
  return result;
}

template <class Word>
uint32_t load(volatile std::byte* place, ByteOrder order) {
  return swapped(GenericSigbusHandler::guardedRead(wordAt<const Word>(place)), order);
}

template <class Word>
void store(volatile std::byte* place, uint32_t value, ByteOrder order) {
  GenericSigbusHandler::guardedWrite(wordAt<Word>(place), swapped(static_cast<Word>(value), order));
}

}  // namespace

WindowFormatTransport::WindowFormatTransport(const OpenWindow& open,
                                             std::shared_ptr<const WindowFormat> format,
                                             const MapSource& map)
    : FormatTransport(map, static_cast<uint8_t>(format->stride)),
      format_(std::move(format)),
      window_(open(needed())) {
  GenericSigbusHandler::initialize();
  requireWithin();
}

WindowFormatTransport::~WindowFormatTransport() = default;

size_t WindowFormatTransport::needed() const {
  uint64_t end = sizeof(uint32_t);
  const auto* map = regFileHelper()->csvRegFile();
  if (!map) return sizeOfWindow(end);
  for (const Register& reg : map->registers()) end = std::max(end, endOf(reg.address, reg.width));
  return sizeOfWindow(end);
}

void WindowFormatTransport::requireWithin() const {
  constexpr size_t mostNamed = 3;
  const auto* map = regFileHelper()->csvRegFile();
  if (!map) return;
  std::string names;
  size_t count = 0;
  for (const Register& reg : map->registers()) {
    if (endOf(reg.address, reg.width) <= window_.size) continue;
    if (++count <= mostNamed) names += fmt::format("{}{}", names.empty() ? "" : ", ", reg.name);
  }
  if (count == 0) return;
  throw std::runtime_error(fmt::format(
      "{}{} of the map lie beyond the window of {:#x} bytes", names,
      count > mostNamed ? fmt::format(" and {} more", count - mostNamed) : "", window_.size));
}

volatile std::byte* WindowFormatTransport::place(const HardwareRegister& reg) const {
  if (endOf(reg.address, reg.width) > window_.size) {
    throw TransportError(
        fmt::format("register {} lies beyond the window of {:#x} bytes", reg.name, window_.size),
        ERANGE);
  }
  return window_.begin + reg.address;
}

uint32_t WindowFormatTransport::regRead(const char* regName) {
  const auto reg = registerToRead(regName, *format_);
  volatile std::byte* const at = place(reg);
  const unsigned bytes = bytesOf(reg.width);
  const ByteOrder order = format_->valueOrder;
  const uint32_t value = bytes == 1   ? load<uint8_t>(at, order)
                         : bytes == 2 ? load<uint16_t>(at, order)
                                      : load<uint32_t>(at, order);
  return value & maskOf(reg.width);
}

void WindowFormatTransport::regWrite(const char* regName, uint32_t value) {
  const auto reg = registerToWrite(regName, value, *format_);
  volatile std::byte* const at = place(reg);
  const unsigned bytes = bytesOf(reg.width);
  const ByteOrder order = format_->valueOrder;
  if (bytes == 1) return store<uint8_t>(at, value, order);
  if (bytes == 2) return store<uint16_t>(at, value, order);
  store<uint32_t>(at, value, order);
}

}  // namespace Board
