#pragma once

// Makes records of what is written to a chip, and counts accesses. It hears of each access of the
// chip's transport, and from the keeper of each field that has changed: a field that is written by
// itself becomes one record with its register, since the change is told right after the access that
// it brings about. Used on the framework's thread.

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "KoruRegFile/AccessObserver.h"
#include "board/chips/AccessCounts.h"
#include "board/chips/internal/HistoryFile.h"
#include "board/description/Description.h"

namespace Board {

class ChipHistory;

// What all chips of a board record by.
struct Acting {
  const Actor* actor = nullptr;  // for whom the agent acts; null when it acts by itself
  bool mayWait = false;          // records, until nobody has been told of what they are about
  std::vector<std::weak_ptr<ChipHistory>> waiting = {};
};

class ChipHistory : public KoruRegFile::AccessObserver,
                    public std::enable_shared_from_this<ChipHistory> {
 public:
  ChipHistory(std::string path, uint64_t capacity, std::shared_ptr<Acting> acting)
      : file_(std::move(path), capacity), acting_(std::move(acting)) {}

  void accessEnded(const KoruRegFile::SeenAccess& access) override;
  KoruRegFile::AccessCallback accessBegins(std::string_view reg, bool isWrite, uint32_t value,
                                           KoruRegFile::AccessCallback callback) override;
  void accessIsRetried() override { ++counts_.retries; }
  void writeIsPosted() override { isPosted_ = true; }
  void postedWriteFailed(std::string_view reg, uint32_t value,
                         const KoruRegFile::TransportFailure& failure) override;

  // The description's field, which lives as long as the chip.
  void fieldChanged(const Field& field, uint32_t was, uint32_t value);

  // The chip is taken down: accesses that end later may do so while another one goes on with it.
  void close();
  // Writes the records that wait.
  void flush();

  const AccessCounts& counts() const { return counts_; }

  // As long as it lives, registers are written for that reason.
  class Because {
   public:
    Because(ChipHistory& history, WrittenFor why)
        : history_(history), before_(std::exchange(history.why_, why)) {}
    ~Because() { history_.why_ = before_; }
    Because(const Because&) = delete;
    Because& operator=(const Because&) = delete;

   private:
    ChipHistory& history_;
    const WrittenFor before_;
  };
  // As long as it lives, fields are changed first, and the registers that they are in written
  // afterwards.
  class Together {
   public:
    explicit Together(ChipHistory& history) : history_(history) { history_.isTogether_ = true; }
    ~Together();
    // Nothing was written after all.
    void forget() { history_.waiting_.clear(); }
    Together(const Together&) = delete;
    Together& operator=(const Together&) = delete;

   private:
    ChipHistory& history_;
  };

 private:
  struct Write {
    bool isThere = false;
    std::string hardware;
    uint32_t sent = 0;
    WriteEnd end = WriteEnd::none;
    uint64_t took = 0;
    std::string reason;
    int error = 0;
  };
  struct Change {
    const Field* field;
    uint32_t was;
    uint32_t value;
  };

  // Of a field that may be described otherwise when its write ends.
  struct NamedChange {
    Orb::String reg;
    Orb::String field;
    uint32_t was;
    uint32_t value;
  };

  using Clock = std::chrono::steady_clock;

  void count(bool isWrite, const KoruRegFile::AccessOutcome& outcome, Clock::time_point begin);
  KoruRegFile::AccessCallback countedRead(KoruRegFile::AccessCallback callback);
  WrittenFor why() const;
  HistoryEntry entry() const;
  void append(const Change* change, const Write* write);
  void put(const HistoryEntry& entry);
  void appendWrite();
  bool appendWaiting(const std::string& hardware);
  std::vector<NamedChange> takeWaiting(std::string_view hardware);

  HistoryFile file_;
  const std::shared_ptr<Acting> acting_;
  AccessCounts counts_;
  WrittenFor why_ = WrittenFor::request;
  bool isWaiting_ = false;  // records of this chip
  bool isPosted_ = false;
  bool isTogether_ = false;
  Write write_;                  // whose field is still to be told
  std::vector<Change> waiting_;  // for their registers
};

}  // namespace Board
