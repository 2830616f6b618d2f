// The compiled part of the Python package: maps, transports and tables. What Python can do as well
// by itself, the agent's client above all, is written in Python.

#include "Orb/Trace.h"
#include "Shoal/StatePath.h"
#include "python/bindings/Framework.h"
#include "python/bindings/Rooms.h"

PYBIND11_MODULE(_core, module) {
  // Traces are for whoever debugs the library: what ORB_TRACE sets, and no more. Failures are
  // exceptions here.
  Orb::traceLevelIs("*", -1);
  module.doc() = "The compiled part of koruregfile; import that.";
  module.attr("__version__") = KORU_VERSION;
  module.def("state_directory", &Shoal::stateDirectory,
             "Where tables and the agent's socket lie: $KORU_STATE_DIR, else /run/koru for root, "
             "else $XDG_RUNTIME_DIR/koru.\n\nRaises RuntimeError when there is none to be had.");
  Bindings::endWaitsWithInterpreter();
  Bindings::addMaps(module);
  Bindings::addDevices(module);
  Bindings::addTables(module);
}
