#include "KoruRegFile/TransportMethod.h"

#include <fmt/format.h>

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include "Keel/GenericSigbusHandler.h"
#include "KoruRegFile/AccessObserver.h"
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

// An access on its way, for whoever hears of accesses; without anybody it costs a look at that.
class Watched {
 public:
  using Clock = std::chrono::steady_clock;

  Watched(AccessObserver* observer, bool isWrite, const uint32_t& value)
      : observer_(observer), isWrite_(isWrite), value_(value) {
    if (observer_) begin_ = Clock::now();
  }
  void ended(std::string_view regName, const TransportFailure* failure) const {
    if (!observer_) return;
    observer_->accessEnded({regName, isWrite_, value_, failure, Clock::now() - begin_});
  }

 private:
  AccessObserver* const observer_;
  const bool isWrite_;
  const uint32_t& value_;
  Clock::time_point begin_;
};

// Has an access carried out, and what goes wrong told: first to whoever hears of accesses, since
// the flag may bring about others.
template <class Operation>
void perform(TransportMethod* tm, std::string_view regName, const Watched& watched,
             const Operation& operation) {
  const auto failed = [&](const std::exception& e) {
    TransportFailure failure = TransportFailure::of(e);
    watched.ended(regName, &failure);
    tm->accessFailed(std::move(failure));
  };
  try {
    operation();
  } catch (const GenericSigbusHandler::SigbusException& e) {
    ORB_TRACE(ioTrace, 0, "Got SIGBUS when performing operation on register '{}'", regName);
    return failed(e);
  } catch (const std::runtime_error& e) {
    ORB_TRACE(ioTrace, 0, "TransportMethod error on register '{}': {}", regName, e.what());
    return failed(e);
  }
  watched.ended(regName, nullptr);
}

void noCallback(const AccessOutcome&) {}

// The end of an access with a callback, as an observer is told it.
AccessOutcome outcomeOf(RegCallbackStatus status, uint32_t value) {
  if (status == RegCallbackStatus::done) return {.value = value};
  return {.failure = TransportFailure{.reason = "the access failed"}};
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
AccessObserver::~AccessObserver() = default;

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

void TransportMethod::accessObserverIs(std::shared_ptr<AccessObserver> observer) {
  observer_ = std::move(observer);
}

void TransportMethod::implPtrIs(std::unique_ptr<BaseTransportMethodImpl> impl) {
  ++implVersion_;
  impl_ = std::move(impl);
}

void TransportMethod::implPtrWrap(const Wrap& wrap) {
  impl();
  ++implVersion_;
  impl_ = wrap(std::move(impl_));
}

BaseTransportMethodImpl& TransportMethod::impl() const {
  if (!impl_) throw std::runtime_error("TransportMethod implementation does not exist");
  return *impl_;
}

uint32_t TransportMethod::regRead(const Orb::String& regName) {
  BaseTransportMethodImpl& transport = impl();
  uint32_t value = failedReadValue;
  reads_.increment();
  perform(this, regName, Watched(observer_.get(), false, value),
          [&] { value = transport.regRead(wholeName(regName)); });
  return value;
}

void TransportMethod::regWrite(const Orb::String& regName, uint32_t value) {
  BaseTransportMethodImpl& transport = impl();
  writes_.increment();
  perform(this, regName, Watched(observer_.get(), true, value),
          [&] { transport.regWrite(wholeName(regName), value); });
}

uint32_t TransportMethod::namedRead(std::string_view regName) {
  BaseTransportMethodImpl& transport = impl();
  uint32_t value = failedReadValue;
  reads_.increment();
  perform(this, regName, Watched(observer_.get(), false, value),
          [&] { value = transport.regRead(EndedName(regName).c_str()); });
  return value;
}

void TransportMethod::namedWrite(std::string_view regName, uint32_t value) {
  BaseTransportMethodImpl& transport = impl();
  writes_.increment();
  perform(this, regName, Watched(observer_.get(), true, value),
          [&] { transport.regWrite(EndedName(regName).c_str(), value); });
}

RegisterHandle TransportMethod::reg(const Orb::String& regName) const {
  return {anchor_.anchored(), regName};
}

uint32_t TransportMethod::handleRead(const RegisterHandle& handle) {
  BaseTransportMethodImpl& transport = impl();
  uint32_t value = failedReadValue;
  reads_.increment();
  perform(this, handle.name(), Watched(observer_.get(), false, value), [&] {
    value = transport.foundRegRead(handle.upToDate(*transport.regFileHelper(), implVersion_));
  });
  return value;
}

void TransportMethod::handleWrite(const RegisterHandle& handle, uint32_t value) {
  BaseTransportMethodImpl& transport = impl();
  writes_.increment();
  perform(this, handle.name(), Watched(observer_.get(), true, value), [&] {
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
  if (observer_ && callback) {
    callback = [told = observer_->accessBegins(name.view(), false, 0, noCallback),
                callback = std::move(callback)](const char* reg, RegCallbackStatus status,
                                                uint32_t value) {
      told(outcomeOf(status, value));
      callback(reg, status, value);
    };
  }
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
  // (Without a callback a transport may post it, and raise the flag later.)
  const Watched watched(callback ? nullptr : observer_.get(), true, value);
  if (observer_ && callback) {
    callback = [told = observer_->accessBegins(name.view(), true, value, noCallback), value,
                callback = std::move(callback)](const char* reg, RegCallbackStatus status) {
      told(outcomeOf(status, value));
      callback(reg, status);
    };
  }
  const auto fail = [&](const std::exception& e) {
    const TransportFailure failure = TransportFailure::of(e);
    watched.ended(name.view(), &failure);
    failures_.increment();
    if (callback) callback(name.c_str(), RegCallbackStatus::failed);
  };
  try {
    transport.regWriteWithCallback(wholeName(name), value, callback);
    watched.ended(name.view(), nullptr);
  } catch (const GenericSigbusHandler::SigbusException& e) {
    fail(e);
  } catch (const std::runtime_error& e) {
    fail(e);
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
  if (observer_) callback = observer_->accessBegins(regName.view(), false, 0, std::move(callback));
  beginAccess(std::move(callback), failures_, [&, name = regName](AccessCallback tell) {
    transport.regReadWithOutcome(wholeName(name), std::move(tell));
  });
}

void TransportMethod::regWriteOutcome(const Orb::String& regName, uint32_t value,
                                      AccessCallback callback) {
  BaseTransportMethodImpl& transport = impl();
  writes_.increment();
  if (observer_)
    callback = observer_->accessBegins(regName.view(), true, value, std::move(callback));
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
  perform(tm, regName, Watched(nullptr, false, failedReadValue), operation);
}

}  // namespace KoruRegFile
