#pragma once

// The rooms of the extension module, one file each.

#include <pybind11/pybind11.h>

namespace Bindings {

void addMaps(pybind11::module_& module);
void addDevices(pybind11::module_& module);
void addTables(pybind11::module_& module);

}  // namespace Bindings
