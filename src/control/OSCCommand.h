#pragma once
// One remote command of the catalogue: its canonical address, the further
// addresses that run the same action, the operator-facing texts and the
// action itself. Plain value; the action runs on the main thread only.

#include <functional>
#include <string>
#include <vector>

#include "control/CommandContext.h"
#include "osc/OSCMessage.h"

namespace velmora {

struct OSCCommand {
  using Action = std::function<void(const OSCMessage& message, CommandContext& context)>;

  std::string group;                 // one of OSCCommandCatalog::groups()
  std::string address;               // canonical, under "/velmora/"
  std::string arguments;             // what the argument should be, for the operator
  std::string summary;               // one line, for the operator
  std::vector<std::string> aliases;  // lower-case; may repeat, duplicates are harmless
  Action action;

  // Identity in lists: the canonical address.
  const std::string& id() const { return address; }
};

}  // namespace velmora
