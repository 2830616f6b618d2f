// Devices: a chip's registers by name, over any transport, and handles to single ones.

#include <fmt/format.h>
#include <pybind11/pybind11.h>

#include <memory>
#include <string>
#include <utility>

#include "KoruRegFile/RegisterBits.h"
#include "board/devices/TransportKind.h"
#include "python/bindings/Arguments.h"
#include "python/bindings/Errors.h"
#include "python/bindings/Rooms.h"
#include "python/bindings/Session.h"

namespace Bindings {

using KoruRegFile::BitRange;
using KoruRegFile::Register;
using KoruRegFile::RegisterBits;

namespace {

// The kind of transport that a keyword names, and its place.
Board::Transport transportOf(const std::string& keyword, const py::object& place) {
  const Board::KindRow* kind = Board::transportKind(keyword);
  if (!kind) {
    throw py::type_error(fmt::format("there is no transport '{}'; there are {} and transport",
                                     keyword, Board::transportKinds()));
  }
  const bool isTrue = place.ptr() == Py_True;
  if (kind->needsPlace && isTrue) {
    throw py::type_error(fmt::format("{} has to say where", keyword));
  }
  if (!isTrue && !kind->placeName) {
    throw py::type_error(fmt::format("{} takes no place: write {}=True", keyword, keyword));
  }
  try {
    return Board::Transport::at(*kind, isTrue ? "" : pathOf(place));
  } catch (const std::invalid_argument& e) {
    throw py::value_error(fmt::format("{}: {}", keyword, e.what()));
  }
}

// The file of a map that was read already, or of one that is yet to be.
std::string mapPathOf(const py::object& map) {
  const py::object type = py::module_::import("koruregfile._core").attr("RegisterMap");
  return pathOf(py::isinstance(map, type) ? map.attr("path") : map);
}

class Device {
 public:
  Device(const py::object& map, const py::object& timeout, const py::kwargs& how)
      : map_(mapPathOf(map)), timeout_(timeout) {
    deadlineAfter(timeout);  // refuses what is none
    if (how.size() != 1) {
      throw py::type_error(
          "say how the chip is reached, in one way: mock=True, memory=True, "
          "i2c=\"/dev/i2c-1:0x48,byte\", relay=, pci=, spi=, replay= or transport=");
    }
    const auto& [keyword, place] = *how.begin();
    const Turn turn;
    try {
      if (keyword.cast<std::string>() == "transport") {
        session_ = std::make_shared<Session>(map_, py::reinterpret_borrow<py::object>(place));
      } else {
        session_ = std::make_shared<Session>(
            map_,
            transportOf(keyword.cast<std::string>(), py::reinterpret_borrow<py::object>(place)));
      }
    } catch (const KoruRegFile::RegisterFileError& e) {
      raiseMapError(map_, e);
    }
    text_ = session_->text();
  }
  ~Device() { close(); }
  Device(const Device&) = delete;
  Device& operator=(const Device&) = delete;

  void close() {
    if (!session_) return;
    const Turn turn;
    // What goes with it may come back here.
    const std::shared_ptr<Session> closed = std::exchange(session_, nullptr);
  }
  bool isClosed() const { return !session_; }
  // Raises ValueError when it is closed.
  const std::shared_ptr<Session>& session() const {
    if (!session_) raiseClosed("device");
    return session_;
  }
  // What nobody keeps but this device, or null.
  PyObject* ownObject() const {
    return session_ && session_.use_count() == 1 ? session_->pythonObject() : nullptr;
  }
  Deadline deadline() const { return deadlineAfter(timeout_); }
  const std::string& text() const { return text_; }
  const std::string& map() const { return map_; }
  const py::object& timeout() const { return timeout_; }
  void timeoutIs(const py::object& timeout) {
    deadlineAfter(timeout);
    timeout_ = timeout;
  }

