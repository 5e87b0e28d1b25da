#include "app/CommandLine.h"

#include <algorithm>

#ifndef VELMORA_VERSION
#error "VELMORA_VERSION comes from the project's version in CMake"
#endif

namespace velmora {

namespace {

// The batch runs, in the order they are checked, and the interactive options.
constexpr CommandLine::Switch kSwitches[] = {
    {"--run-tests", "", "run the verification suite, print one line per check and the count passed, then exit"},
    {"--snapshot", "FOLDER", "render both characters (expressions, lighting presets, cues) as PNG files into FOLDER, then exit"},
    {"--output-selftest", "FOLDER",
     "check that the PipeWire and NDI outputs reach other programs, save the received frame into FOLDER, then exit"},
    {"--export-gltf", "FOLDER", "write both characters as glTF (GLB) files into FOLDER, then exit"},
    {"--record", "FILE", "record the session's tracking datagrams to FILE (pcap) while running"},
    {"--character", "FILE", "show the character read from the glTF file FILE (.glb or .gltf); with --snapshot, render only it"},
    {"--phone", "HOST", "ask the phone at HOST (the stored app: iFacialMocap or VTube Studio) for tracking data"},
    {"--help", "", "print this help, then exit"},
    {"--version", "", "print the version, then exit"},
};

const CommandLine::Switch* findSwitch(const std::string& name) {
  for (const auto& s : kSwitches)
    if (name == s.name) return &s;
  return nullptr;
}

}  // namespace

std::span<const CommandLine::Switch> CommandLine::switches() { return kSwitches; }

CommandLine CommandLine::parse(const std::vector<std::string>& args) {
  CommandLine result;
  // "--character FILE" goes with an interactive or a snapshot run.
  if (auto it = std::find(args.begin(), args.end(), "--character"); it != args.end() && it + 1 != args.end())
    result.characterFile = *(it + 1);
  if (std::find(args.begin(), args.end(), "--run-tests") != args.end()) {
    result.mode = Mode::runTests;
    return result;
  }
  const std::pair<const char*, Mode> folderSwitches[] = {{"--snapshot", Mode::snapshot},
                                                         {"--output-selftest", Mode::outputSelfTest},
                                                         {"--export-gltf", Mode::exportGltf}};
  for (const auto& [name, mode] : folderSwitches) {
    auto it = std::find(args.begin(), args.end(), name);
    if (it != args.end() && it + 1 != args.end()) {
      result.mode = mode;
      result.folder = *(it + 1);
      return result;
    }
  }
  for (const auto& [name, mode] : {std::pair{"--help", Mode::help}, std::pair{"--version", Mode::version}}) {
    if (std::find(args.begin(), args.end(), name) != args.end()) {
      result.mode = mode;
      return result;
    }
  }
  // An option nobody knows is a mistake worth stopping for; a switch's own
  // argument ("--record --odd-name") is not an option.
  for (std::size_t i = 0; i < args.size(); ++i) {
    const Switch* known = findSwitch(args[i]);
    if (known && *known->argument) {
      ++i;
    } else if (!known && args[i].starts_with("--")) {
      result.mode = Mode::usageError;
      result.unknownOption = args[i];
      return result;
    }
  }
  // Interactive from here on; recording is an option of that run only.
  if (auto it = std::find(args.begin(), args.end(), "--record"); it != args.end()) {
    if (it + 1 != args.end()) {
      result.recordFile = *(it + 1);
    } else {
      result.recordWithoutFile = true;
    }
  }
  if (auto it = std::find(args.begin(), args.end(), "--phone"); it != args.end()) {
    if (it + 1 != args.end()) {
      result.phoneHost = *(it + 1);
    } else {
      result.phoneWithoutHost = true;
    }
  }
  return result;
}

std::string CommandLine::versionText() { return std::string("velmora ") + VELMORA_VERSION; }

std::string CommandLine::usageErrorText(const std::string& option) {
  return "velmora: unrecognized option '" + option + "'; try 'velmora --help'";
}

std::string CommandLine::helpText() {
  // Laid out as GNU programs do (two-space indents, a column for the
  // descriptions), which help2man turns into the manual page.
  // Descriptions start in column 28 and wrap at word boundaries before column 80.
  auto row = [](const std::string& left, const std::string& text) {
    const std::string indent(28, ' ');
    std::string out = "  " + left;
    out += left.size() < 26 ? std::string(26 - left.size(), ' ') : "\n" + indent;
    std::size_t column = 28;
    for (std::size_t start = 0; start < text.size();) {
      std::size_t end = text.find(' ', start);
      if (end == std::string::npos) end = text.size();
      const std::string word = text.substr(start, end - start);
      if (column > 28 && column + 1 + word.size() > 79) {
        out += "\n" + indent;
        column = 28;
      } else if (column > 28) {
        out += ' ';
        ++column;
      }
      out += word;
      column += word.size();
      start = end + 1;
    }
    return out + "\n";
  };
  std::string text =
      "Usage: velmora [OPTION]...\n"
      "Turns a performer's face, tracked by a phone on the local network, into a live 3D\n"
      "character for the stage, published to PipeWire (as a camera named \"Velmora\"), to NDI\n"
      "and to a full-screen projector window, and cued remotely over OSC.\n"
      "\n"
      "Without options Velmora opens its dashboard (headless when there is no display) and\n"
      "listens for tracking on UDP ports 11111, 49983 and 39539.\n"
      "\n"
      "Options:\n";
  for (const auto& s : kSwitches)
    text += row(std::string(s.name) + (*s.argument ? std::string(" ") + s.argument : ""), s.description);
  text +=
      "\n"
      "Environment:\n" +
      row("VELMORA_CONFIG_DIR", "folder holding settings.json, instead of the one below") +
      row("VELMORA_TRACKING_PORTS", "comma-separated UDP ports for tracking, instead of 11111,49983,39539") +
      row("NDI_RUNTIME_DIR_V6", "folder holding the NDI 6 runtime (libndi.so.6), searched first") +
      row("NDI_RUNTIME_DIR_V5", "folder holding the NDI 5 runtime (libndi.so.5), searched next") +
      "\n"
      "Files:\n" +
      row("$XDG_CONFIG_HOME/velmora/settings.json",
          "the settings (character, calibration, OSC port, outputs, lighting); "
          "~/.config/velmora/settings.json when XDG_CONFIG_HOME is not set") +
      "\n"
      "Exit status: 0 for every run, including a batch run whose checks fail;\n"
      "2 for an unrecognized option.\n";
  return text;
}

}  // namespace velmora
