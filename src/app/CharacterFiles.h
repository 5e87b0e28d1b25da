#pragma once
// The characters read from glTF files that the operator can choose beside
// the two built-in ones: those found in the characters folder
// ($XDG_DATA_HOME/velmora/characters/, else ~/.local/share/velmora/characters/)
// and those given ("--character FILE", the dashboard's "Open...", the OSC
// command "/velmora/character/file").
//
// Files are read on a worker thread ("com.velmora.characters"); the frame
// loop never waits for one. A file that reads is handed to the scene and
// named in state.characterFile (persisted); one that does not keeps the
// character on show, and its one line goes to the log and to
// state.characterStatus.
//
// Threads: the main thread, except the reading itself.

#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "base/SerialQueue.h"
#include "ui/CharacterChoices.h"

namespace velmora {

class FaceTrackingState;
class MainQueue;
class MaskSceneManager;

class CharacterFiles : public CharacterChoices {
 public:
  CharacterFiles(FaceTrackingState& state, MaskSceneManager& scene, MainQueue& mainQueue);
  ~CharacterFiles();
  CharacterFiles(const CharacterFiles&) = delete;
  CharacterFiles& operator=(const CharacterFiles&) = delete;

  // The characters folder for this user (it may not exist).
  static std::filesystem::path folder();

  // Adds the folder's .glb and .gltf files, by name, and reads each once in
  // the background for its figures.
  void scanFolder();
  // Adds a file (once) and returns its place in entries().
  std::size_t add(const std::string& path);
  // A name from the list (any letter case) or a path: reads it and shows it
  // once read.
  void open(const std::string& nameOrPath) override;

  const std::vector<Entry>& entries() const override { return entries_; }

 private:
  void read(std::size_t index, bool show);

  FaceTrackingState& state_;
  MaskSceneManager& scene_;
  MainQueue& mainQueue_;
  std::vector<Entry> entries_;
  std::shared_ptr<int> alive_ = std::make_shared<int>(0);  // replies after destruction are dropped
  SerialQueue worker_{"com.velmora.characters"};
};

}  // namespace velmora
