#include "export/CharacterExport.h"

#include <system_error>

#include "export/GltfExporter.h"
#include "base/AtomicFile.h"
#include "base/Log.h"
#include "base/MainQueue.h"
#include "base/SerialQueue.h"
#include "characters/CharacterBuild.h"

namespace velmora {

namespace fs = std::filesystem;

std::string CharacterExport::fileName(CharacterModelType model) { return std::string(rawValue(model)) + ".glb"; }

std::string CharacterExport::describe(const Outcome& o) {
  if (o.written)
    return "Wrote " + o.file.string() + " (" + std::to_string(o.bytes) + " bytes, " + std::to_string(o.morphTargets) +
           " morph targets)";
  return "Could not write " + o.file.string() + ": " + o.error;
}

std::vector<CharacterExport::Outcome> CharacterExport::run(const std::string& folder) {
  std::error_code ec;
  fs::path dir = fs::absolute(folder, ec);
  if (ec) dir = folder;
  dir = dir.lexically_normal();
  if (!dir.has_filename() && dir.has_parent_path()) dir = dir.parent_path();  // "out/" -> "out"

  // A folder that cannot be made fails every file the same way; nothing is built then.
  std::string folderError;
  fs::create_directories(dir, ec);
  if (ec) {
    folderError = "cannot create the folder " + dir.string() + ": " + ec.message();
  } else if (!fs::is_directory(dir, ec)) {
    folderError = dir.string() + " is not a folder";
  }

  std::vector<Outcome> outcomes;
  for (const CharacterModelType model : allCases<CharacterModelType>()) {
    Outcome o;
    o.model = model;
    o.file = dir / fileName(model);
    if (folderError.empty()) {
      const CharacterBuild build = createCharacterNode(model);
      o.morphTargets = build.morpher ? static_cast<int>(build.morpher->targetCount()) : 0;
      const std::string bytes = GltfExporter::glb(GltfExporter::document(*build.node));
      o.error = bytes.empty() ? "the glTF writer produced nothing" : AtomicFile::write(o.file, bytes);
      o.written = o.error.empty();
      if (o.written) o.bytes = bytes.size();
    } else {
      o.error = folderError;
    }
    logLine("export", describe(o));
    outcomes.push_back(std::move(o));
  }
  return outcomes;
}

void CharacterExport::runInBackground(const std::string& folder, std::function<void(std::vector<Outcome>)> done) {
  // Started on first use; at exit its destructor lets a running export finish.
  // The main queue is made first, so it outlives this queue's last post.
  MainQueue& mainQueue = MainQueue::shared();
  static SerialQueue queue("com.velmora.export");
  queue.post([&mainQueue, folder, done = std::move(done)]() mutable {
    auto outcomes = run(folder);
    mainQueue.post([done = std::move(done), outcomes = std::move(outcomes)]() mutable {
      if (done) done(std::move(outcomes));
    });
  });
}

}  // namespace velmora
