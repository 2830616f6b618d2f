#include "python/bindings/Errors.h"

#include <fcntl.h>
#include <fmt/format.h>

#include <cerrno>

#include "Orb/Descriptor.h"

namespace Bindings {

void raise(const char* name, const std::string& text, const py::kwargs& attributes,
           const py::object& cause) {
  const py::object type = py::module_::import("koruregfile.errors").attr(name);
  const py::object exception = type(text, **attributes);
  if (!cause.is_none()) exception.attr("__cause__") = cause;
  PyErr_SetObject(type.ptr(), exception.ptr());
  throw py::error_already_set();
}

void raiseMapError(const std::string& path, const KoruRegFile::RegisterFileError& e) {
  if (e.line() == 0) {
    const Orb::Descriptor file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!file) raiseOsError(errno, path);
  }
  std::string place = path;
  if (e.line() != 0) place += fmt::format(":{}", e.line());
  if (e.column() != 0) place += fmt::format(":{}", e.column());
  raise("RegisterMapError", fmt::format("{}: {}", place, e.what()),
        py::dict(py::arg("path") = path, py::arg("line") = e.line(), py::arg("column") = e.column(),
                 py::arg("reason") = e.what()));
}

void raiseOsError(int error, const std::string& path) {
  errno = error;
  PyErr_SetFromErrnoWithFilename(PyExc_OSError, path.c_str());
  throw py::error_already_set();
}

void raiseClosed(const char* what) { throw py::value_error(fmt::format("the {} is closed", what)); }

}  // namespace Bindings
