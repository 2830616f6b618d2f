#include "board/chips/internal/ChipTables.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <map>
#include <system_error>
#include <utility>

#include "Brio/CorruptionDetectedException.h"
#include "KoruRegFile/SystemStatus.h"
#include "Orb/Trace.h"
#include "Shoal/StatePath.h"
#include "Shoal/TableInfo.h"
#include "board/chips/FieldWrites.h"
#include "board/devices/TransportKind.h"

namespace Board {

namespace {

using KoruRegFile::ShadowFieldKey;
using KoruRegFile::ShadowFieldsConfig;
using KoruRegFile::ShadowFieldsStatus;
using KoruRegFile::ShadowFieldValue;

constexpr const char* statusPathPrefix = "KoruRegFile/shadowFieldsStatus";
Orb::TraceHandle trace("korud");

template <class Table>
Orb::Ptr<Table> mount(const Orb::Ptr<OrbPool::EntityManager>& manager, const char* type,
                      const std::string& path, size_t entries) {
  const auto group = manager->mountGroup();
  group->collectionDescriptionIs({"field", static_cast<uint32_t>(entries), false});
  const auto entity = group->mount(type, path, OrbPool::mountWriter);
  group->close();
  return Orb::dynamic_pointer_cast<Table>(entity);
}

// Where the next mount makes a new one. What was set aside before is gone then.
void setAside(const std::string& mountPath, const std::string& why) {
  const std::string file = Shoal::TablePaths(mountPath).table;
  const std::string aside = file + ".damaged";
  if (std::rename(file.c_str(), aside.c_str()) != 0) {
    throw std::system_error(errno, std::generic_category(),
                            fmt::format("cannot set {} aside", file));
  }
  ORB_TRACE(trace, 0, "{}: {}; set aside as {}", mountPath, why, aside);
}

// The sound entries of a damaged table; none when its header is damaged.
std::vector<ShadowFieldValue> soundEntries(const std::string& mountPath) {
  std::vector<ShadowFieldValue> sound;
  try {
    const auto info = Shoal::tableInfo(Shoal::TablePaths(mountPath));
    if (!info) return sound;
    for (const auto& [key, value] : info->entries) {
      if (const auto field = KoruRegFile::unpackShadowFieldKey(key))
        sound.emplace_back(*field, value);
    }
  } catch (const Brio::CorruptionDetectedException&) {
  } catch (const Shoal::MountException&) {
  }
  return sound;
}

// With the registers that they are of.
std::vector<KeptField> named(const std::vector<ShadowFieldValue>& values, const ChipFiles& files) {
  boost::unordered_flat_map<ShadowFieldKey, std::string, Orb::KeyHash<ShadowFieldKey>> names;
  for (const KeptField& field : files.names()) names[field.value.key()] = field.reg;
  std::vector<KeptField> all;
  for (const ShadowFieldValue& value : values) all.push_back({value, names[value.key()]});
  return all;
}

// What the registers held is gone, whatever the status says.
bool isForgotten(const Transport& transport) {
  return transport.kind->forgets && transport.kind->forgets(transport);
}

}  // namespace

std::string configPath(const std::string& chip) {
  return fmt::format("{}/{}", KoruRegFile::MountConstants::shadowFieldsConfigPathPrefix, chip);
}

std::string statusPath(const std::string& chip) {
  return fmt::format("{}/{}", statusPathPrefix, chip);
}

std::vector<KeptField> keptFields(const Chip& chip) {
  std::vector<KeptField> fields;
  for (const Field& field : chip.fields) {
    fields.push_back({{field.key(), field.value}, field.physicalRegister.c_str()});
  }
  return fields;
}

ChipTables::ChipTables(const Orb::Ptr<OrbPool::EntityManager>& manager, const Chip& chip,
                       const ChipFiles& files)
    : files_(files),
      rewrite_(chip.onStart == Board::OnStart::rewrite || isForgotten(chip.transport)) {
  files_.prepare();
  const auto mountConfig = [&] {
    return mount<ShadowFieldsConfig>(manager, "KoruRegFile::ShadowFieldsConfig",
                                     configPath(chip.name), chip.fields.size());
  };
  const auto mountStatus = [&] {
    return mount<ShadowFieldsStatus>(manager, "KoruRegFile::ShadowFieldsStatus",
                                     statusPath(chip.name), chip.fields.size());
  };
  try {
    config_ = mountConfig();
  } catch (const Brio::CorruptionDetectedException& e) {
    saveSound(chip.name);
    files_.dirtyIs(true);
    setAside(configPath(chip.name), e.msg());
    config_ = mountConfig();
  } catch (const Shoal::OtherLayoutException& e) {
    if (const auto noted = files_.names(); !noted.empty() && !files_.saved()) files_.savedIs(noted);
    files_.dirtyIs(true);
    setAside(configPath(chip.name), e.what());
    config_ = mountConfig();
  }
  try {
    status_ = mountStatus();
  } catch (const Brio::CorruptionDetectedException& e) {
    files_.dirtyIs(true);
    setAside(statusPath(chip.name), e.msg());
    status_ = mountStatus();
  } catch (const Shoal::OtherLayoutException& e) {
    files_.dirtyIs(true);
    setAside(statusPath(chip.name), e.what());
    status_ = mountStatus();
  }
  surviving(chip);
  save(chip);
  ByKey<bool> recorded;
  for (const ShadowFieldValue& value : status_->fields()) recorded[value.key()] = true;
  for (const Field& field : chip.fields) {
    // Nobody knows what the register holds.
    if (!recorded.contains(field.key())) rewrite_ = true;
  }
  if (rewrite_) files_.dirtyIs(true);
  removeStale(chip);
  rewrite_ = files_.isDirty();
}

// What is saved survives a kill while there is no table. An entry of the configuration that is
// damaged was written before the status said so.
void ChipTables::saveSound(const std::string& chip) const {
  if (files_.saved()) return;
  std::map<ShadowFieldKey, ShadowFieldValue> sound;
  for (const std::string& path : {statusPath(chip), configPath(chip)}) {
    for (const ShadowFieldValue& value : soundEntries(path)) sound[value.key()] = value;
  }
  std::vector<ShadowFieldValue> all;
  for (const auto& entry : sound) all.push_back(entry.second);
  if (!all.empty()) files_.savedIs(named(all, files_));
}

// Values that were saved and not given back yet win over the table's, which may be half zero.
void ChipTables::surviving(const Chip& chip) {
  if (chip.onStart == Board::OnStart::defaults) return files_.togetherDel();
  auto kept = files_.saved();
  if (!kept) {
    kept = named(config_->fields(), files_);
  }
  // A write of several fields that was cut off.
  const auto together = files_.together();
  for (const auto& fields : {*kept, together}) {
    for (const KeptField& field : fields) {
      const ShadowFieldKey& key = field.value.key();
      if (field.reg.empty()) {
        nameless_[key] = field.value.value();
      } else {
        values_[{field.reg, key.start(), key.size()}] = field.value.value();
      }
    }
  }
  follow(chip, *kept);
}

// From the mount on, which clears the table, until the chip has filled it again.
void ChipTables::save(const Chip& chip) const {
  std::vector<KeptField> all;
  for (const Field& field : chip.fields) {
    all.push_back({{field.key(), valueOf(field)}, field.physicalRegister.c_str()});
  }
  files_.savedIs(all);
}

// The map may have other numbers for its registers: what the status says is of others then.
void ChipTables::follow(const Chip& chip, const std::vector<KeptField>& kept) {
  ByKey<std::string> before;
  for (const KeptField& field : kept) before[field.value.key()] = field.reg;
  for (const Field& field : chip.fields) {
    const std::string reg = field.physicalRegister.c_str();
    const auto found = before.find(field.key());
    if (found == before.end() || found->second.empty() || found->second == reg) continue;
    rewrite_ = true;
    const bool hasMoved = values_.contains({reg, field.physical.start, field.physical.size});
    ORB_TRACE(trace, 0, "{}: address {:#x} was register '{}' and is '{}' now; field {}.{} {}",
              chip.name, field.address, found->second, reg, field.logicalRegister,
              field.logicalField,
              hasMoved ? "takes its value along" : "begins with the file's value");
  }
}

void ChipTables::removeStale(const Chip& chip) {
  ByKey<bool> described;
  for (const Field& field : chip.fields) described[field.key()] = true;
  size_t count = 0;
  const auto clean = [&](const auto& table) {
    for (const ShadowFieldValue& value : table->fields()) {
      if (described.contains(value.key())) continue;
      // Marked before the first of them is gone.
      if (++count == 1) files_.dirtyIs(true);
      table->fieldDel(value.key());
    }
  };
  clean(config_);
  clean(status_);
  if (count != 0) {
    ORB_TRACE(trace, 0, "{}: {} entries of the shadow tables are described no more; removed",
              chip.name, count);
  }
}

uint32_t ChipTables::valueOf(const Field& field) const {
  if (isSentOnce(field.kind)) return 0;
  const auto found =
      values_.find({field.physicalRegister.c_str(), field.physical.start, field.physical.size});
  if (found != values_.end()) return found->second;
  const auto nameless = nameless_.find(field.key());
  return nameless == nameless_.end() ? field.value : nameless->second;
}

void ChipTables::agree(const Chip& chip) {
  for (const Field& field : chip.fields) {
    if (rewrite_ || isSentOnce(field.kind)) status_->fieldIs({field.key(), valueOf(field)});
  }
}

}  // namespace Board
