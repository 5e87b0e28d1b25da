#include "app/CommandLine.h"

#include <algorithm>

namespace velmora {

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
  // Interactive from here on; recording is an option of that run only.
  if (auto it = std::find(args.begin(), args.end(), "--record"); it != args.end()) {
    if (it + 1 != args.end()) {
      result.recordFile = *(it + 1);
    } else {
      result.recordWithoutFile = true;
    }
  }
  return result;
}

}  // namespace velmora
