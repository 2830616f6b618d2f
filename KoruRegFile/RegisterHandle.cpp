#include "KoruRegFile/RegisterHandle.h"

#include <fmt/format.h>

#include <stdexcept>
#include <utility>

#include "KoruRegFile/RegisterRecord.h"
#include "KoruRegFile/TransportMethod.h"

namespace KoruRegFile {

RegisterHandle::RegisterHandle(const Orb::Anchored<TransportMethod>& method,
                               const Orb::String& name)
    : method_(method), name_(name) {}

TransportMethod& RegisterHandle::method() const {
  if (TransportMethod* method = method_.get()) return *method;
  throw std::runtime_error(
      fmt::format("register '{}' cannot be accessed: its transport is gone", name()));
}

void RegisterHandle::lookUp(const RegFileHelper& map, uint64_t implVersion) const {
  if (name().view().find('\0') != std::string_view::npos) throwNoRegister(name());
  implVersion_ = 0;  // unless it is found
  reg_ = map.findRegisterByName(name());
  mapVersion_ = map.version();
  implVersion_ = implVersion;
}

RegisterHandle::operator bool() const {
  const TransportMethod* method = method_.get();
  return method && method->implPtr() && method->hasRegName(name());
}

uint32_t RegisterHandle::read() const { return method().handleRead(*this); }

void RegisterHandle::write(uint32_t value) const { method().handleWrite(*this, value); }

void RegisterHandle::readOutcome(AccessCallback callback) const {
  method().regReadOutcome(name(), std::move(callback));
}

void RegisterHandle::writeOutcome(uint32_t value, AccessCallback callback) const {
  method().regWriteOutcome(name(), value, std::move(callback));
}

}  // namespace KoruRegFile
