#include "KoruRegFile/AwaitAccess.h"

#include <chrono>
#include <memory>
#include <optional>

#include "Orb/EventLoop.h"

namespace KoruRegFile {

namespace {

// The callback shares the place of the outcome: when nobody else holds that any more, it has been
// called, or dropped.
template <class Begin>
AccessOutcome await(Begin begin) {
  const auto outcome = std::make_shared<std::optional<AccessOutcome>>();
  begin([outcome](const AccessOutcome& ended) { *outcome = ended; });
  while (!*outcome && outcome.use_count() > 1) Orb::eventLoop().runFor(std::chrono::seconds(1));
  if (*outcome) return **outcome;
  return {.failure = TransportFailure{.reason = "the transport went before the access ended"}};
}

}  // namespace

AccessOutcome awaitRead(TransportMethod& transport, const Orb::String& regName) {
  return await([&](AccessCallback ended) { transport.regReadOutcome(regName, std::move(ended)); });
}

AccessOutcome awaitWrite(TransportMethod& transport, const Orb::String& regName, uint32_t value) {
  return await(
      [&](AccessCallback ended) { transport.regWriteOutcome(regName, value, std::move(ended)); });
}

}  // namespace KoruRegFile
