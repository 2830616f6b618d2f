#pragma once

// Counts the fields of a chip that are to hold something else than was written, as they change, so
// that nobody has to look at all of them. Used on the framework's thread.

#include <boost/unordered/unordered_flat_set.hpp>
#include <cstdint>

#include "KoruRegFile/ShoalTypes.h"

namespace Board {

class FieldsDiffering {
 public:
  using Config = Orb::Ptr<KoruRegFile::ShadowFieldsConfig>;
  using Status = Orb::Ptr<KoruRegFile::ShadowFieldsStatus>;

  // Looks at all of them once.
  FieldsDiffering(const Config& config, const Status& status);
  FieldsDiffering(const FieldsDiffering&) = delete;
  FieldsDiffering& operator=(const FieldsDiffering&) = delete;

  size_t count() const { return differing_.size(); }
  // Other processes that read either table.
  size_t readers() const { return config_->readerCount() + status_->readerCount(); }

 private:
  template <class Table>
  class Watch : public Table::Notifiee {
   public:
    Watch(const Orb::Ptr<Table>& table, FieldsDiffering& owner)
        : Table::Notifiee(table), owner_(owner) {
      this->hasNotificationActiveIs(true);
    }
    void onField(const KoruRegFile::ShadowFieldKey& key) override { owner_.look(key); }

   private:
    FieldsDiffering& owner_;
  };

  void look(const KoruRegFile::ShadowFieldKey& key);

  const Config config_;
  const Status status_;
  boost::unordered_flat_set<uint64_t> differing_;
  Watch<KoruRegFile::ShadowFieldsConfig> configWatch_;
  Watch<KoruRegFile::ShadowFieldsStatus> statusWatch_;
};

}  // namespace Board
