#pragma once

// A register that is looked up once and accessed again and again:
//
//     auto control = transport->reg("control");
//     control.write(control.read() | 1);
//
// The accesses are those of TransportMethod, with the same counters, traces and error flag; only
// the look-up is left out as long as the transport method keeps its implementation and its map. A
// handle keeps nothing alive. It may be copied, costs nothing to move, and is used on the thread of
// its transport method.

#include <cstdint>

#include "Hardware/KoruRegFile.h"
#include "KoruRegFile/BaseTransportMethodImpl.h"
#include "KoruRegFile/Export.h"
#include "Orb/Anchor.h"

namespace KoruRegFile {

class TransportMethod;

class KORU_EXPORT RegisterHandle {
 public:
  using HardwareRegister = Hardware::KoruRegFile::HardwareRegister;

  // Stands for no register.
  RegisterHandle() = default;

  // Whether the register can be accessed now: its transport method is there, has an implementation,
  // and that has a register of this name.
  explicit operator bool() const;
  const Orb::String& name() const { return name_; }

  // As TransportMethod::regRead() and the others: a read that failed is 0xFFFFFFFF. Throw
  // std::runtime_error when the transport method is gone or has no implementation. A map that lost
  // the register has the access fail, like any unknown name.
  uint32_t read() const;
  void write(uint32_t value) const;
  void readOutcome(AccessCallback callback) const;
  void writeOutcome(uint32_t value, AccessCallback callback) const;

 private:
  friend class TransportMethod;
  RegisterHandle(const Orb::Anchored<TransportMethod>& method, const Orb::String& name);
  TransportMethod& method() const;
  // What the name stands for in the map, looked up anew when that may have changed. Throws
  // std::runtime_error when it stands for nothing.
  const HardwareRegister& upToDate(const RegFileHelper& map, uint64_t implVersion) const {
    if (implVersion_ != implVersion || mapVersion_ != map.version()) lookUp(map, implVersion);
    return reg_;
  }
  void lookUp(const RegFileHelper& map, uint64_t implVersion) const;

  Orb::Anchored<TransportMethod> method_;
  Orb::String name_;
  // What it stood for when it was looked up.
  mutable HardwareRegister reg_;
  // Of which implementation and map that was.
  mutable uint64_t implVersion_ = 0;
  mutable uint64_t mapVersion_ = 0;
};

}  // namespace KoruRegFile
