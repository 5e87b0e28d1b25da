#pragma once
// What kind of run the process arguments ask for. Switches are checked in a
// fixed order ("--run-tests", "--snapshot FOLDER", "--output-selftest
// FOLDER", "--export-gltf FOLDER"), exact whole-argument matches; the first that matches wins. A
// folder switch with nothing after it is ignored.

#include <string>
#include <vector>

namespace velmora {

struct CommandLine {
  enum class Mode { interactive, runTests, snapshot, outputSelfTest, exportGltf };

  Mode mode = Mode::interactive;
  std::string folder;  // for the switches that take a folder

  // args excludes the program name.
  static CommandLine parse(const std::vector<std::string>& args);
};

}  // namespace velmora
