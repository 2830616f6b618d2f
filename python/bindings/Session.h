#pragma once

// A chip whose transport is open: what a Device of Python does while it is not closed. Shared by
// the Device and by each call that is under way, so that closing pulls nothing from under one. With
// the GIL and the turn held.

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "KoruRegFile/RegisterFile.h"
#include "KoruRegFile/TransportMethod.h"
#include "board/devices/Transport.h"
#include "python/bindings/Framework.h"

namespace Bindings {

class PythonTransport;

// A register of the chip, and why it cannot be accessed, as far as that is known beforehand.
struct Place {
  KoruRegFile::Register reg;
  Hardware::KoruRegFile::HardwareRegister found;  // as the transport has it
  std::optional<std::string> whyNotRead;
  std::optional<std::string> whyNotWritten;
};

class Session {
 public:
  // Each throws RegisterFileError for a map that cannot be read, and raises TransportError when the
  // device cannot be opened.
  Session(const std::string& map, const Board::Transport& transport);
  Session(const std::string& map, const py::object& transport);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  const KoruRegFile::RegisterFile& map() const;
  // The transport written in Python, or null: for the garbage collector.
  PyObject* pythonObject() const;
  // "i2c /dev/i2c-1:0x40", or what the transport written in Python says of itself.
  std::string text() const;
  Place placeOf(const KoruRegFile::Register& reg) const;

  // See an access through to its end. Raise TransportError.
  uint32_t read(const Place& place, Deadline deadline);
  void write(const Place& place, uint32_t value, Deadline deadline);

 private:
  struct Access;

  void open(std::unique_ptr<KoruRegFile::BaseTransportMethodImpl> impl);
  uint32_t carryOut(const Access& access, Deadline deadline);
  uint32_t once(const Access& access, Deadline deadline);
  uint32_t later(const Access& access, Deadline deadline);
  // With what to do about it.
  [[noreturn]] void fail(const Access& access, const KoruRegFile::TransportFailure& failure);
  [[noreturn]] void fail(const Access& access, const KoruRegFile::TransportFailure& failure,
                         const std::string& explained);

  const std::optional<Board::Transport> transport_;  // none for one of Python
  const bool endsLater_;
  PythonTransport* python_ = nullptr;
  Orb::Ptr<KoruRegFile::TransportMethod> method_;
};

}  // namespace Bindings
