#include "Plat/PciPaxImpl.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include "Keel/GenericSigbusHandler.h"
#include "Orb/Descriptor.h"
#include "Orb/Errno.h"

namespace Plat {

using Keel::GenericSigbusHandler;

namespace {

std::atomic<bool> autoInstall{true};

// How far into its first page a BAR begins. Sysfs maps whole pages, and a BAR smaller than a page
// need not begin at one; the file "resource" beside it has a line "start end flags" for each BAR.
size_t offsetInPage(const std::filesystem::path& path) {
  const std::string prefix = "resource";
  const std::string file = path.filename().string();
  if (!file.starts_with(prefix) || file == prefix) return 0;
  const int bar = std::atoi(file.c_str() + prefix.size());
  std::ifstream resource(path.parent_path() / prefix);
  std::string line;
  for (int i = 0; i <= bar; ++i) {
    if (!std::getline(resource, line)) return 0;
  }
  const auto pageSize = static_cast<unsigned long long>(::sysconf(_SC_PAGESIZE));
  return static_cast<size_t>(std::strtoull(line.c_str(), nullptr, 16) % pageSize);
}

}  // namespace

void PaxImplGlobalControl::sigbusHandlerAutoInstallIs(bool on) { autoInstall = on; }
bool PaxImplGlobalControl::sigbusHandlerAutoInstall() { return autoInstall; }

Orb::Ptr<PciPaxImpl> pciPaxImplFactory(const Orb::String& name, const Orb::String& path) {
  return Orb::make<PciPaxImpl>(name, path);
}

Orb::Ptr<PciPaxImpl> PciPaxImpl::PciPaxImplIs(const Orb::String& name, const Orb::String& path) {
  return pciPaxImplFactory(name, path);
}

const Orb::EntityType& PciPaxImpl::entityType() {
  using P = PciPaxImpl;
  static const auto type = Orb::EntityTypeOf<P>("Plat::PciPaxImpl")
                               .extends(PaxImpl::entityType())
                               .attribute("windowSize", &P::windowSize)
                               .attribute("hardwareReady", &P::hardwareReady)
                               .attribute("sigbusRaised", &P::sigbusRaised)
                               .operation("hardwareReadyIs", &P::hardwareReadyIs, {"ready"})
                               .operation("sigbusRaisedIs", &P::sigbusRaisedIs, {"raised"});
  return type;
}

PciPaxImpl::PciPaxImpl(Orb::String name, const Orb::String& path) : Notifier(std::move(name)) {
  if (PaxImplGlobalControl::sigbusHandlerAutoInstall()) GenericSigbusHandler::initialize();
  const Orb::Descriptor file(::open(path.c_str(), O_RDWR | O_CLOEXEC));
  if (!file) Orb::throwErrno("cannot open {}", path);
  map(file.get(), path);
}

void PciPaxImpl::map(int fd, const Orb::String& path) {
  struct stat status;
  if (::fstat(fd, &status) != 0) Orb::throwErrno("cannot look at {}", path);
  const auto fileSize = static_cast<size_t>(status.st_size);
  if (fileSize < sizeof(uint32_t)) {
    throw std::runtime_error(fmt::format("{} has no register: its size is {}", path, fileSize));
  }
  const size_t offset = offsetInPage(path.c_str());
  const size_t size = offset + fileSize;
  void* mapping = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (mapping == MAP_FAILED) Orb::throwErrno("cannot map {}", path);
  mapping_ = mapping;
  mappingSize_ = size;
  window_ = static_cast<volatile std::byte*>(mapping) + offset;
  size_ = fileSize;
}

PciPaxImpl::~PciPaxImpl() {
  if (mapping_) ::munmap(mapping_, mappingSize_);
}

volatile uint32_t* PciPaxImpl::at(uint32_t address) const {
  if (address % sizeof(uint32_t) != 0) {
    throw std::runtime_error(
        fmt::format("{}: register address {:#x} is no multiple of 4", PaxImpl::name(), address));
  }
  if (size_ < sizeof(uint32_t) || address > size_ - sizeof(uint32_t)) {
    throw std::runtime_error(
        fmt::format("{}: register address {:#x} lies beyond the window of {:#x} bytes",
                    PaxImpl::name(), address, size_));
  }
  return reinterpret_cast<volatile uint32_t*>(window_ + address);
}

void PciPaxImpl::read32(uint32_t address, uint32_t& value) const { value = *at(address); }

void PciPaxImpl::write32(uint32_t address, uint32_t value) const { *at(address) = value; }

void PciPaxImpl::guardedRead32(uint32_t address, uint32_t& value) const {
  value = GenericSigbusHandler::guardedRead(at(address));
}

void PciPaxImpl::guardedWrite32(uint32_t address, uint32_t value) const {
  GenericSigbusHandler::guardedWrite(at(address), value);
}

}  // namespace Plat
