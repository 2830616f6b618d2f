#include "python/bindings/PythonTransport.h"

#include <fmt/format.h>

#include <utility>

#include "python/bindings/Arguments.h"
#include "python/bindings/Framework.h"

namespace Bindings {

using KoruRegFile::TransportError;

namespace {

// "ValueError: no such address"
std::string reasonOf(const py::handle& exception) {
  const std::string name = py::str(py::type::handle_of(exception).attr("__name__"));
  try {
    const std::string text = py::str(exception);
    return text.empty() ? name : fmt::format("{}: {}", name, text);
  } catch (const py::error_already_set&) {
    return name;
  }
}

// That of an OSError, otherwise 0.
int errnoOf(const py::handle& exception) {
  if (PyErr_GivenExceptionMatches(exception.ptr(), PyExc_OSError) == 0) return 0;
  const py::object number = exception.attr("errno");
  return py::isinstance<py::int_>(number) ? static_cast<int>(PyLong_AsLong(number.ptr())) : 0;
}

}  // namespace

PythonTransport::PythonTransport(const std::string& csvPath, py::object object)
    : BaseTransportMethodImpl(csvPath.c_str(), 1, nullptr), object_(std::move(object)) {
  for (const char* method : {"read", "write"}) {
    if (py::hasattr(object_, method) && PyCallable_Check(object_.attr(method).ptr()) != 0) continue;
    throw py::type_error(
        fmt::format("a transport has the methods read(address) and write(address, "
                    "value); this one has no {}()",
                    method));
  }
}

PythonTransport::~PythonTransport() = default;

template <class Access>
auto PythonTransport::carried(Access access) {
  cause_ = py::none();
  // The object stays until it has returned, whatever it closes or drops.
  const py::object keep = object_;
  try {
    const TurnPause letOthers;
    return access(keep);
  } catch (py::error_already_set& e) {
    if (!e.matches(PyExc_Exception)) throw;
    cause_ = e.value();
    throw TransportError(reasonOf(cause_), errnoOf(cause_));
  }
}

uint32_t PythonTransport::regRead(const char* regName) {
  return foundRegRead(regFileHelper()->findRegisterByName(regName));
}

void PythonTransport::regWrite(const char* regName, uint32_t value) {
  foundRegWrite(regFileHelper()->findRegisterByName(regName), value);
}

uint32_t PythonTransport::foundRegRead(const HardwareRegister& reg) {
  const py::object value =
      carried([&](const py::object& object) { return object.attr("read")(reg.address); });
  try {
    return numberOf(value, reg.width, "the register");
  } catch (py::error_already_set&) {
    throw std::runtime_error(fmt::format("read() returned {}, and no number",
                                         std::string(py::repr(value)).substr(0, 100)));
  } catch (const py::value_error& e) {
    throw std::runtime_error(fmt::format("read() returned a wrong number: {}", e.what()));
  }
}

void PythonTransport::foundRegWrite(const HardwareRegister& reg, uint32_t value) {
  carried([&](const py::object& object) {
    object.attr("write")(reg.address, value);
    return true;
  });
}

}  // namespace Bindings
