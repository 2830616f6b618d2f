#include "python/bindings/Session.h"

#include <fmt/format.h>

#include <cerrno>
#include <stdexcept>
#include <utility>

#include "Keel/GenericSigbusHandler.h"
#include "KoruRegFile/MockTransportMethodImpl.h"
#include "board/devices/TransportKind.h"
#include "python/bindings/Arguments.h"
#include "python/bindings/Errors.h"
#include "python/bindings/PythonTransport.h"

namespace Bindings {

using KoruRegFile::AccessOutcome;
using KoruRegFile::TransportFailure;

namespace {

constexpr std::chrono::milliseconds busyPause{1};

[[noreturn]] void raiseTransportError(const std::string& text, const TransportFailure& failure,
                                      const py::object& reg, const py::object& cause) {
  const py::object error = failure.error == 0 ? py::none() : py::object(py::int_(failure.error));
  raise("TransportError", text,
        py::dict(py::arg("reason") = textOf(failure.reason), py::arg("errno") = error,
                 py::arg("register") = reg),
        cause);
}

// What goes wrong with a device is told in one way, whichever exception tells it.
template <class Attempt>
auto failuresOf(Attempt attempt, const std::function<void(const TransportFailure&)>& fail) {
  try {
    return attempt();
  } catch (const KoruRegFile::RegisterFileError&) {
    throw;
  } catch (const Keel::GenericSigbusHandler::SigbusException& e) {
    fail(TransportFailure::of(e));
  } catch (const std::runtime_error& e) {
    fail(TransportFailure::of(e));
  }
  throw std::logic_error("a failure has to be raised");
}

}  // namespace

struct Session::Access {
  const Place& place;
  bool isWrite;
  uint32_t value;
};

Session::Session(const std::string& map, const Board::Transport& transport)
    : transport_(transport),
      endsLater_(transport.kind->writes == Board::KindRow::Writes::endLater) {
  const auto fail = [&](const TransportFailure& failure) {
    raiseTransportError(
        fmt::format("cannot open {}: {}", text(), Board::explained(transport, failure)), failure,
        py::none(), py::none());
  };
  // A bus that is busy is waited for here, where that can be interrupted.
  const Board::Opening opening = {
      .name = transport.name(), .registerMap = map, .busy = KoruRegFile::I2cBusy::refuse};
  try {
    open(failuresOf([&] { return Board::openDevice(transport, opening); }, fail));
  } catch (const std::logic_error& e) {
    if (transport.kind != &Board::mockKind) throw;
    fail({.reason = fmt::format("{} holds something else than register values ({})",
                                KoruRegFile::MockTransportMethodImpl::valueFilePath, e.what())});
  }
}

Session::Session(const std::string& map, const py::object& transport) : endsLater_(false) {
  auto impl = std::make_unique<PythonTransport>(map, transport);
  python_ = impl.get();
  open(std::move(impl));
}

Session::~Session() = default;

void Session::open(std::unique_ptr<KoruRegFile::BaseTransportMethodImpl> impl) {
  method_ = KoruRegFile::transportMethodFactory("python");
  method_->implPtrIs(std::move(impl));
}

const KoruRegFile::RegisterFile& Session::map() const {
  return *method_->regFileHelper().csvRegFile();
}

PyObject* Session::pythonObject() const { return python_ ? python_->object().ptr() : nullptr; }

std::string Session::text() const {
  if (transport_) return transport_->text();
  return "python";
}

Place Session::placeOf(const KoruRegFile::Register& reg) const {
  Place place{reg, {}, std::nullopt, std::nullopt};
  if (reg.name.view().find('\0') != std::string_view::npos) {
    place.whyNotRead = place.whyNotWritten = "its name has a NUL byte";
    return place;
  }
  place.found = method_->regFileHelper().findRegisterByName(reg.name);
  if (transport_) {
    place.whyNotRead = transport_->whyNotRead(reg);
    place.whyNotWritten = transport_->whyNot(reg);
  }
  return place;
}

uint32_t Session::read(const Place& place, Deadline deadline) {
  const Access access{place, false, 0};
  if (place.whyNotRead) [[unlikely]]
    fail(access, {.reason = *place.whyNotRead});
  return carryOut(access, deadline);
}

void Session::write(const Place& place, uint32_t value, Deadline deadline) {
  const Access access{place, true, value};
  if (place.whyNotWritten) [[unlikely]]
    fail(access, {.reason = *place.whyNotWritten});
  carryOut(access, deadline);
}

uint32_t Session::carryOut(const Access& access, Deadline deadline) {
  return failuresOf([&] { return endsLater_ ? later(access, deadline) : once(access, deadline); },
                    [&](const TransportFailure& failure) { fail(access, failure); });
}

// At once, or as soon as the bus is free.
uint32_t Session::once(const Access& access, Deadline deadline) {
  KoruRegFile::BaseTransportMethodImpl& impl = *method_->implPtr();
  while (true) {
    try {
      if (!access.isWrite) return impl.foundRegRead(access.place.found);
      impl.foundRegWrite(access.place.found, access.value);
      return access.value;
    } catch (const KoruRegFile::TransportError& e) {
      const bool isOver = deadline && Clock::now() >= *deadline;
      if (e.error() != EAGAIN || python_ || isOver) throw;
    }
    pauseFor(busyPause, deadline);
  }
}

// From a queue. (The callback shares the place of the outcome: when nobody else holds that any
// more, it has been called, or dropped.)
uint32_t Session::later(const Access& access, Deadline deadline) {
  const auto outcome = std::make_shared<std::optional<AccessOutcome>>();
  auto told = [outcome](const AccessOutcome& ended) { *outcome = ended; };
  if (access.isWrite) {
    method_->regWriteOutcome(access.place.reg.name, access.value, std::move(told));
  } else {
    method_->regReadOutcome(access.place.reg.name, std::move(told));
  }
  const auto isDone = [&] { return outcome->has_value() || outcome.use_count() == 1; };
  if (!serveUntil(isDone, deadline)) {
    const char* const reason = "it has not ended in time; it may still be carried out";
    fail(access, {.reason = reason, .error = ETIMEDOUT}, reason);
  }
  if (!*outcome) fail(access, {.reason = "the transport went before the access ended"});
  if ((*outcome)->failure) fail(access, *(*outcome)->failure);
  return (*outcome)->value;
}

void Session::fail(const Access& access, const TransportFailure& failure) {
  fail(access, failure, transport_ ? Board::explained(*transport_, failure) : failure.reason);
}

void Session::fail(const Access& access, const TransportFailure& failure,
                   const std::string& explained) {
  const std::string attempt =
      access.isWrite ? fmt::format("cannot write {:#x} to {}", access.value, access.place.reg.name)
                     : fmt::format("cannot read {}", access.place.reg.name);
  raiseTransportError(
      fmt::format("{} over {}: {}", attempt, transport_ ? transport_->name() : "python", explained),
      failure, textOf(access.place.reg.name), python_ ? python_->takeCause() : py::none());
}

}  // namespace Bindings
