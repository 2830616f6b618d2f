#pragma once

// What clients of the agent may ask for. Everything a client says is checked here, before the
// library is called: its fatal assertions would end the keeper. Used on the framework's thread.

#include <cstdint>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "board/chips/BoardKeeper.h"
#include "board/service/internal/Pieces.h"

namespace Board {

using Json = nlohmann::ordered_json;

// {"id": ..., "ok": false, "error": {"kind": ..., "message": ...}}
Json errorReply(const Json& id, const std::string& kind, const std::string& message);

class Entries;

class Requests {
 public:
  struct Call;
  // Called once, at once or later, with a line.
  using Reply = std::function<void(const std::string& answer)>;
  // The client that asks.
  struct Asker {
    std::function<void(const std::string& chip)> subscribe;
    std::function<void()> unsubscribe;
    // Takes an answer that is made piece by piece, in the place of the reply.
    std::function<void(std::unique_ptr<Pieces> answer)> list;
    std::function<void(const std::string& chip)> hearBus = {};
    std::function<std::vector<std::string>()> hearNoBus = {};  // the chips that it heard of
  };

  explicit Requests(BoardKeeper& keeper) : keeper_(keeper) {}

  // What follows has come from clients before now: it is answered by one look at the files that
  // answers depend on.
  void roundBegins() { ++round_; }
  // How many there are at the moment.
  void clientsAre(size_t clients) { clients_ = clients; }
  // How the board does at this moment, in figures, in the text format of OpenMetrics
  // (docs/Metrics.md).
  std::unique_ptr<Pieces> metricsText() const;
  // Throws nothing: whatever goes wrong is the answer.
  void handle(const Json& request, const Reply& reply, const Asker& asker);

  Json chipEvent(const std::string& chip) const;
  Json fieldEvent(const std::string& chip, const KoruRegFile::LogicalFieldName& field) const;
  static Json sentEvent(const std::string& chip, const Orb::String& reg, const Orb::String& field,
                        uint32_t value);
  static Json driftEvent(const std::string& chip, const Drift& drift);
  static Json busEvent(const std::string& chip, const BusAccess& access, uint64_t number);
  static Json resetEvent(const std::string& chip, const std::string& why);

 private:
  using Operation = Json (Requests::*)(Call& call);
  struct Entry;
  static const Entry* find(const std::string& op);

  Json chipList(Call& call);
  Json chipShow(Call& call);
  Json chipRegisters(Call& call);
  Json chipRewrite(Call& call);
  Json chipDefaults(Call& call);
  Json fieldList(Call& call);
  Json fieldRead(Call& call);
  Json fieldWrite(Call& call);
  Json fieldReset(Call& call);
  Json fieldsWrite(Call& call);
  Json registerList(Call& call);
  Json registerRead(Call& call);
  Json registerWrite(Call& call);
  Json hwList(Call& call);
  Json hwRead(Call& call);
  Json hwWrite(Call& call);
  Json stats(Call& call);
  Json metrics(Call& call);
  Json entityList(Call& call);
  Json entityGet(Call& call);
  Json subscribe(Call& call);
  Json unsubscribe(Call& call);
  Json busSubscribe(Call& call);
  Json busUnsubscribe(Call& call);

  // Answers with the entries, as many as are asked for.
  static Json list(Call& call, std::unique_ptr<Entries> entries);
  Json chipJson(const std::string& chip) const;
  // The result that a value becomes which an access has brought.
  using Told = std::function<Json(uint32_t value)>;
  static KoruRegFile::AccessCallback answerTo(const Call& call, const Transport& transport,
                                              const std::string& failed, Told told = {});
  Json readLive(Call& call, const std::string& reg, Told told);
  Json writeField(Call& call, const Field& field, uint32_t value);
  // `result` is what is answered; null for the plan.
  Json write(Call& call, const WritePlan& plan, const Json& result = nullptr);
  Json readStatus(Call& call, const std::string& reg);
  void requireSafe(const std::string& chip);

  BoardKeeper& keeper_;
  uint64_t round_ = 0;
  size_t clients_ = 0;
  const std::shared_ptr<const bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace Board
