#pragma once
// Process start-up and shutdown: chooses the run from the command line,
// starts the listeners and the frame loop on the main thread, and shuts
// down cleanly on SIGINT/SIGTERM.

#include <string>
#include <vector>

namespace velmora {

struct CommandLine;

class Application {
 public:
  // Returns the process exit status: 0 for every batch run, whatever its outcome,
  // and for --help and --version; 2 for an unrecognized option.
  static int main(const std::vector<std::string>& args);

 private:
  static int runInteractive(const CommandLine& commandLine);
  // "--output-selftest FOLDER": both outputs checked from outside.
  static void runOutputSelfTest(const std::string& folder);
};

}  // namespace velmora