 private:
  const std::string map_;
  py::object timeout_;
  std::string text_;
  std::shared_ptr<Session> session_;
};

using DevicePtr = std::shared_ptr<Device>;

// A register, or a range of its bits, looked up once.
class RegisterHandle {
 public:
  // "control" or "control[7:4]". Raises KeyError, and ValueError for bits that it does not have.
  RegisterHandle(DevicePtr device, const std::string& text)
      : device_(std::move(device)), name_(text) {
    const auto& map = device_->session()->map();
    RegisterBits bits;
    bits.name = text;
    if (!map.hasRegName(std::string_view(text))) bits = RegisterBits::parse(text);
    if (!map.hasRegName(std::string_view(bits.name))) {
      throw py::key_error(fmt::format("{} has no register '{}'", device_->map(), bits.name));
    }
    place_ = device_->session()->placeOf(map.findRegisterByName(std::string_view(bits.name)));
    hasRange_ = bits.hasRange;
    range_ = bits.range;
    if (hasRange_ && range_.high >= place_.reg.width) {
      throw py::value_error(
          fmt::format("{}: the register has {} bits only", text, place_.reg.width));
    }
  }

  uint32_t read() const {
    const Turn turn;
    const auto session = device_->session();
    const uint32_t value = session->read(place_, device_->deadline());
    return hasRange_ ? range_.extract(value) : value;
  }
  void write(const py::object& value, bool force) const {
    const uint32_t number = numberOf(value, width(), name_);
    if (!place_.reg.writeable && !force) {
      throw py::value_error(fmt::format(
          "{} is read-only in the map; force=True writes it all the same", place_.reg.name));
    }
    const Turn turn;
    const auto session = device_->session();
    const Deadline deadline = device_->deadline();
    const uint32_t whole =
        hasRange_ ? range_.insert(session->read(place_, deadline), number) : number;
    session->write(place_, whole, deadline);
  }

  const DevicePtr& device() const { return device_; }
  const std::string& name() const { return name_; }
  const Register& reg() const { return place_.reg; }
  uint32_t width() const { return hasRange_ ? range_.width() : place_.reg.width; }
  std::string text() const { return fmt::format("<register {} of {}>", name_, device_->text()); }

