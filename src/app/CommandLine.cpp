#include "app/CommandLine.h"

#include <algorithm>

namespace velmora {

CommandLine CommandLine::parse(const std::vector<std::string>& args) {
  CommandLine result;
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
  if (auto it = std::find(args.begin(), args.end(), "--phone"); it != args.end()) {
    if (it + 1 != args.end()) {
      result.phoneHost = *(it + 1);
    } else {
      result.phoneWithoutHost = true;
    }
  }
  return result;
}

}  // namespace velmora
