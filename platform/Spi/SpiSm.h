#pragma once

// Moves queued requests to an SPI device, one message each, in order, a message at a time from the
// event loop, and tells in the status what became of them. Destroying it leaves the rest of the
// queue unsent.

#include "HalSpiAccel/Accel.h"
#include "Orb/LoopTask.h"
#include "Spi/Config.h"
#include "Spi/Status.h"

namespace Spi {

class ORB_EXPORT SpiSm : public Orb::Entity {
 public:
  SpiSm(const Orb::Ptr<HalSpiAccel::Accel>& accel, const Orb::Ptr<Config>& config,
        const Orb::Ptr<Status>& status);
  static Orb::Ptr<SpiSm> SpiSmIs(const Orb::Ptr<HalSpiAccel::Accel>& accel,
                                 const Orb::Ptr<Config>& config, const Orb::Ptr<Status>& status);
  static const Orb::EntityType& entityType();
  const Orb::EntityType& fwkType() const override { return entityType(); }

  const Orb::Ptr<HalSpiAccel::Accel>& accel() const { return accel_; }
  const Orb::Ptr<Config>& config() const { return config_; }
  const Orb::Ptr<Status>& status() const { return status_; }

 private:
  struct ConfigReactor : Config::Notifiee {
    ConfigReactor(SpiSm& s, const Orb::Ptr<Config>& config) : Notifiee(config), sm(s) {
      hasNotificationActiveIs(true);
    }
    void onRequest() override { sm.task_.schedule(); }
    void onRefusedRequest(unsigned id) override;
    SpiSm& sm;
  };

  void serve();

  const Orb::Ptr<HalSpiAccel::Accel> accel_;
  const Orb::Ptr<Config> config_;
  const Orb::Ptr<Status> status_;
  Orb::LoopTask task_;
  int tries_ = 0;  // of the request in front
  ConfigReactor reactor_;
};

}  // namespace Spi
