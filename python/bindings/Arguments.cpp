#include "python/bindings/Arguments.h"

#include <fmt/format.h>

namespace Bindings {

std::string pathOf(const py::object& path) {
  PyObject* bytes = nullptr;
  if (PyUnicode_FSConverter(path.ptr(), &bytes) == 0) throw py::error_already_set();
  return py::reinterpret_steal<py::bytes>(bytes);
}

uint32_t numberOf(const py::handle& number, uint32_t bits, std::string_view what) {
  const auto index = py::reinterpret_steal<py::object>(PyNumber_Index(number.ptr()));
  if (!index) throw py::error_already_set();
  int isBeyond = 0;
  const long long value = PyLong_AsLongLongAndOverflow(index.ptr(), &isBeyond);
  if (isBeyond == 0 && value >= 0 && value >> bits == 0) return static_cast<uint32_t>(value);
  const std::string hex = py::str(PyNumber_ToBase(index.ptr(), 16));
  throw py::value_error(fmt::format("{} does not fit the {} bits of {}", hex, bits, what));
}

py::str textOf(std::string_view bytes) {
  PyObject* text =
      PyUnicode_DecodeUTF8(bytes.data(), static_cast<Py_ssize_t>(bytes.size()), "surrogateescape");
  if (!text) throw py::error_already_set();
  return py::reinterpret_steal<py::str>(text);
}

}  // namespace Bindings
