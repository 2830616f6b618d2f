#include "board/devices/MemoryWindow.h"

#include <algorithm>

#include "KoruRegFile/RegisterFile.h"

namespace Board {

namespace {

using Keel::GenericSigbusHandler;

size_t windowSize(const KoruRegFile::RegisterFile& registers) {
  uint64_t end = sizeof(uint32_t);
  for (const KoruRegFile::Register& reg : registers.registers()) {
    end = std::max(end, uint64_t{reg.address} + sizeof(uint32_t));
  }
  return sizeOfWindow(end);
}

}  // namespace

MemoryWindow::MemoryWindow(const char* csvPath, const std::string& filePath)
    : BaseTransportMethodImpl(csvPath, addrBlockSize, nullptr),
      window_(fileWindow(filePath, windowSize(*regFileHelper()->csvRegFile()))) {
  GenericSigbusHandler::initialize();
}

MemoryWindow::~MemoryWindow() = default;

volatile uint32_t* MemoryWindow::place(const char* regName) const {
  const uint32_t address = regFileHelper()->regNameToAddr(regName);
  return reinterpret_cast<volatile uint32_t*>(window_.begin + address);
}

uint32_t MemoryWindow::regRead(const char* regName) {
  return GenericSigbusHandler::guardedRead(place(regName));
}

void MemoryWindow::regWrite(const char* regName, uint32_t value) {
  GenericSigbusHandler::guardedWrite(place(regName), value);
}

}  // namespace Board
