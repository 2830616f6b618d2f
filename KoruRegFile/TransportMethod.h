#pragma once

// Register access by name, for the rest of the library and for agents: picks the transport
// implementation that a descriptor asks for, and keeps failures away from its callers. A failed
// access is traced, flagged through a TransportMethodError and otherwise swallowed; only an access
// with a callback reports its failure there instead.
//
// Used on the framework's thread; owns its implementation. An access without a callback allocates
// nothing of its own; one with a callback copies that.

#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>

#include "Hardware/KoruRegFile.h"
#include "KoruRegFile/BaseTransportMethodImpl.h"
#include "KoruRegFile/Export.h"
#include "KoruRegFile/RegisterHandle.h"
#include "KoruRegFile/TransportDescriptor.h"
#include "KoruRegFile/TransportMethodError.h"
#include "Orb/Anchor.h"
#include "Orb/Counter.h"
#include "Orb/EntityStrep.h"
#include "Orb/Notifier.h"
#include "Orb/Value.h"

namespace KoruRegFile {

class AccessObserver;

// Where a register map comes from: a CSV file or the platform's hardware model.
class KORU_EXPORT TransportMethodRegFile : public Orb::Value<TransportMethodRegFile> {
 public:
  using Model = Orb::Ptr<Hardware::KoruRegFile::HardwareRegisterFile>;

  TransportMethodRegFile() = default;
  TransportMethodRegFile(Orb::String csvPath, Model regFileModel)
      : csvPath_(std::move(csvPath)), regFileModel_(std::move(regFileModel)) {}

  static constexpr auto description() {
    using T = TransportMethodRegFile;
    return Orb::describe("KoruRegFile::TransportMethodRegFile", Orb::named("csvPath", &T::csvPath_),
                         Orb::named("regFileModel", &T::regFileModel_));
  }

  const Orb::String& csvPath() const { return csvPath_; }
  void csvPathIs(const Orb::String& csvPath) { csvPath_ = csvPath; }
  const Model& regFileModel() const { return regFileModel_; }
  void regFileModelIs(const Model& regFileModel) { regFileModel_ = regFileModel; }

 private:
  Orb::String csvPath_;
  Model regFileModel_;
};

class KORU_EXPORT TransportMethod : public Orb::Notifier<TransportMethod> {
 public:
  class Notifiee : public Orb::NotifieeOf<TransportMethod> {
   public:
    using NotifieeOf::NotifieeOf;
    virtual void onErrorNotifier() {}
    virtual void onDescriptor() {}
  };

  explicit TransportMethod(const Orb::String& name);
  ~TransportMethod() override;
  static Orb::Ptr<TransportMethod> TransportMethodIs(const Orb::String& name);
  static const Orb::EntityType& entityType();
  const Orb::EntityType& fwkType() const override { return entityType(); }
  Orb::String entityName() const override { return name_; }

  const Orb::String& name() const { return name_; }
  const Orb::Ptr<BaseTransportDescriptor>& descriptor() const { return descriptor_(); }

  // Stores the descriptor and builds its implementation; the map's file wins over its model. Throws
  // std::runtime_error when a part is missing or the descriptor's triple has no implementation, and
  // what the implementation's constructor throws; then there is no implementation afterwards.
  void fullInit(const Orb::Ptr<BaseTransportDescriptor>& descriptor,
                const TransportMethodRegFile& regFile);
  void init(const Orb::Ptr<BaseTransportDescriptor>& descriptor, const Orb::String& csvPath);

  // The implementation; null before a successful init.
  BaseTransportMethodImpl* implPtr() const { return impl_.get(); }
  void implPtrIs(std::unique_ptr<BaseTransportMethodImpl> impl);
  // Puts another one in front of it, which is made of it and has the same map; accesses that go on
  // do so. Not from inside of an access, and not without an implementation.
  using Wrap = std::function<std::unique_ptr<BaseTransportMethodImpl>(
      std::unique_ptr<BaseTransportMethodImpl> inner)>;
  void implPtrWrap(const Wrap& wrap);

  // All operations below throw std::runtime_error when there is no implementation.

