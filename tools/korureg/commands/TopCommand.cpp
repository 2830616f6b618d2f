#include "korureg/top/TopCommand.h"

#include <memory>

#include "korureg/ShadowDiff.h"

namespace korureg {

void addTopCommand(Command app, const RunTop& run) {
  app.command("top", "Watch the chips of the agent on the whole screen, and edit their fields.",
              "korureg top power0", [&run](Command command) {
                auto arguments = std::make_shared<TopArguments>();
                command.operand("CHIP", arguments->chip, "the one to begin with",
                                Command::Operand::optional);
                command.flag("--tables", arguments->tables,
                             "look at the shadow tables alone, without an agent");
                addConfigOption(command, arguments->config);
                addAgentOptions(command, arguments->agent);
                command.runs([arguments, run] { return run(*arguments); });
              });
}

}  // namespace korureg
