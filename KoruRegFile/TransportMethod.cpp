#include "KoruRegFile/TransportMethod.h"

#include <fmt/format.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include "Keel/GenericSigbusHandler.h"
#include "KoruRegFile/RegisterRecord.h"
#include "KoruRegFile/TransportFactory.h"
#include "Orb/EntityType.h"
#include "Orb/Trace.h"

namespace KoruRegFile {

using Keel::GenericSigbusHandler;

namespace {
Orb::TraceHandle ioTrace("tryPerformIO");
Orb::TraceHandle exceptionTrace("handleExceptionGeneric");

// Implementations take names that end with a NUL: one that holds a NUL would stand for another
// register.
const char* wholeName(const Orb::String& regName) {
  if (regName.view().find('\0') != std::string_view::npos) throwNoRegister(regName);
  return regName.c_str();
}

// A name that ends with a NUL, which is a copy of another; without an allocation unless it is long.
class EndedName {
 public:
  explicit EndedName(std::string_view name) {
    if (name.find('\0') != std::string_view::npos) throwNoRegister(name);
    if (name.size() < sizeof short_) {
      short_[name.copy(short_, name.size())] = '\0';
    } else {
      long_ = name;
    }
  }
  const char* c_str() const { return long_.empty() ? short_ : long_.c_str(); }