  // Returns 0xFFFFFFFF when the access failed. What an observer of the error flag throws reaches
  // the caller, as it does from any setter.
  uint32_t regRead(const Orb::String& regName);
  void regWrite(const Orb::String& regName, uint32_t value);
  // For names in other forms, of which no Orb::String is made.
  template <Orb::OtherText Name>
  uint32_t regRead(const Name& regName) {
    return namedRead(regName);
  }
  template <Orb::OtherText Name>
  void regWrite(const Name& regName, uint32_t value) {
    namedWrite(regName, value);
  }
  // The same for the register at an address; throws std::runtime_error for an address that the
  // register map lacks.
  void regWriteAtAddr(uint32_t address, uint32_t value);

  // An implementation's failure reaches the callback as status `failed`, a read's with the value
  // 0xFFFFFFFF; it is neither traced nor flagged. That goes for a std::runtime_error which the
  // callback itself throws too: it is then called a second time.
  void regReadWithCallback(const Orb::String& regName, RegReadCallback callback);
  void regWriteWithCallback(const Orb::String& regName, uint32_t value, RegWriteCallback callback);

  // Tell how the access ended, with the reason of a failure (AwaitAccess.h waits for that): at once
  // or, for a transport that ends its accesses later, from the event loop. A failure is neither
  // traced nor flagged; a callback that throws is not called again. Without an end, because the
  // transport goes before, the callback is dropped. It must not be empty.
  void regReadOutcome(const Orb::String& regName, AccessCallback callback);
  void regWriteOutcome(const Orb::String& regName, uint32_t value, AccessCallback callback);

  // The register, to be accessed again and again. A name that the map lacks is found out when the
  // handle is used, or asked whether it can be.
  RegisterHandle reg(const Orb::String& regName) const;

  // Throw std::runtime_error for a name or an address that the register map lacks.
  uint32_t regNameToAddr(const Orb::String& regName) const;
  Orb::String regAddrToName(uint32_t address) const;
  bool hasRegName(const Orb::String& regName) const;
  // Asks for the memory that finding the register at an address will touch (Orb/Fetch.h).
  void regFetch(uint32_t address) const;
  Orb::Ptr<RegList> regList() const;
  // The register map behind these four.
  const RegFileHelper& regFileHelper() const { return *impl().regFileHelper(); }

  const Orb::Ptr<TransportMethodError>& errorNotifier() const { return errorNotifier_(); }
  // Returns the notifier of that chip name: the present one, or else a new one that replaces it.
  Orb::Ptr<TransportMethodError> errorNotifierIs(const Orb::String& chipName);
  void errorNotifierDel();
  // Raises the error flag after a failed access, and counts it.
  void handleExceptionGeneric();
  // The same with the reason, which is kept first: whoever hears of the flag finds it.
  void accessFailed(TransportFailure failure);
  // Why the access failed that was flagged last; empty as long as none was.
  const TransportFailure& lastFailure() const { return lastFailure_; }

  // Who hears of accesses (AccessObserver.h); nobody at first. Not from inside of an access.
  void accessObserverIs(std::shared_ptr<AccessObserver> observer);
  AccessObserver* accessObserver() const { return observer_.get(); }

 private:
  friend class RegisterHandle;
  BaseTransportMethodImpl& impl() const;
  uint32_t namedRead(std::string_view regName);
  void namedWrite(std::string_view regName, uint32_t value);
  uint32_t handleRead(const RegisterHandle& handle);
  void handleWrite(const RegisterHandle& handle, uint32_t value);

  const Orb::String name_;
  Orb::Attribute<Orb::Ptr<TransportMethodError>> errorNotifier_;
  Orb::Attribute<Orb::Ptr<BaseTransportDescriptor>> descriptor_;
  std::unique_ptr<BaseTransportMethodImpl> impl_;
  uint64_t implVersion_ = 1;  // another one for each implementation
  TransportFailure lastFailure_;
  std::shared_ptr<AccessObserver> observer_;
  Orb::Counter reads_;
  Orb::Counter writes_;
  Orb::Counter failures_;
  Orb::Anchor<TransportMethod> anchor_{*this};
  Orb::DirectoryEntry directoryEntry_{*this};
};

KORU_EXPORT Orb::Ptr<TransportMethod> transportMethodFactory(const Orb::String& name);

// Runs an access to a register of `tm`. A bus error and a std::runtime_error are traced, flagged
// and swallowed; every other exception passes.
KORU_EXPORT void tryPerformIO(TransportMethod* tm, const Orb::String& regName,
                              std::function<void()> operation);

}  // namespace KoruRegFile
