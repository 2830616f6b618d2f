#include "agent/ChipTables.h"

#include <fmt/format.h>

#include <cstdio>
#include <set>
#include <system_error>

#include "Brio/CorruptionDetectedException.h"
#include "KoruRegFile/SystemStatus.h"
#include "Orb/Trace.h"
#include "Shoal/TableInfo.h"

namespace Agent {

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
  } catch (const std::exception&) {
  }
  return sound;
}

}  // namespace

std::string configPath(const std::string& chip) {
  return fmt::format("{}/{}", KoruRegFile::MountConstants::shadowFieldsConfigPathPrefix, chip);
}

std::string statusPath(const std::string& chip) {
  return fmt::format("{}/{}", statusPathPrefix, chip);
}

ChipTables::ChipTables(const Orb::Ptr<OrbPool::EntityManager>& manager, const System::Chip& chip,
                       const ChipFiles& files)
    : files_(files), rewrite_(chip.onStart == System::OnStart::rewrite) {
  std::vector<ShadowFieldValue> found;
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
    found = soundEntries(configPath(chip.name));
    // What is saved survives a kill while there is no table.
    if (!found.empty() && !files_.saved()) files_.savedIs(found);
    files_.dirtyIs(true);
    setAside(configPath(chip.name), e.msg());
    config_ = mountConfig();
  }
  try {
    status_ = mountStatus();
  } catch (const Brio::CorruptionDetectedException& e) {
    files_.dirtyIs(true);
    setAside(statusPath(chip.name), e.msg());
    status_ = mountStatus();
  }
  surviving(chip);
  std::set<ShadowFieldKey> recorded;
  for (const ShadowFieldValue& value : status_->fields()) recorded.insert(value.key());
  for (const System::Field& field : chip.fields) {
    // Nobody knows what the register holds.
    if (!recorded.contains(field.key())) rewrite_ = true;
  }
  if (rewrite_) files_.dirtyIs(true);
  removeStale(chip);
  rewrite_ = files_.isDirty();
}

// Values that were saved and not given back yet win over the table's, which may be half zero.
void ChipTables::surviving(const System::Chip& chip) {
  if (chip.onStart == System::OnStart::defaults) return files_.savedDel();
  auto values = files_.saved();
  if (!values) {
    values = config_->fields();
    if (!values->empty()) files_.savedIs(*values);
  }
  for (const ShadowFieldValue& value : *values) values_[value.key()] = value.value();
}

void ChipTables::removeStale(const System::Chip& chip) {
  std::set<ShadowFieldKey> described;
  for (const System::Field& field : chip.fields) described.insert(field.key());
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

uint32_t ChipTables::valueOf(const System::Field& field) const {
  const auto found = values_.find(field.key());
  return found == values_.end() ? field.value : found->second;
}

void ChipTables::agree(const System::Chip& chip) {
  if (!rewrite_) return;
  for (const System::Field& field : chip.fields) status_->fieldIs({field.key(), valueOf(field)});
}

}  // namespace Agent
