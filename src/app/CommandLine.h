#pragma once
// What kind of run the process arguments ask for. Switches are checked in a
// fixed order ("--run-tests", "--snapshot FOLDER", "--output-selftest
// FOLDER", "--export-gltf FOLDER"), exact whole-argument matches; the first that matches wins. A
// folder switch with nothing after it is ignored.
//
// "--character FILE" (interactive and snapshot runs) shows a character read
// from a glTF file; with "--snapshot" only that character is rendered.
//
// "--record FILE" is looked at only after all of them, for an interactive run: it
// records the session's tracking datagrams to FILE. It never changes which
// run starts.

#include <string>
#include <vector>

namespace velmora {

struct CommandLine {
  enum class Mode { interactive, runTests, snapshot, outputSelfTest, exportGltf };

  Mode mode = Mode::interactive;
  std::string folder;  // for the switches that take a folder
  std::string recordFile;          // interactive runs: "--record FILE"; empty: not recording
  bool recordWithoutFile = false;  // "--record" was the last argument
  std::string characterFile;       // "--character FILE"; empty: none

  // args excludes the program name.
  static CommandLine parse(const std::vector<std::string>& args);
};

}  // namespace velmora
