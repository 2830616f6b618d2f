#include "Spi/SpiSm.h"

#include <fmt/format.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "Orb/EntityType.h"
#include "Orb/Trace.h"

namespace Spi {

namespace {

Orb::TraceHandle trace("SpiSm");

// A device that is busy is tried again after a pause, so many times.
constexpr std::chrono::milliseconds pauseBetweenTries{1};
constexpr int mostTries = 100;

}  // namespace

const Orb::EntityType& SpiSm::entityType() {
  static const auto type = Orb::EntityTypeOf<SpiSm>("Spi::SpiSm")
                               .attribute("accel", &SpiSm::accel)
                               .attribute("config", &SpiSm::config)
                               .attribute("status", &SpiSm::status);
  return type;
}

Orb::Ptr<SpiSm> SpiSm::SpiSmIs(const Orb::Ptr<HalSpiAccel::Accel>& accel,
                               const Orb::Ptr<Config>& config, const Orb::Ptr<Status>& status) {
  return Orb::make<SpiSm>(accel, config, status);
}

SpiSm::SpiSm(const Orb::Ptr<HalSpiAccel::Accel>& accel, const Orb::Ptr<Config>& config,
             const Orb::Ptr<Status>& status)
    : accel_(accel),
      config_(config),
      status_(status),
      task_(Orb::eventLoop(), [this] { serve(); }),
      reactor_(*this, config) {
  if (config->requests() != 0) task_.schedule();
}

void SpiSm::ConfigReactor::onRefusedRequest(unsigned id) {
  ORB_TRACE(trace, 0, "{}: request {} is refused, the queue is full", sm.config_->name(), id);
  sm.status_->errorIs(id, "the queue is full", ENOBUFS);
}

// Telling the outcome comes last: whoever is told may drop this object, or throw.
void SpiSm::serve() {
  if (config_->requests() == 0) return;
  const unsigned id = config_->requestFront().id();
  const int error = accel_->message(config_->requestFront().cmdData());
  if (error == EAGAIN && ++tries_ < mostTries) {
    task_.scheduleAfter(pauseBetweenTries);
    return;
  }
  tries_ = 0;
  config_->requestDeq();
  if (config_->requests() != 0) task_.schedule();
  const Orb::Ptr<Status> status = status_;
  if (error == 0) {
    status->doneIs(id);
    return;
  }
  const Orb::String reason = fmt::format("{} ({})", std::strerror(error), error);
  ORB_TRACE(trace, 0, "{}: request {} failed: {}", config_->name(), id, reason);
  status->errorIs(id, reason, error);
}

}  // namespace Spi
