#pragma once
// What kind of run the process arguments ask for. Switches are checked in a
// fixed order ("--run-tests", "--snapshot FOLDER", "--output-selftest
// FOLDER", "--export-gltf FOLDER"), exact whole-argument matches; the first that matches wins. A
// folder switch with nothing after it is ignored.
//
// After them: "--help" and "--version" print and end the run; any other
// argument starting with "--" that is not a switch of the table below is a
// usage error (exit status 2). Options of an interactive run ("--record
// FILE", "--phone HOST") are looked at last and never change which run starts.
//
// Every switch has one row in switches(): what it is called, what follows
// it and what it does. The help text and the manual page are built from it.
//
// "--character FILE" (interactive and snapshot runs) shows a character read
// from a glTF file; with "--snapshot" only that character is rendered.

#include <span>
#include <string>
#include <vector>

namespace velmora {

struct CommandLine {
  enum class Mode { interactive, runTests, snapshot, outputSelfTest, exportGltf, help, version, usageError };

  // One switch as --help lists it; `argument` is empty for a switch that takes none.
  struct Switch {
    const char* name;
    const char* argument;
    const char* description;
  };
  static std::span<const Switch> switches();

  Mode mode = Mode::interactive;
  std::string folder;  // for the switches that take a folder
  std::string recordFile;          // interactive runs: "--record FILE"; empty: not recording
  bool recordWithoutFile = false;  // "--record" was the last argument
  // Interactive runs: "--phone HOST" asks that phone for data (and keeps it
  // as the phoneAddress setting); empty: the stored setting stands.
  std::string phoneHost;
  bool phoneWithoutHost = false;  // "--phone" was the last argument
  std::string unknownOption;       // usageError: the first argument no switch matched
  std::string characterFile;       // "--character FILE"; empty: none

  // args excludes the program name.
  static CommandLine parse(const std::vector<std::string>& args);

  // "velmora 0.1.0"
  static std::string versionText();
  // Usage, every switch, the environment variables and where settings live.
  static std::string helpText();
  // "velmora: unrecognized option '--x'" and a hint to --help, one line.
  static std::string usageErrorText(const std::string& option);
};

}  // namespace velmora