 private:
  char short_[120];
  std::string long_;
};

// Has an access carried out, and what goes wrong told.
template <class Operation>
void perform(TransportMethod* tm, std::string_view regName, const Operation& operation) {
  try {
    operation();
  } catch (const GenericSigbusHandler::SigbusException& e) {
    ORB_TRACE(ioTrace, 0, "Got SIGBUS when performing operation on register '{}'", regName);
    tm->accessFailed(TransportFailure::of(e));
  } catch (const std::runtime_error& e) {
    ORB_TRACE(ioTrace, 0, "TransportMethod error on register '{}': {}", regName, e.what());
    tm->accessFailed(TransportFailure::of(e));
  }
}
}  // namespace

Orb::Ptr<TransportMethod> transportMethodFactory(const Orb::String& name) {
  return Orb::make<TransportMethod>(name);
}

Orb::Ptr<TransportMethod> TransportMethod::TransportMethodIs(const Orb::String& name) {
  return transportMethodFactory(name);
}

TransportMethod::TransportMethod(const Orb::String& name)
    : name_(name), reads_(name, "regRead"), writes_(name, "regWrite"), failures_(name, "regFail") {}

TransportMethod::~TransportMethod() = default;

const Orb::EntityType& TransportMethod::entityType() {
  using T = TransportMethod;
  using Read = uint32_t (T::*)(const Orb::String&);
  using Write = void (T::*)(const Orb::String&, uint32_t);
  static const auto type =
      Orb::EntityTypeOf<T>("KoruRegFile::TransportMethod")
          .attribute("name", &T::name)
          .attribute("errorNotifier", &T::errorNotifier)
          .attribute("descriptor", &T::descriptor)
          .operation("regRead", static_cast<Read>(&T::regRead), {"regName"})
          .operation("regWrite", static_cast<Write>(&T::regWrite), {"regName", "value"})
          .operation("regNameToAddr", &T::regNameToAddr, {"regName"})
          .operation("regAddrToName", &T::regAddrToName, {"address"})
          .operation("hasRegName", &T::hasRegName, {"regName"})
          .operation("errorNotifierIs", &T::errorNotifierIs, {"chipName"})
          .operation("errorNotifierDel", &T::errorNotifierDel, {})
          .operation("handleExceptionGeneric", &T::handleExceptionGeneric, {});
  return type;
}

void TransportMethod::fullInit(const Orb::Ptr<BaseTransportDescriptor>& descriptor,
                               const TransportMethodRegFile& regFile) {
  const auto keep = Orb::keepAlive(this);
  implPtrIs(nullptr);
  if (regFile.csvPath().empty() && !regFile.regFileModel()) {
    throw std::runtime_error("CSV and ORB Ptr cannot be both empty.");
  }
  attributeIs(descriptor_, descriptor, &Notifiee::onDescriptor);
  if (!descriptor) throw std::runtime_error("TransportDescriptor is null!");
  const TransportBuilder build = transportBuilder(*descriptor);
  if (!build) {
    throw std::runtime_error(
        fmt::format("Unknown transport type '{}'", stringValue(descriptor->type())));
  }
  const bool fromFile = !regFile.csvPath().empty();
  impl_ = build(descriptor, regFile.csvPath().c_str(),
                fromFile ? TransportMethodRegFile::Model() : regFile.regFileModel());
  if (!impl_) throw std::runtime_error("TransportMethod implementation init failed");
}

void TransportMethod::init(const Orb::Ptr<BaseTransportDescriptor>& descriptor,
                           const Orb::String& csvPath) {
  fullInit(descriptor, TransportMethodRegFile(csvPath, nullptr));
}

void TransportMethod::implPtrIs(std::unique_ptr<BaseTransportMethodImpl> impl) {
  ++implVersion_;
  impl_ = std::move(impl);
}

BaseTransportMethodImpl& TransportMethod::impl() const {
  if (!impl_) throw std::runtime_error("TransportMethod implementation does not exist");
  return *impl_;
}

uint32_t TransportMethod::regRead(const Orb::String& regName) {
  BaseTransportMethodImpl& transport = impl();
  uint32_t value = failedReadValue;
  reads_.increment();
  perform(this, regName, [&] { value = transport.regRead(wholeName(regName)); });
  return value;
}

void TransportMethod::regWrite(const Orb::String& regName, uint32_t value) {
  BaseTransportMethodImpl& transport = impl();
  writes_.increment();
  perform(this, regName, [&] { transport.regWrite(wholeName(regName), value); });
}

uint32_t TransportMethod::namedRead(std::string_view regName) {
  BaseTransportMethodImpl& transport = impl();
  uint32_t value = failedReadValue;
  reads_.increment();
  perform(this, regName, [&] { value = transport.regRead(EndedName(regName).c_str()); });
  return value;
}

void TransportMethod::namedWrite(std::string_view regName, uint32_t value) {
  BaseTransportMethodImpl& transport = impl();
  writes_.increment();
  perform(this, regName, [&] { transport.regWrite(EndedName(regName).c_str(), value); });
}

RegisterHandle TransportMethod::reg(const Orb::String& regName) const {
  return {anchor_.anchored(), regName};
}

uint32_t TransportMethod::handleRead(const RegisterHandle& handle) {
  BaseTransportMethodImpl& transport = impl();
  uint32_t value = failedReadValue;
  reads_.increment();
  perform(this, handle.name(), [&] {
    value = transport.foundRegRead(handle.upToDate(*transport.regFileHelper(), implVersion_));
  });
  return value;
}

void TransportMethod::handleWrite(const RegisterHandle& handle, uint32_t value) {
  BaseTransportMethodImpl& transport = impl();
  writes_.increment();
  perform(this, handle.name(), [&] {
    transport.foundRegWrite(handle.upToDate(*transport.regFileHelper(), implVersion_), value);
  });
}

void TransportMethod::regWriteAtAddr(uint32_t address, uint32_t value) {
  // The name stays valid even when the access makes somebody replace the implementation; a model
  // may lose the register meanwhile, hence the copy.
  const Orb::Ptr<RegFileHelper> names = impl().regFileHelper();
  if (!names->csvRegFile()) return regWrite(names->findRegNameByAddr(address), value);
  regWrite(names->regNameAtAddr(address), value);
}

// The callback may drop the transport method and the name before it throws, hence copies of both.

void TransportMethod::regReadWithCallback(const Orb::String& regName, RegReadCallback callback) {
  const auto keep = Orb::keepAlive(this);
  const Orb::String name = regName;
  BaseTransportMethodImpl& transport = impl();
  reads_.increment();
  const auto fail = [&] {
    failures_.increment();
    if (callback) callback(name.c_str(), RegCallbackStatus::failed, failedReadValue);
  };
  try {
    transport.regReadWithCallback(wholeName(name), callback);
  } catch (const GenericSigbusHandler::SigbusException&) {
    fail();
  } catch (const std::runtime_error&) {
    fail();
  }
}

void TransportMethod::regWriteWithCallback(const Orb::String& regName, uint32_t value,
                                           RegWriteCallback callback) {
  const auto keep = Orb::keepAlive(this);
  const Orb::String name = regName;
  BaseTransportMethodImpl& transport = impl();
  writes_.increment();
  const auto fail = [&] {
    failures_.increment();
    if (callback) callback(name.c_str(), RegCallbackStatus::failed);
  };
  try {
    transport.regWriteWithCallback(wholeName(name), value, callback);
  } catch (const GenericSigbusHandler::SigbusException&) {
    fail();
  } catch (const std::runtime_error&) {
    fail();
  }
}

namespace {

// Begins an access; what fails at once is told like the rest, but not what the callback throws.
template <class Begin>
void beginAccess(AccessCallback callback, Orb::Counter& failures, Begin begin) {
  const auto told = std::make_shared<bool>(false);
  const auto tell = [told, callback = std::move(callback)](const AccessOutcome& outcome) {
    if (!std::exchange(*told, true)) callback(outcome);
  };
  const auto fail = [&](const std::exception& e) {
    if (*told) throw;
    failures.increment();
    tell({.failure = TransportFailure::of(e)});
  };
  try {
    begin(tell);
  } catch (const GenericSigbusHandler::SigbusException& e) {
    fail(e);
  } catch (const std::runtime_error& e) {
    fail(e);
  }
}

}  // namespace

void TransportMethod::regReadOutcome(const Orb::String& regName, AccessCallback callback) {
  BaseTransportMethodImpl& transport = impl();
  reads_.increment();
  beginAccess(std::move(callback), failures_, [&, name = regName](AccessCallback tell) {
    transport.regReadWithOutcome(wholeName(name), std::move(tell));
  });
}

void TransportMethod::regWriteOutcome(const Orb::String& regName, uint32_t value,
                                      AccessCallback callback) {
  BaseTransportMethodImpl& transport = impl();
  writes_.increment();
  beginAccess(std::move(callback), failures_, [&, name = regName](AccessCallback tell) {
    transport.regWriteWithOutcome(wholeName(name), value, std::move(tell));
  });
}

uint32_t TransportMethod::regNameToAddr(const Orb::String& regName) const {
  return impl().regFileHelper()->findRegisterByName(regName).address;
}

Orb::String TransportMethod::regAddrToName(uint32_t address) const {
  return impl().regFileHelper()->findRegNameByAddr(address);
}

bool TransportMethod::hasRegName(const Orb::String& regName) const {
  return impl().regFileHelper()->hasRegName(regName);
}

void TransportMethod::regFetch(uint32_t address) const {
  if (impl_) impl_->regFileHelper()->regFetch(address);
}

Orb::Ptr<RegList> TransportMethod::regList() const { return impl().regFileHelper()->regList(); }

Orb::Ptr<TransportMethodError> TransportMethod::errorNotifierIs(const Orb::String& chipName) {
  if (errorNotifier() && errorNotifier()->chipName() == chipName) return errorNotifier();
  const auto created = transportMethodErrorFactory(chipName);
  attributeIs(errorNotifier_, created, &Notifiee::onErrorNotifier);
  return created;
}

void TransportMethod::errorNotifierDel() {
  attributeIs(errorNotifier_, nullptr, &Notifiee::onErrorNotifier);
}

void TransportMethod::handleExceptionGeneric() {
  failures_.increment();
  const Orb::Ptr<TransportMethodError> notifier = errorNotifier();
  ORB_TRACE(exceptionTrace, 0, "TransportMethod exception caught, Notifying agent: {}",
            notifier ? notifier->chipName() : Orb::String());
  if (notifier) notifier->errorIs(true);
}

void TransportMethod::accessFailed(TransportFailure failure) {
  lastFailure_ = std::move(failure);
  handleExceptionGeneric();
}

void tryPerformIO(TransportMethod* tm, const Orb::String& regName,
                  std::function<void()> operation) {
  perform(tm, regName, operation);
}

}  // namespace KoruRegFile
