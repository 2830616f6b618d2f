// Register maps: read, looked at and checked without a chip.

#include <fmt/format.h>
#include <pybind11/operators.h>
#include <pybind11/stl.h>

#include <memory>
#include <string>

#include "KoruRegFile/RegisterFile.h"
#include "KoruRegFile/RegisterFileCheck.h"
#include "python/bindings/Arguments.h"
#include "python/bindings/Errors.h"
#include "python/bindings/Rooms.h"

namespace Bindings {

using KoruRegFile::Register;
using KoruRegFile::RegisterFile;
using KoruRegFile::RegisterFileProblem;

namespace {

class RegisterMap {
 public:
  explicit RegisterMap(const py::object& path) : path_(pathOf(path)) {
    try {
      file_ = std::make_unique<RegisterFile>(path_.c_str(), uint8_t{1});
    } catch (const KoruRegFile::RegisterFileError& e) {
      raiseMapError(path_, e);
    }
  }

  py::str path() const { return textOf(path_); }
  size_t size() const { return file_->registers().size(); }
  bool has(const py::object& name) const {
    return py::isinstance<py::str>(name) &&
           file_->hasRegName(std::string_view(name.cast<std::string>()));
  }
  Register named(const std::string& name) const {
    if (file_->hasRegName(std::string_view(name))) {
      return file_->findRegisterByName(std::string_view(name));
    }
    throw py::key_error(name);
  }
  Register at(const py::object& number) const {
    const uint32_t address = numberOf(number, 32, "a register's number");
    try {
      return named(file_->findRegNameByAddr(address));
    } catch (const std::runtime_error&) {
      throw py::key_error(fmt::format("{:#x}", address));
    }
  }
  const std::vector<Register>& registers() const { return file_->registers(); }
  std::string text() const {
    return fmt::format("RegisterMap({})", std::string(py::repr(textOf(path_))));
  }

 private:
  const std::string path_;
  std::unique_ptr<const RegisterFile> file_;
};

// A copy, so that an iteration outlives the map.
py::list namesOf(const RegisterMap& map) {
  py::list names;
  for (const Register& reg : map.registers()) names.append(textOf(reg.name));
  return names;
}

std::string textOfRegister(const Register& reg) {
  return fmt::format("Register(name={}, number={:#x}, type='{}', writeable={}, width={})",
                     std::string(py::repr(textOf(reg.name))), reg.address,
                     Register::regTypeToString(reg.type), reg.writeable ? "True" : "False",
                     reg.width);
}

py::list check(const py::object& path) {
  const std::string file = pathOf(path);
  const py::object type = py::module_::import("koruregfile.problems").attr("MapProblem");
  py::list problems;
  for (const RegisterFileProblem& problem : KoruRegFile::checkRegisterFile(file.c_str(), 1)) {
    const bool isError = problem.severity == RegisterFileProblem::Severity::error;
    problems.append(type(textOf(file), problem.line, problem.column, isError ? "error" : "warning",
                         textOf(problem.text)));
  }
  return problems;
}

void addRegister(py::module_& module) {
  py::class_<Register>(module, "Register", "One register of a map. Never changes.")
      .def_property_readonly(
          "name", [](const Register& reg) { return textOf(reg.name); }, "Its name in the map.")
      .def_readonly("number", &Register::address, "Its number in the map.")
      .def_property_readonly(
          "type", [](const Register& reg) { return Register::regTypeToString(reg.type); },
          "The word in the map: 'cfg', 'sts', 'ctl', 'counter', 'const' or 'reserved'.")
      .def_readonly("writeable", &Register::writeable, "Whether the map lets it be written.")
      .def_readonly("width", &Register::width, "In bits, 32 at most.")
      .def(py::self == py::self)
      .def("__hash__",
           [](const Register& reg) {
             return py::hash(py::make_tuple(textOf(reg.name), reg.address));
           })
      .def("__repr__", &textOfRegister);
}

}  // namespace

void addMaps(py::module_& module) {
  addRegister(module);
  py::class_<RegisterMap>(module, "RegisterMap",
                          R"(A register map: which registers a chip has, read from a CSV file.

A mapping from names to Register, in the order of the file. It never changes, and any thread may
use it.

Raises RegisterMapError, with the place, for a file that is no map, and OSError for one that
cannot be opened.)")
      .def(py::init<const py::object&>(), py::arg("path"))
      .def_static(
          "read", [](const py::object& path) { return std::make_unique<RegisterMap>(path); },
          py::arg("path"), "The map in that file; the same as RegisterMap(path).")
      .def_property_readonly("path", &RegisterMap::path, "The file it was read from.")
      .def("at", &RegisterMap::at, py::arg("number"),
           "The register of that number. Raises KeyError.")
      .def("__getitem__", &RegisterMap::named, py::arg("name"))
      .def("__contains__", &RegisterMap::has, py::arg("name"))
      .def("__len__", &RegisterMap::size)
      .def("__iter__", [](const RegisterMap& map) { return py::iter(namesOf(map)); })
      .def("__repr__", &RegisterMap::text);
  module.def(
      "check_map", &check, py::arg("path"),
      R"(Everything that is wrong with a map, as a list of MapProblem in the order of its lines.

A file that cannot be read is a problem like any other.)");
}

}  // namespace Bindings
