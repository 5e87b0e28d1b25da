#pragma once
// Export: "Export characters..." asks for a folder in a small dialog, then
// writes both characters there as glTF binary files (CharacterExport) in the
// background, so the dashboard keeps running; the outcome of each file is
// shown when it is done. Main thread.

#include <memory>
#include <string>
#include <vector>

#include "export/CharacterExport.h"

namespace velmora {

class ExportPanel {
 public:
  // The folder offered at first: $HOME/velmora-export (or ./velmora-export).
  ExportPanel();
  void draw();

  // Starts the export into `folder` unless one is running; false when it did not start.
  bool start(const std::string& folder);
  bool running() const { return progress_->running; }
  // One line per file of the last export (CharacterExport::describe).
  const std::vector<std::string>& results() const { return progress_->results; }

 private:
  // Shared with the export's completion, which may arrive after the panel is gone.
  struct Progress {
    bool running = false;
    std::vector<std::string> results;
  };
  char folder_[512] = {};
  std::shared_ptr<Progress> progress_ = std::make_shared<Progress>();
};

}  // namespace velmora
