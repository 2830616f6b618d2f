#pragma once

// Answers that are lists, made an entry at a time: {"id": ..., "result": [...], "ok": true}, with
// "next" when there is more than was asked for. One that cannot be brought to its end has what was
// made, "ok": false and an "error". Used on the framework's thread.

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "board/service/internal/Pieces.h"
#include "board/service/internal/Requests.h"

namespace Board {

// What a list is made of. Whatever it tells of may be gone at the next call, so it remembers no
// more than a place: it throws RequestError then.
class Entries {
 public:
  enum class Step { made, leftOut, ended };

  virtual ~Entries() = default;
  // Where the next step begins, for whoever wants to go on from there.
  virtual Json place() const = 0;
  // Makes the next entry, or leaves it out.
  virtual Step step(Json& entry) = 0;
};

// Those that are told from a copy.
template <class Item>
class CopiedEntries : public Entries {
 public:
  using Tell = Json (*)(const Item& item);
  CopiedEntries(std::vector<Item> items, Tell tell, size_t from)
      : items_(std::move(items)), tell_(tell), at_(from) {}

  Json place() const override { return at_; }
  Step step(Json& entry) override {
    if (at_ >= items_.size()) return Step::ended;
    entry = tell_(items_[at_++]);
    return Step::made;
  }

 private:
  const std::vector<Item> items_;
  const Tell tell_;
  size_t at_;
};

class ListAnswer : public Pieces {
 public:
  // So many entries at most.
  ListAnswer(Json id, size_t limit, std::unique_ptr<Entries> entries)
      : id_(std::move(id)), left_(limit), entries_(std::move(entries)) {}

  bool next(std::string& out) override;

 private:
  bool step(std::string& out);
  void end(std::string& out, const Json& more) const;

  const Json id_;
  size_t left_;
  const std::unique_ptr<Entries> entries_;
  const char* separator_ = nullptr;  // none before the list has begun
};

}  // namespace Board
