#pragma once
// What kind of run the process arguments ask for. Switches are checked in a
// fixed order ("--run-tests", "--snapshot FOLDER", "--output-selftest
// FOLDER", "--export-gltf FOLDER"), exact whole-argument matches; the first that matches wins. A
// folder switch with nothing after it is ignored.
//
// "--record FILE" and "--phone HOST" are looked at only after all of them,
// for an interactive run: the first records the session's tracking datagrams
// to FILE, the second asks the phone HOST for data. Neither changes which
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
  // Interactive runs: "--phone HOST" asks that phone for data (and keeps it
  // as the phoneAddress setting); empty: the stored setting stands.
  std::string phoneHost;
  bool phoneWithoutHost = false;  // "--phone" was the last argument

  // args excludes the program name.
  static CommandLine parse(const std::vector<std::string>& args);
};

}  // namespace velmora
