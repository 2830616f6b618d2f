#include "korureg/web/WebCommand.h"

#include <memory>

namespace korureg {

void addWebCommand(Command app, const RunWeb& run) {
  app.command("web", "Serve a page that shows the chips of the agent, for a browser.",
              "korureg web --write", [&run](Command command) {
                auto arguments = std::make_shared<WebArguments>();
                command.option("--listen", "ADDRESS:PORT", arguments->listen,
                               "where browsers find it (default 127.0.0.1:8017)");
                command.flag("--write", arguments->write, "let the page write fields");
                addAgentOptions(command, arguments->agent);
                command.runs([arguments, run] { return run(*arguments); });
              });
}

}  // namespace korureg
