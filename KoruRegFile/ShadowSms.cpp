#include "KoruRegFile/ShadowSms.h"

#include <stdexcept>

#include "Orb/Assert.h"
#include "Orb/EntityType.h"
#include "Orb/Trace.h"

namespace KoruRegFile {

namespace {

constexpr int errorLevel = 0;
constexpr int lifecycleLevel = 1;
constexpr int detailLevel = 2;
Orb::TraceHandle trace("ShadowFieldsSm");

constexpr int bitsOfByte = 8;
constexpr int bitsOfRegister = 32;

// The value at the key's address with the field composed into it.
uint32_t composed(const ShadowFieldsSm::RegValues& values, const ShadowFieldKey& key,
                  uint32_t value) {
  return bitStreamSet(values(key.address()), key.start(), key.size(), value);
}

}  // namespace

uint32_t bitStreamSet(uint32_t reg, uint8_t start, uint8_t len, uint32_t value) {
  const int startSlice = start / bitsOfByte;
  const int endSlice = (start + len - 1) / bitsOfByte;
  ORB_ASSERT(startSlice >= endSlice - 8, "startSlice >= endSlice - 8",
             "a field of {} bits from bit {} on spans too many bytes", len, start);
  ORB_ASSERT(len < 64, "len < 64", "a field of {} bits is too long", len);
  if (start >= bitsOfRegister) return reg;
  const uint64_t mask = (uint64_t{1} << len) - 1;
  const auto kept = static_cast<uint32_t>(~(mask << start));
  return (reg & kept) | static_cast<uint32_t>((value & mask) << start);
}

Orb::Ptr<ShadowFieldsSm> shadowFieldsSmFactory(const ShadowFieldsSm::Config& config,
                                               const ShadowFieldsSm::Status& status,
                                               const ShadowFieldsSm::Transport& transport,
                                               bool simulate) {
  auto reactor = Orb::make<ShadowFieldsSm>(config, status, transport, simulate);
  reactor->hasNotificationActiveIs(true);
  return reactor;
}

Orb::Ptr<ShadowFieldsSm> ShadowFieldsSm::ShadowFieldsSmIs(const Config& config,
                                                          const Status& status,
                                                          const Transport& transport,
                                                          bool simulate) {
  return shadowFieldsSmFactory(config, status, transport, simulate);
}

ShadowFieldsSm::ShadowFieldsSm(const Config& config, const Status& status,
                               const Transport& transport, bool simulate)
    : shadowFieldsStatus_(status), transport_(transport), simulate_(simulate) {
  if (config) {
    if (!status) throw std::invalid_argument("a shadow field reactor needs a status table");
    if (!transport && !simulate) {
      throw std::invalid_argument("a shadow field reactor needs a transport");
    }
    shadowFieldsConfig_.emplace(config, *this);
    shadowFieldsConfig_->hasNotificationActiveIs(true);
  }
  handleInitialized();
}

// Hears of nothing any more while its parts go.
ShadowFieldsSm::~ShadowFieldsSm() { shadowFieldsConfig_.reset(); }

ShadowFieldsSm::Config ShadowFieldsSm::shadowFieldsConfig() const {
  return shadowFieldsConfig_ ? shadowFieldsConfig_->notifier() : nullptr;
}

void ShadowFieldsSm::hasNotificationActiveIs(bool active) {
  if (shadowFieldsConfig_) shadowFieldsConfig_->hasNotificationActiveIs(active);
}

void ShadowFieldsSm::regConfigIs(uint32_t address, uint32_t value) {
  collectionIs(regConfig_, address, value, &Notifiee::onRegConfig);
}

void ShadowFieldsSm::regConfigDel(uint32_t address) {
  collectionDel(regConfig_, address, &Notifiee::onRegConfig);
}

void ShadowFieldsSm::regConfigDelAll() { collectionDelAll(regConfig_, &Notifiee::onRegConfig); }

void ShadowFieldsSm::regStatusIs(uint32_t address, uint32_t value) {
  collectionIs(regStatus_, address, value, &Notifiee::onRegStatus);
}

void ShadowFieldsSm::regStatusDel(uint32_t address) {
  collectionDel(regStatus_, address, &Notifiee::onRegStatus);
}

void ShadowFieldsSm::regStatusDelAll() { collectionDelAll(regStatus_, &Notifiee::onRegStatus); }

void ShadowFieldsSm::handleInitialized() {
  const auto keep = Orb::keepAlive(this);
  if (const Config config = shadowFieldsConfig()) {
    const auto fields = config->fields();
    regConfig_.reserve(fields.size());
    for (const ShadowFieldValue& field : fields) {
      regConfigIs(field.key().address(), composed(regConfig_, field.key(), field.value()));
    }
  }
  if (shadowFieldsStatus_) {
    const auto fields = shadowFieldsStatus_->fields();
    regStatus_.reserve(fields.size());
    for (const ShadowFieldValue& field : fields) {
      regStatusIs(field.key().address(), composed(regStatus_, field.key(), field.value()));
    }
  }
  attributeIs(initialized_, true, &Notifiee::onInitialized);
  ORB_TRACE(trace, lifecycleLevel, "shadowFeilds initialized");
  handleShadowField();
}

void ShadowFieldsSm::handleShadowField() {
  const auto keep = Orb::keepAlive(this);
  const Config config = shadowFieldsConfig();
  if (!config) return;
  for (const ShadowFieldValue& field : config->fields()) handleShadowField(field.key());
}

void ShadowFieldsSm::handleShadowField(const ShadowFieldKey& key) {
  const auto keep = Orb::keepAlive(this);
  if (!shadowFieldsConfig_) throw std::logic_error("there is no configuration to take fields from");
  const uint32_t value = shadowFieldsConfig_->notifier()->field(key).value();
  ORB_TRACE(trace, detailLevel, "key: addr={:#x}, start={:#x}, size={:#x}", key.address(),
            key.start(), key.size());
  if (!initialized()) {
    ORB_TRACE(trace, errorLevel, "Not initialized!");
    return;
  }
  regConfigIs(key.address(), composed(regConfig_, key, value));
  writeRegister(key.address());
  shadowFieldsStatus_->fieldIs(ShadowFieldValue(key, value));
}

// Asks for what a change of the field will touch.
void ShadowFieldsSm::fieldFetch(const ShadowFieldKey& key) const {
  shadowFieldsStatus_->fieldFetch(key);
  regConfig_.fetch(key.address());
  regStatus_.fetch(key.address());
  if (!simulate_) transport_->regFetch(key.address());
}

void ShadowFieldsSm::writeRegister(uint32_t address) {
  const uint32_t wanted = regConfig_(address);
  if (wanted == regStatus_(address)) return;
  if (!simulate_) transport_->regWriteAtAddr(address, wanted);
  regStatusIs(address, wanted);
}

const Orb::EntityType& ShadowFieldsSm::entityType() {
  using T = ShadowFieldsSm;
  static const auto type =
      Orb::EntityTypeOf<T>("KoruRegFile::ShadowFieldsSm")
          .attribute("shadowFieldsConfig", &T::shadowFieldsConfig)
          .attribute("shadowFieldsStatus", &T::shadowFieldsStatus)
          .attribute("transport", &T::transport)
          .attribute("simulate", &T::simulate)
          .attribute("initialized", &T::initialized)
          .attribute("regConfig", &T::regConfig)
          .attribute("regStatus", &T::regStatus)
          .operation("regConfigIs", &T::regConfigIs, {"address", "value"})
          .operation("regConfigDel", &T::regConfigDel, {"address"})
          .operation("regConfigDelAll", &T::regConfigDelAll, {})
          .operation("regStatusIs", &T::regStatusIs, {"address", "value"})
          .operation("regStatusDel", &T::regStatusDel, {"address"})
          .operation("regStatusDelAll", &T::regStatusDelAll, {})
          .operation("handleInitialized", &T::handleInitialized, {})
          .operation("handleShadowField", static_cast<void (T::*)()>(&T::handleShadowField), {})
          .operation("handleShadowField",
                     static_cast<void (T::*)(const ShadowFieldKey&)>(&T::handleShadowField),
                     {"key"});
  return type;
}

}  // namespace KoruRegFile
