#include "ui/OSCCommandsText.h"

#include "control/OSCCommandCatalog.h"

namespace velmora {

std::string OSCCommandsText::build(int cuePort) {
  std::string text = "Velmora OSC commands (UDP port " + std::to_string(cuePort) +
                     "; addresses match in any letter case)\n";
  for (const std::string& group : OSCCommandCatalog::groups()) {
    text += "\n" + group + "\n";
    text += std::string(group.size(), '=') + "\n";
    for (const OSCCommand* command : OSCCommandCatalog::commands(group)) {
      text += command->address + "\n";
      if (!command->aliases.empty()) {
        text += "    aliases: ";
        for (std::size_t i = 0; i < command->aliases.size(); ++i) {
          if (i) text += ", ";
          text += command->aliases[i];
        }
        text += "\n";
      }
      text += "    argument: " + command->arguments + "\n";
      text += "    " + command->summary + "\n";
    }
  }
  return text;
}

}  // namespace velmora
