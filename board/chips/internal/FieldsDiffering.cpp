#include "board/chips/internal/FieldsDiffering.h"

namespace Board {

using KoruRegFile::packShadowFieldKey;
using KoruRegFile::ShadowFieldKey;

FieldsDiffering::FieldsDiffering(const Config& config, const Status& status)
    : config_(config), status_(status), configWatch_(config, *this), statusWatch_(status, *this) {
  for (const auto& field : config_->fields()) look(field.key());
  for (const auto& field : status_->fields()) look(field.key());
}

void FieldsDiffering::look(const ShadowFieldKey& key) {
  const bool differs = config_->field(key).value() != status_->field(key).value();
  if (differs) {
    differing_.insert(packShadowFieldKey(key));
  } else if (!differing_.empty()) {
    differing_.erase(packShadowFieldKey(key));
  }
}

}  // namespace Board
