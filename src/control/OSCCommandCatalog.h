#pragma once
// The one table of every remote command Velmora accepts: both the dispatch
// used by the cue server and the operator's command list. Built once, on
// first use; everything here runs on the main thread.

#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "animation/AnimationCue.h"
#include "control/OSCCommand.h"
#include "stage/CharacterModelType.h"
#include "stage/LightingSettings.h"

namespace velmora {

class OSCCommandCatalog {
 public:
  OSCCommandCatalog() = delete;

  // The 40 show commands, then the 5 of "Replies & Following", in display order.
  static const std::vector<OSCCommand>& all();
  // Group titles in display order.
  static const std::vector<std::string>& groups();
  // Lower-cased address (canonical or alias) -> command in all(). Built by
  // walking all() in order, canonical address first, then each alias; a
  // later insertion for an existing key replaces the earlier one.
  static const std::unordered_map<std::string, const OSCCommand*>& table();
  // Members of all() in the given group, in table order.
  static std::vector<const OSCCommand*> commands(std::string_view group);
  // The command an address runs (exact match after lower-casing; no
  // trimming, no trailing-slash removal, no patterns), or none.
  static const OSCCommand* find(std::string_view address);

  // Runs the message's command on what `context` holds and logs
  // "[OSC] <canonical address> <printed arguments>". False, with nothing
  // changed, for an unknown address. Main thread.
  static bool dispatch(const OSCMessage& message, CommandContext& context);

  // A "Lighting" entry: the message's float, widened to double, clamped up
  // to lo then down to hi, written into one field of a copy of the state's
  // lighting, assigned back and saved. No float argument: nothing happens.
  static OSCCommand lightCommand(std::string address, std::string arguments, std::string summary, double lo,
                                 double hi, std::vector<std::string> aliases,
                                 double LightingSettings::*field);
  // An "Output" entry over one boolean property of the state: no boolean
  // reading of the argument (none, or text) inverts it, otherwise sets it.
  static OSCCommand toggleCommand(std::string address, std::string summary, std::vector<std::string> aliases,
                                  bool (FaceTrackingState::*get)() const,
                                  void (FaceTrackingState::*set)(bool));


  // The lighting-preset command's argument and summary texts, built from
  // LightingSettings::presetNames() so they list every preset.
  static std::string presetArgumentText();
  static std::string presetSummaryText();
};

}  // namespace velmora