 private:
  const DevicePtr device_;
  const std::string name_;
  Place place_;
  BitRange range_;
  bool hasRange_ = false;
};

// A transport written in Python may have its own device: the garbage collector has to see through
// both. One that handles share is somebody's, and one that is still being made has nothing yet.
Device* onlyDeviceOf(PyObject* self) {
  auto held = reinterpret_cast<py::detail::instance*>(self)->get_value_and_holder();
  if (!held.holder_constructed() || held.holder<DevicePtr>().use_count() != 1) return nullptr;
  return held.value_ptr<Device>();
}

int visitDevice(PyObject* self, visitproc visit, void* arg) {
  Py_VISIT(Py_TYPE(self));
  if (const Device* device = onlyDeviceOf(self)) Py_VISIT(device->ownObject());
  return 0;
}

int clearDevice(PyObject* self) {
  if (Device* device = onlyDeviceOf(self)) device->close();
  return 0;
}

void letDevicesBeCollected(PyHeapTypeObject* type) {
  type->ht_type.tp_flags |= Py_TPFLAGS_HAVE_GC;
  type->ht_type.tp_traverse = visitDevice;
  type->ht_type.tp_clear = clearDevice;
}

std::string textOfDevice(const Device& device) {
  return fmt::format("<{}device {}, map {}>", device.isClosed() ? "closed " : "", device.text(),
                     device.map());
}

py::list namesOf(const Device& device) {
  py::list names;
  for (const Register& reg : device.session()->map().registers()) names.append(textOf(reg.name));
  return names;
}

void addHandle(py::module_& module) {
  py::class_<RegisterHandle>(module, "RegisterHandle",
                             R"(A register of a device, or a range of its bits, looked up once.

Keeps its device alive; when that is closed, raises ValueError. Used on any thread.)")
      .def("read", &RegisterHandle::read,
           "Read it from the chip. Raises TransportError with the reason.")
      .def(
          "write", &RegisterHandle::write, py::arg("value"), py::kw_only(),
          py::arg("force") = false,
          R"(Write it to the chip; with a range of bits, the register is read first (and what others write
between the two is lost).

Raises TransportError with the reason, and ValueError for a value that does not fit, or for a
register that is read-only in the map, unless force is true.)")
      .def_property(
          "value", &RegisterHandle::read,
          [](const RegisterHandle& handle, const py::object& value) { handle.write(value, false); },
          "What the chip holds: read() and write().")
      .def_property_readonly("device", &RegisterHandle::device, "The device it is of.")
      .def_property_readonly(
          "name", [](const RegisterHandle& handle) { return textOf(handle.name()); },
          "As it was asked for: 'control' or 'control[7:4]'.")
      .def_property_readonly(
          "address", [](const RegisterHandle& handle) { return handle.reg().address; },
          "The register's address, as the transport counts.")
      .def_property_readonly("width", &RegisterHandle::width, "In bits, 32 at most.")
      .def_property_readonly(
          "writeable", [](const RegisterHandle& handle) { return handle.reg().writeable; },
          "Whether the map lets it be written.")
      .def("__repr__", &RegisterHandle::text);
}

void addAccesses(py::class_<Device, DevicePtr>& device) {
  device
      .def(
          "register",
          [](const DevicePtr& self, const std::string& name) { return RegisterHandle(self, name); },
          py::arg("name"),
          R"(A handle to a register ('control') or to a range of its bits ('control[7:4]').

Raises KeyError for a register that the map lacks, ValueError for bits that it does not have.)")
      .def(
          "read",
          [](const DevicePtr& self, const std::string& name) {
            return RegisterHandle(self, name).read();
          },
          py::arg("name"), "Read a register, or a range of its bits. As RegisterHandle.read().")
      .def(
          "write",
          [](const DevicePtr& self, const std::string& name, const py::object& value, bool force) {
            RegisterHandle(self, name).write(value, force);
          },
          py::arg("name"), py::arg("value"), py::kw_only(), py::arg("force") = false,
          "Write a register, or a range of its bits. As RegisterHandle.write().")
      .def("__getitem__", [](const DevicePtr& self,
                             const std::string& name) { return RegisterHandle(self, name).read(); })
      .def("__setitem__",
           [](const DevicePtr& self, const std::string& name, const py::object& value) {
             RegisterHandle(self, name).write(value, false);
           })
      .def("__contains__",
           [](const Device& self, const std::string& name) {
             return self.session()->map().hasRegName(std::string_view(name));
           })
      .def("__len__", [](const Device& self) { return self.session()->map().registers().size(); })
      .def("__iter__", [](const Device& self) { return py::iter(namesOf(self)); });
}

}  // namespace

void addDevices(py::module_& module) {
  py::class_<Device, DevicePtr> device(module, "Device",
                                       py::custom_type_setup(letDevicesBeCollected),
                                       R"(A chip whose registers are read and written by name.

    Device("power.csv", i2c="/dev/i2c-1:0x40,word")

The transport is one keyword, with the place as korureg and system files take it: i2c, relay, pci,
spi, memory (True, or a file of the state directory), mock=True; or transport=, an object with
read(address) and write(address, value), as a subclass of Transport has them.

device["control"] reads a register, device["control"] = 3 writes it, and iterating gives the names.
Each access ends within timeout seconds, None for never giving up; a busy bus and a queue are waited
for without the interpreter's lock, and Ctrl-C ends the wait. Used on any thread; accesses take turns.

Raises TransportError when it cannot be opened, RegisterMapError or OSError for the map, ValueError
for a place that cannot be one, TypeError for keywords that are none.)");
  device
      .def(py::init<const py::object&, const py::object&, const py::kwargs&>(), py::arg("map"),
           py::kw_only(), py::arg("timeout") = 10.0)
      .def("close", &Device::close, "Close the device; what is used afterwards raises ValueError.")
      .def_property_readonly("closed", &Device::isClosed, "Whether it has been closed.")
      .def_property("timeout", &Device::timeout, &Device::timeoutIs,
                    "The seconds that an access may take, or None.")
      .def("__enter__", [](const DevicePtr& self) { return self->session(), self; })
      .def("__exit__", [](Device& self, const py::args&) { self.close(); })
      .def("__repr__", &textOfDevice);
  addHandle(module);
  addAccesses(device);
}

}  // namespace Bindings
