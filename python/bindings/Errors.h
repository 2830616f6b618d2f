#pragma once

// The exceptions of koruregfile.errors, raised from here. They are classes of Python's own, so that
// they have attributes and documentation like any other. With the GIL held.

#include <pybind11/pybind11.h>

#include <string>

#include "KoruRegFile/RegisterFile.h"

namespace Bindings {

namespace py = pybind11;

// Raises the exception of that name, made of the text and of attributes as keywords.
[[noreturn]] void raise(const char* name, const std::string& text, const py::kwargs& attributes,
                        const py::object& cause = py::none());

// Raises what a map is refused with: OSError when the file cannot be opened, otherwise
// RegisterMapError with the place.
[[noreturn]] void raiseMapError(const std::string& path, const KoruRegFile::RegisterFileError& e);

// Raises OSError, or the class of its that the errno asks for.
[[noreturn]] void raiseOsError(int error, const std::string& path);

// Raises ValueError for an object that has been closed.
[[noreturn]] void raiseClosed(const char* what);

}  // namespace Bindings
