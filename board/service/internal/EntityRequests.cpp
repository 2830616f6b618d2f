// Requests about named entities, whatever they are. None is kept alive by somebody who reads
// slowly.

#include <fmt/format.h>

#include <utility>

#include "Orb/EntityStrep.h"
#include "Orb/EntityType.h"
#include "board/service/JsonText.h"
#include "board/service/internal/Call.h"
#include "board/service/internal/ListAnswer.h"

namespace Board {

namespace {

using Attribute = Orb::EntityType::Attribute;

struct EntityName {
  std::string type;
  std::string name;
};

// The attributes of an entity, a piece of one at a time.
class AttributesAnswer : public Pieces {
 public:
  AttributesAnswer(Json id, uint64_t entity, std::vector<const Attribute*> attributes)
      : id_(std::move(id)), entity_(entity), attributes_(std::move(attributes)) {}

  bool next(std::string& out) override {
    if (at_ == 0 && !pieces_) out += "{\"id\":" + jsonText(id_) + ",\"result\":{";
    if (at_ == attributes_.size()) {
      out += "},\"ok\":true}";
      return false;
    }
    if (!pieces_) {
      pieces_ = attributes_[at_]->pieces();
      out += fmt::format("{}{}:\"", at_ == 0 ? "" : ",", jsonText(attributes_[at_]->name));
    }
    try {
      appendPiece(out);
      return true;
    } catch (const std::exception& e) {
      const Json error = {{"kind", "failed"}, {"message", e.what()}};
      out += "\"},\"ok\":false,\"error\":" + jsonText(error) + '}';
      return false;
    }
  }

 private:
  void appendPiece(std::string& out) {
    const auto entity = Orb::namedEntity(entity_);
    if (!entity) throw std::runtime_error("the entity has gone");
    std::string piece;
    const bool isLast = !pieces_->next(piece, *entity);
    out += quotable(piece);
    if (!isLast) return;
    out += '"';
    pieces_.reset();
    ++at_;
  }

  const Json id_;
  const uint64_t entity_;
  const std::vector<const Attribute*> attributes_;
  size_t at_ = 0;
  std::unique_ptr<Orb::StrepPieces> pieces_;  // of the attribute that has been begun
};

}  // namespace

Json Requests::entityList(Call& call) {
  std::vector<EntityName> names;
  for (const auto& entity : Orb::namedEntities()) {
    names.push_back({entity->fwkType().name(), std::string(entity->entityName())});
  }
  const auto tell = [](const EntityName& entity) -> Json {
    return {{"type", entity.type}, {"name", entity.name}};
  };
  return list(call,
              std::make_unique<CopiedEntries<EntityName>>(std::move(names), tell, call.from()));
}

Json Requests::entityGet(Call& call) {
  const std::string type = call.text("type");
  const std::string name = call.text("name");
  const auto wanted = call.optionalText("attribute");
  const uint64_t number = Orb::namedEntityNumber(type, name);
  const auto entity = Orb::namedEntity(number);
  if (!entity) {
    throw RequestError("noSuchEntity", fmt::format("there is no {} named '{}'", type, name));
  }
  std::vector<const Attribute*> attributes;
  for (const Attribute& attribute : entity->fwkType().attributes()) {
    if (!wanted || *wanted == attribute.name) attributes.push_back(&attribute);
  }
  if (wanted && attributes.empty()) {
    throw RequestError("noSuchAttribute", fmt::format("{} has no attribute '{}'", type, *wanted));
  }
  call.answersLater = true;
  call.asker.list(std::make_unique<AttributesAnswer>(call.id(), number, std::move(attributes)));
  return {};
}

}  // namespace Board
