#include "simulator/model/Image.h"

#include <algorithm>
#include <cstring>

namespace Simulator {

namespace {

constexpr uint32_t mostRows = 1 << 20;
constexpr uint32_t usualSpeed = 500000;

// FNV-1a.
uint64_t mixed(uint64_t hash, const void* data, size_t size) {
  const auto* bytes = static_cast<const uint8_t*>(data);
  for (size_t i = 0; i < size; ++i) hash = (hash ^ bytes[i]) * 0x100000001b3;
  return hash;
}

bool isWithin(uint32_t first, uint32_t count, size_t all) {
  return first <= all && count <= all - first;
}

template <size_t Size>
bool isEnded(const char (&text)[Size]) {
  return std::memchr(text, 0, Size) != nullptr;
}

bool isSound(const Image& image, const ChipRow& chip) {
  const auto registers =
      image.registers.subspan(std::min<size_t>(chip.firstRegister, image.registers.size()));
  return isEnded(chip.name) && chip.node < image.nodes.size() &&
         isWithin(chip.firstRegister, chip.registers, image.registers.size()) &&
         isWithin(chip.firstFault, chip.faults, image.faults.size()) &&
         isWithin(chip.memoryAt, chip.memory, image.memory.size()) && chip.addressBytes <= 4 &&
         chip.commandBytes <= 4 && chip.valueBytes >= 1 && chip.valueBytes <= 4 &&
         std::ranges::all_of(registers.first(chip.registers), [](const RegisterRow& each) {
           return each.bytes >= 1 && each.bytes <= 4;
         });
}

}  // namespace

int Image::nodeOf(std::string_view path) const {
  for (size_t i = 0; i < nodes.size(); ++i) {
    if (path == nodes[i].path) return static_cast<int>(i);
  }
  return -1;
}

int Image::chipNamed(std::string_view name) const {
  for (size_t i = 0; i < chips.size(); ++i) {
    if (name == chips[i].name) return static_cast<int>(i);
  }
  return -1;
}

int Image::chipAt(size_t node, uint32_t address) const {
  for (size_t i = 0; i < chips.size(); ++i) {
    if (chips[i].node == node && chips[i].address == address) return static_cast<int>(i);
  }
  return -1;
}

size_t sizeOf(const Header& header) {
  return sizeof(Header) + header.nodes * (sizeof(NodeRow) + sizeof(NodeState)) +
         header.chips * (sizeof(ChipRow) + sizeof(ChipState)) +
         header.registers * (sizeof(RegisterRow) + sizeof(uint32_t)) +
         header.faults * (sizeof(FaultRow) + sizeof(uint32_t)) + header.memory;
}

uint64_t checkOf(const Image& image) {
  uint64_t hash = mixed(0xcbf29ce484222325, &image.header->size, 6 * sizeof(uint32_t));
  hash = mixed(hash, image.nodes.data(), image.nodes.size_bytes());
  hash = mixed(hash, image.chips.data(), image.chips.size_bytes());
  hash = mixed(hash, image.registers.data(), image.registers.size_bytes());
  return mixed(hash, image.faults.data(), image.faults.size_bytes());
}

Image partsOf(std::span<uint8_t> bytes) {
  Image image;
  image.header = reinterpret_cast<Header*>(bytes.data());
  uint8_t* at = bytes.data() + sizeof(Header);
  const auto take = [&at]<class Row>(std::span<Row>& rows, size_t count) {
    rows = {reinterpret_cast<Row*>(at), count};
    at += rows.size_bytes();
  };
  const Header& header = *image.header;
  take(image.nodes, header.nodes);
  take(image.chips, header.chips);
  take(image.registers, header.registers);
  take(image.faults, header.faults);
  take(image.nodeStates, header.nodes);
  take(image.chipStates, header.chips);
  take(image.values, header.registers);
  take(image.faultCounts, header.faults);
  take(image.memory, header.memory);
  return image;
}

const char* whyUnsound(std::span<uint8_t> bytes) {
  Header header;
  if (bytes.size() < sizeof header) return "it has been cut";
  std::memcpy(&header, bytes.data(), sizeof header);
  if (std::memcmp(header.magic, imageMagic, sizeof imageMagic) != 0) {
    return "it is no board's, or of another version";
  }
  for (const uint32_t rows : {header.nodes, header.chips, header.registers, header.faults}) {
    if (rows > mostRows) return "its header is damaged";
  }
  if (header.memory > mostMemory || header.size != sizeOf(header)) return "its header is damaged";
  if (bytes.size() != header.size) return "it has been cut";
  const Image image = partsOf(bytes);
  if (header.check != checkOf(image)) return "its description is damaged";
  const bool isWhole =
      std::ranges::all_of(image.nodes, [](const NodeRow& node) { return isEnded(node.path); }) &&
      std::ranges::all_of(image.chips, [&](const ChipRow& chip) { return isSound(image, chip); });
  return isWhole ? nullptr : "its description makes no sense";
}

void powerOn(Image& image) {
  std::ranges::fill(image.nodeStates, NodeState{0, 8, usualSpeed});
  std::ranges::fill(image.chipStates, ChipState{});
  std::ranges::fill(image.faultCounts, 0);
  for (size_t i = 0; i < image.values.size(); ++i) image.values[i] = image.registers[i].reset;
  std::ranges::fill(image.memory, uint8_t{0xff});
}

}  // namespace Simulator
