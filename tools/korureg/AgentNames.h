#pragma once

// What there is, for somebody who named what there is not.

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace korureg {

class AgentClient;

// "; did you mean 'gain'?" for a request that the agent has refused with an error of that kind,
// from its lists of names. Nothing when no name is near, or when it does not tell them.
std::string nearestNames(AgentClient& client, const nlohmann::ordered_json& request,
                         const std::string& kind);

}  // namespace korureg
