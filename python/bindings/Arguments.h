#pragma once

// What Python hands over, taken apart. With the GIL held.

#include <pybind11/pybind11.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace Bindings {

namespace py = pybind11;

// A file's path: str, bytes or os.PathLike. Throws py::error_already_set for anything else.
std::string pathOf(const py::object& path);

// A whole number (or what stands for one, by __index__) of that many bits at most. Throws
// py::value_error that names `what` when it is another one, py::error_already_set (a TypeError)
// when it is none.
uint32_t numberOf(const py::handle& number, uint32_t bits, std::string_view what);

// Bytes of the outside world as a str: what is no UTF-8 is kept as surrogates.
py::str textOf(std::string_view bytes);

}  // namespace Bindings
