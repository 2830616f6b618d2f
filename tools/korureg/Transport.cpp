#include "korureg/Transport.h"

#include <fmt/format.h>

#include <chrono>
#include <stdexcept>
#include <string>
#include <tuple>

#include "KoruRegFile/I2cTransportRelayImpl.h"
#include "KoruRegFile/SpiTransportMethodImpl.h"
#include "Orb/EventLoop.h"

namespace korureg {

using namespace KoruRegFile;

namespace {

template <class Condition>
void serveUntil(Condition condition) {
  while (!condition()) Orb::eventLoop().runFor(std::chrono::seconds(1));
}

// The agent's own words on what went wrong.
[[noreturn]] void throwLateFailure(const BaseTransportMethodImpl& transport) {
  const auto* relayed = dynamic_cast<const I2cTransportRelayImpl*>(&transport);
  throw std::runtime_error(relayed ? std::string(relayed->relay()->lastFailure()) : "failed");
}

}  // namespace

std::optional<System::Transport> chosenTransport(const Options& options) {
  using System::TransportKind;
  const std::string none;
  const std::tuple<TransportKind, bool, const std::string&> given[] = {
      {TransportKind::mock, options.mock, none},
      {TransportKind::i2c, !options.i2c.empty(), options.i2c},
      {TransportKind::relay, !options.relay.empty(), options.relay},
      {TransportKind::pci, !options.pci.empty(), options.pci},
      {TransportKind::spi, !options.spi.empty(), options.spi}};
  std::optional<System::Transport> chosen;
  for (const auto& [kind, isGiven, place] : given) {
    if (!isGiven) continue;
    System::Transport transport;
    transport.kind = kind;
    if (chosen) {
      throw UsageError(fmt::format("the chip is reached one way only: --{} or --{}", chosen->name(),
                                   transport.name()));
    }
    try {
      chosen = System::Transport::at(kind, place);
    } catch (const std::invalid_argument& e) {
      throw UsageError(fmt::format("--{}: {}", transport.name(), e.what()));
    }
  }
  return chosen;
}

uint32_t readThrough(BaseTransportMethodImpl& transport, const char* regName) {
  std::optional<RegCallbackStatus> ended;
  uint32_t value = 0;
  transport.regReadWithCallback(regName, [&](auto, RegCallbackStatus status, uint32_t read) {
    ended = status;
    value = read;
  });
  serveUntil([&] { return ended.has_value(); });
  if (*ended != RegCallbackStatus::done) throwLateFailure(transport);
  return value;
}

void writeThrough(BaseTransportMethodImpl& transport, const char* regName, uint32_t value) {
  std::optional<RegCallbackStatus> ended;
  transport.regWriteWithCallback(regName, value,
                                 [&](auto, RegCallbackStatus status) { ended = status; });
  serveUntil([&] { return ended.has_value(); });
  if (*ended != RegCallbackStatus::done) throwLateFailure(transport);
  const auto* spi = dynamic_cast<const SpiTransportMethodImpl*>(&transport);
  if (!spi) return;
  // Queued so far; only the status tells whether it has reached the device.
  const uint64_t failed = spi->status()->failed();
  serveUntil([&] { return spi->config()->requests() == 0; });
  if (spi->status()->failed() == failed) return;
  std::string reason;
  for (const auto& [id, text] : spi->status()->error()) reason = std::string(text);
  throw std::runtime_error(reason);
}

}  // namespace korureg
