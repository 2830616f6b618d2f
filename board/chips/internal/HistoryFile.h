#pragma once

// Writes a chip's history. Whatever lies in its place or goes wrong is told once, in one line, and
// holds up nobody: what is no history of this user is set aside, and without a file there are no
// records. A record is written by one pwrite(2), together with others when they come together; a
// kill leaves each of them whole or not sound. Used on the
// framework's thread.

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Orb/Descriptor.h"
#include "Orb/Seldom.h"
#include "board/chips/internal/HistoryLayout.h"

namespace Board {

// A record, as its parts lie about.
struct HistoryEntry {
  const Actor* actor = nullptr;
  WrittenFor why = WrittenFor::program;
  bool hasField = false;
  std::string_view reg = {};
  std::string_view field = {};
  uint32_t was = 0;
  uint32_t value = 0;
  bool hasRegister = false;
  std::string_view hardware = {};
  uint32_t sent = 0;
  WriteEnd end = WriteEnd::none;
  uint64_t took = 0;
  std::string_view reason = {};
  int error = 0;
};

class HistoryFile {
 public:
  // Touches nothing before the first record; none are kept of capacity 0.
  HistoryFile(std::string path, uint64_t capacity) : path_(std::move(path)), capacity_(capacity) {}

  void append(const HistoryEntry& entry) noexcept;
  // The same, but for the write: flush() makes it, for all that wait.
  void hold(const HistoryEntry& entry) noexcept;
  void flush() noexcept;
  // Another writer may begin; what comes later is left out.
  void close();

 private:
  void open();
  bool openPresent();
  void begin(std::vector<HistorySlot> slots);
  void resize(const HistoryHeader& header);
  void setAside(const std::string& why);

  void writeWaiting();
  template <class Step>
  void attempt(const Step& step) noexcept;

  const std::string path_;
  const uint64_t capacity_;
  Orb::Descriptor file_;
  uint64_t id_ = 0;
  uint64_t sequence_ = 0;  // of the last record
  std::vector<HistorySlot> waiting_;
  Orb::Seldom again_;  // for a file, when none is to be had
  bool isClosed_ = false;
  bool isTold_ = false;  // that records are lost
};

}  // namespace Board
