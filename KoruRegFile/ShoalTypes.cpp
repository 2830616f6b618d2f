#include "KoruRegFile/ShoalTypes.h"

#include <fmt/format.h>

#include <exception>

#include "Brio/CorruptionDetectedException.h"
#include "Orb/Assert.h"
#include "Orb/EntityType.h"
#include "Orb/Trace.h"

namespace KoruRegFile {

namespace {

constexpr int detailLevel = 2;
Orb::TraceHandle trace("ShoalTypes");

uint64_t packKey(const ShadowFieldKey& key) {
  return uint64_t{key.address()} << 16 | uint64_t{key.start()} << 8 | key.size();
}

// Tells of a sound entry whose key no table of shadow fields can hold, and of none else.
std::optional<ShadowFieldKey> unpackKey(uint64_t packed) {
  const auto key = unpackShadowFieldKey(packed);
  if (!key) {
    Shoal::ShoalMapBase::doCorruptionDetected(
        fmt::format("{:#x} is no key of a shadow field", packed));
  }
  return key;
}

// The result of an access to shared memory. Damage goes to the table library's handler and yields
// `otherwise`. (No result variable is set inside the try block: g++ 12 drops the initial value of
// one that a throwing call would have overwritten.)
template <class Result, class Access>
Result undamaged(Result otherwise, Access access) {
  try {
    return access();
  } catch (const Brio::CorruptionDetectedException& e) {
    Shoal::ShoalMapBase::doCorruptionDetected(e.msg());
  }
  return otherwise;
}

// The same for a change, from which there is no way back.
template <class Change>
void mustChange(Change change) {
  const bool changed = undamaged(false, [&] {
    change();
    return true;
  });
  ORB_ASSERT(changed, "in no man's land", "a damaged table cannot be changed");
}

}  // namespace

template <class T>
ShadowFieldsTable<T>::ShadowFieldsTable(const Orb::String& name)
    : name_(name),
      fieldIsCount_(name, "fieldIs"),
      fieldDelCount_(name, "fieldDel"),
      fieldNotifyCount_(name, "fieldNotify"),
      zeroReferencesNotifiee_(*this),
      fieldControl_(Shoal::collectionControlFactory()),
      map_({[this](uint64_t key) { remoteChange(key); }, [this] { fieldNotifyMountStatus(); },
            [this](bool quiesced) { fieldNotifyQuiesced(quiesced); }}) {}

template <class T>
ShadowFieldsTable<T>::~ShadowFieldsTable() = default;

template <class T>
ShadowFieldsTable<T>::ZeroReferencesNotifiee::ZeroReferencesNotifiee(ShadowFieldsTable& table)
    : Orb::ZeroReferencesNotifiee(table), table_(table) {
  hasNotificationActiveIs(true);
}

template <class T>
void ShadowFieldsTable<T>::ZeroReferencesNotifiee::onZeroReferences() {
  hasNotificationActiveIs(false);
  if (table_.fieldControl()) table_.fieldControl()->entityRefIs(&table_);
}

template <class T>
void ShadowFieldsTable<T>::handleMount(std::string_view path, OrbPool::MountType type,
                                       uint32_t entries) {
  if (type == OrbPool::mountWriter) {
    map_.mountAsWriter(path, T::entityType().name(), entries);
  } else if (map_.mountStatus() == Shoal::MountStatus::unmounted) {
    map_.mountAsReader(path, T::entityType().name());
  }
  fieldNotifyMountStatus();
  if (map_.isWriter()) fieldNotifyQuiesced(true);
}

template <class T>
ShadowFieldValue ShadowFieldsTable<T>::field(const ShadowFieldKey& key) const {
  return undamaged(ShadowFieldValue(), [&] {
    const auto found = map_.get(packKey(key));
    return found ? ShadowFieldValue(key, *found) : ShadowFieldValue();
  });
}

template <class T>
bool ShadowFieldsTable<T>::fieldHas(const ShadowFieldKey& key) const {
  return undamaged(false, [&] { return map_.get(packKey(key)).has_value(); });
}

template <class T>
void ShadowFieldsTable<T>::fieldFetch(const ShadowFieldKey& key) const {
  map_.fetchToWrite(packKey(key));
  this->notify(&T::Notifiee::fieldFetch, key);
}

template <class T>
std::vector<ShadowFieldValue> ShadowFieldsTable<T>::fields() const {
  std::vector<ShadowFieldValue> all;
  if (map_.isWriter()) all.reserve(map_.size());  // a reader would have to count
  undamaged(false, [&] {
    Shoal::ShoalMap::Entry entry;
    for (uint32_t position = 0; map_.next(position, entry);) {
      if (const auto key = unpackKey(entry.key)) all.emplace_back(*key, entry.value);
    }
    return true;
  });
  return all;
}

template <class T>
void ShadowFieldsTable<T>::store(const ShadowFieldValue& value) {
  // A reactor may drop the last reference to the table.
  const auto keep = Orb::keepAlive(this);
  fieldIsCount_.increment();
  mustChange([&] { map_.put(packKey(value.key()), value.value()); });
  fieldNotify(value.key());
}

template <class T>
void ShadowFieldsTable<T>::fieldIs(const ShadowFieldValue& value) {
  store(value);
}

template <class T>
void ShadowFieldsTable<T>::fieldCommit(const ShadowFieldValue* value) {
  store(*value);
}

template <class T>
void ShadowFieldsTable<T>::fieldDel(const ShadowFieldKey& key) {
  fieldDelCount_.increment();
  mustChange([&] { map_.del(packKey(key)); });
  fieldNotify(key);
}

template <class T>
void ShadowFieldsTable<T>::fieldDelAll() {
  const auto keep = Orb::keepAlive(this);
  std::exception_ptr failure;
  for (const ShadowFieldValue& value : fields()) {
    if (!this->hasNotifiees()) {
      mustChange([&] { map_.del(packKey(value.key())); });
      continue;
    }
    try {
      fieldDel(value.key());
    } catch (...) {
      if (!failure) failure = std::current_exception();
    }
  }
  if (failure) std::rethrow_exception(failure);
}

template <class T>
void ShadowFieldsTable<T>::fieldNotify(const ShadowFieldKey& key) {
  // Counted before the reactors run: the table may be gone afterwards.
  fieldNotifyCount_.increment();
  this->notify(&T::Notifiee::onField, ShadowFieldKey(key));
}

template <class T>
void ShadowFieldsTable<T>::remoteChange(uint64_t packed) {
  if (const auto key = unpackKey(packed)) fieldNotify(*key);
}

template <class T>
void ShadowFieldsTable<T>::fieldNotifyMountStatus() {
  const Shoal::MountStatus status = map_.mountStatus();
  ORB_TRACE(trace, detailLevel, "{}: mount status {}", name_, Orb::enumName(status));
  if (fieldControl()) fieldControl()->mountStatusIs(status);
}

template <class T>
void ShadowFieldsTable<T>::fieldNotifyQuiesced(bool quiesced) {
  if (fieldControl()) fieldControl()->quiescedIs(quiesced);
}

template <class T>
void ShadowFieldsTable<T>::fieldControlIs(const Orb::Ptr<Shoal::CollectionControl>& control) {
  this->attributeIs(fieldControl_, control, &T::Notifiee::onFieldControl);
}

template class ShadowFieldsTable<ShadowFieldsConfig>;
template class ShadowFieldsTable<ShadowFieldsStatus>;

namespace {

template <class T>
const Orb::EntityType& describeTable(const char* typeName) {
  static const auto type = Orb::EntityTypeOf<T>(typeName)
                               .attribute("name", &T::name)
                               .attribute("fieldControl", &T::fieldControl)
                               .operation("field", &T::field, {"key"})
                               .operation("fieldHas", &T::fieldHas, {"key"})
                               .operation("fieldIs", &T::fieldIs, {"value"})
                               .operation("fieldDel", &T::fieldDel, {"key"})
                               .operation("fieldDelAll", &T::fieldDelAll, {})
                               .operation("fieldNotify", &T::fieldNotify, {"key"});
  return type;
}

// Tables can be made by mounting their paths.
const OrbPool::NewEntityHook configHook("KoruRegFile::ShadowFieldsConfig",
                                        [](const Orb::String& name)
                                            -> Orb::Ptr<OrbPool::PoolEntity> {
                                          return shadowFieldsConfigFactory(name);
                                        });
const OrbPool::NewEntityHook statusHook("KoruRegFile::ShadowFieldsStatus",
                                        [](const Orb::String& name)
                                            -> Orb::Ptr<OrbPool::PoolEntity> {
                                          return shadowFieldsStatusFactory(name);
                                        });

}  // namespace

const Orb::EntityType& ShadowFieldsConfig::entityType() {
  return describeTable<ShadowFieldsConfig>("KoruRegFile::ShadowFieldsConfig");
}

const Orb::EntityType& ShadowFieldsStatus::entityType() {
  return describeTable<ShadowFieldsStatus>("KoruRegFile::ShadowFieldsStatus");
}

uint64_t packShadowFieldKey(const ShadowFieldKey& field) { return packKey(field); }

std::optional<ShadowFieldKey> unpackShadowFieldKey(uint64_t key) {
  const auto start = static_cast<uint8_t>(key >> 8);
  const auto size = static_cast<uint8_t>(key);
  if (key >> 48 != 0 || start > 31 || size < 1 || size > 32) return std::nullopt;
  return ShadowFieldKey(static_cast<uint32_t>(key >> 16), start, size);
}

Orb::Ptr<ShadowFieldsConfig> shadowFieldsConfigFactory(const Orb::String& name) {
  return Orb::make<ShadowFieldsConfig>(name);
}

Orb::Ptr<ShadowFieldsStatus> shadowFieldsStatusFactory(const Orb::String& name) {
  return Orb::make<ShadowFieldsStatus>(name);
}

Orb::Ptr<ShadowFieldsConfig> ShadowFieldsConfig::ShadowFieldsConfigIs(const Orb::String& name) {
  return shadowFieldsConfigFactory(name);
}

Orb::Ptr<ShadowFieldsStatus> ShadowFieldsStatus::ShadowFieldsStatusIs(const Orb::String& name) {
  return shadowFieldsStatusFactory(name);
}

}  // namespace KoruRegFile
