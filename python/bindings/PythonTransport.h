#pragma once

// A transport that the user has written in Python: an object with read(address) and write(address,
// value). It gets the numbers of the map, and values as wide as their registers. What it raises is
// the access's failure; what is no Exception, such as KeyboardInterrupt, goes through. With the GIL
// held, on whichever thread accesses a register.

#include <pybind11/pybind11.h>

#include <string>

#include "KoruRegFile/BaseTransportMethodImpl.h"

namespace Bindings {

namespace py = pybind11;

class PythonTransport : public KoruRegFile::BaseTransportMethodImpl {
 public:
  using HardwareRegister = Hardware::KoruRegFile::HardwareRegister;

  // Throws what the base throws, and py::type_error for an object without the two methods.
  PythonTransport(const std::string& csvPath, py::object object);
  ~PythonTransport() override;

  uint32_t regRead(const char* regName) override;
  void regWrite(const char* regName, uint32_t value) override;
  uint32_t foundRegRead(const HardwareRegister& reg) override;
  void foundRegWrite(const HardwareRegister& reg, uint32_t value) override;

  const py::object& object() const { return object_; }

  // What the object raised in the access that failed last; None when that failed otherwise.
  py::object takeCause() { return std::exchange(cause_, py::none()); }

 private:
  template <class Access>
  auto carried(Access access);

  py::object object_;
  py::object cause_ = py::none();
};

}  // namespace Bindings
