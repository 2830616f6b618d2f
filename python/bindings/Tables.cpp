// Tables of shadow fields, read while somebody else writes them: what koruregfile.tables is made
// over.

#include <fmt/format.h>
#include <pybind11/pybind11.h>

#include <memory>
#include <string>
#include <utility>

#include "KoruRegFile/ShoalTypes.h"
#include "Orb/Enum.h"
#include "python/bindings/Arguments.h"
#include "python/bindings/Errors.h"
#include "python/bindings/LiveTable.h"
#include "python/bindings/Rooms.h"

namespace Bindings {

namespace {

// As a table has them: the size in the lowest byte, the start in the one above.
uint64_t keyOf(const py::object& address, const py::object& start, const py::object& size) {
  return uint64_t{numberOf(address, 32, "an address")} << 16 |
         uint64_t{numberOf(start, 8, "a first bit")} << 8 | numberOf(size, 8, "a size");
}

class Table {
 public:
  Table(const std::string& path, const py::object& stateDirectory) {
    const std::string directory = stateDirectory.is_none() ? "" : pathOf(stateDirectory);
    const Turn turn;
    live_ = std::make_shared<LiveTable>(path, directory);
  }
  ~Table() { close(); }
  Table(const Table&) = delete;
  Table& operator=(const Table&) = delete;

  void close() {
    if (!live_) return;
    const Turn turn;
    // A wait that is under way holds it, too.
    if (const auto closed = std::exchange(live_, nullptr)) closed->close();
  }
  bool isClosed() const { return !live_; }

  // Calls `look` with the table. Raises ValueError when it is closed.
  template <class Look>
  auto with(Look look) const {
    const Turn turn;
    const std::shared_ptr<LiveTable> live = live_;
    if (!live) raiseClosed("table");
    return look(*live);
  }

  py::tuple placeOf(uint64_t key) const {
    const auto field = KoruRegFile::unpackShadowFieldKey(key);
    if (!field) {
      with([&](const LiveTable& live) {
        live.raiseDamaged(fmt::format("{:#x} is no key of a shadow field", key));
      });
    }
    return py::make_tuple(field->address(), field->start(), field->size());
  }

 private:
  std::shared_ptr<LiveTable> live_;
};

py::object numberOrNone(const std::optional<uint32_t>& value) {
  if (!value) return py::none();
  return py::int_(*value);
}

py::list entriesOf(const Table& table) {
  py::list all;
  for (const auto& entry : table.with([](const LiveTable& live) { return live.entries(); })) {
    all.append(py::make_tuple(table.placeOf(entry.key), entry.value));
  }
  return all;
}

py::list wait(const Table& table, const py::object& timeout) {
  const Deadline deadline = deadlineAfter(timeout);
  const auto changes = table.with([&](LiveTable& live) {
    auto found = live.wait(deadline);
    if (live.isClosed()) raiseClosed("table");
    return found;
  });
  py::list all;
  for (const TableChange& change : changes) {
    all.append(py::make_tuple(table.placeOf(change.key), numberOrNone(change.before),
                              numberOrNone(change.now)));
  }
  return all;
}

py::object get(const Table& table, const py::object& address, const py::object& start,
               const py::object& size) {
  const uint64_t key = keyOf(address, start, size);
  return numberOrNone(table.with([&](const LiveTable& live) { return live.get(key); }));
}

}  // namespace

void addTables(py::module_& module) {
  py::class_<Table>(module, "LiveTable", "What koruregfile.Table is made over.")
      .def(py::init<const std::string&, const py::object&>(), py::arg("path"),
           py::arg("state_directory"))
      .def("close", &Table::close)
      .def("get", &get)
      .def("entries", &entriesOf)
      .def("wait", &wait)
      .def_property_readonly("closed", &Table::isClosed)
      .def_property_readonly(
          "type",
          [](const Table& t) { return t.with([](const LiveTable& l) { return l.type(); }); })
      .def_property_readonly("status",
                             [](const Table& table) {
                               return table.with([](const LiveTable& live) {
                                 return py::str(std::string(Orb::enumName(live.status())));
                               });
                             })
      .def_property_readonly("generation", [](const Table& table) {
        return table.with([](const LiveTable& live) { return live.generation(); });
      });
}

}  // namespace Bindings
