// korureg-web: what "korureg web" becomes, with the same command line.

#include <poll.h>
#include <signal.h>

#include <algorithm>

#include "korureg/Output.h"
#include "korureg/Tool.h"
#include "korureg/web/Address.h"
#include "korureg/web/Gate.h"
#include "korureg/web/HttpServer.h"
#include "korureg/web/Site.h"

namespace korureg {

namespace {

using web::Clock;

void announce(const web::Address& address, const web::Gate& gate) {
  printLine("http://" + address.text() + "/?token=" + gate.token());
  if (!outputIsComplete()) throw Failure("cannot write to standard output");
  if (!address.isLoopback()) {
    printError("what the page shows and writes goes over the network as it is, the token as well");
  }
}

void await(const web::HttpServer& server, const web::AgentLink& link, Clock::time_point due) {
  const short wanted = link.hasToSend() ? POLLIN | POLLOUT : POLLIN;
  pollfd both[] = {{server.descriptor(), POLLIN, 0}, {link.descriptor(), wanted, 0}};
  int limit = -1;
  if (due != web::never) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(due - Clock::now()).count();
    limit = static_cast<int>(std::clamp<int64_t>(left, 0, 60'000));
  }
  ::poll(both, 2, limit);
}

// Until a signal ends it.
int serve(const WebArguments& arguments) {
  web::Address address(arguments.listen);
  web::Site site(arguments);
  Orb::Descriptor listener = address.listen();
  const web::Gate gate(address);
  web::HttpServer server(std::move(listener), gate, site.offers());
  ::signal(SIGPIPE, SIG_IGN);
  announce(address, gate);
  while (true) {
    const auto now = Clock::now();
    site.link().serve(now);
    server.serve(now);
    site.serve(now);  // which hears of those that have gone
    const auto due = std::min({site.next(), site.link().next(), server.next(Clock::now())});
    await(server, site.link(), due);
  }
}

}  // namespace

}  // namespace korureg

int main(int argc, char** argv) {
  return korureg::runTool(argc, argv, {.top = nullptr, .web = korureg::serve});
}
