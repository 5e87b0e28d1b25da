#include "outputs/OutputSelfTest.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <filesystem>

#include "base/Log.h"
#include "outputs/NDIPublisher.h"
#include "outputs/PipeWireApi.h"
#include "outputs/PipeWireProbe.h"
#include "outputs/SyphonPublisher.h"
#include "render/PngWriter.h"
#include "scene/MaskSceneManager.h"
#include "tracking/FaceTrackingState.h"

namespace velmora {

namespace {

void say(const std::string& text) { logLine("selftest", text); }

// NDI writes the machine part in its own case (upper on Linux): compared
// without case, so only this machine's source of our name counts, never a
// second Velmora elsewhere on the show network.
bool sameSourceName(const std::string& a, const std::string& b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](unsigned char x, unsigned char y) {
           return std::tolower(x) == std::tolower(y);
         });
}

}  // namespace

void OutputSelfTest::renderOneFrame(bool waitUntilRendered) {
  const int before = *delivered_;
  c_.scene.updateTracking(c_.state);
  c_.scene.renderOffscreenFrame();
  // Software GL takes about half a second per frame: waiting for it keeps a
  // round of the frame wait one real frame long, as it is on a GPU.
  if (waitUntilRendered && !rendererSilent_) {
    for (int i = 0; i < 100 && *delivered_ == before; ++i) c_.runLoop(0.05);
    // A renderer that finishes nothing in 5 s (no GL here) will not finish
    // the next frame either: later rounds stop waiting for it, so the frame
    // wait ends after its 40 short rounds instead of 40 long ones.
    if (*delivered_ == before) rendererSilent_ = true;
  }
}

void OutputSelfTest::run(const std::string& outputDirectory) {
  std::error_code ec;
  std::filesystem::create_directories(outputDirectory, ec);
  if (ec) say("Cannot create the folder " + outputDirectory + ": " + ec.message());
  // The switches are the operator's (NDI's persists): put back as found at the end.
  const bool syphonWasActive = c_.state.isSyphonActive();
  const bool ndiWasActive = c_.state.isNDIActive();
  c_.state.setIsSyphonActive(true);
  c_.state.setIsNDIActive(true);
  c_.state.setBlendshapes({{"jawOpen", 0.4f}});
  // The test's own frames are rendered whether or not a consumer is linked
  // yet: this consumer wants every frame (and counts it).
  const int token = c_.scene.addFrameConsumer(
      [delivered = delivered_](const std::shared_ptr<const RenderedFrame>&) { ++*delivered; });
  for (int i = 0; i < 30; ++i) {
    renderOneFrame();
    c_.runLoop(0.05);
  }
  say(c_.state.syphonStatus());
  say(c_.state.ndiStatus());
  say("Syphon framework: " + c_.syphon.frameworkPath().value_or(c_.syphon.lastError().value_or("?")));
  say("NDI runtime: " + c_.ndi.runtimePath().value_or(c_.ndi.lastError().value_or("?")));
  testSyphonClient(outputDirectory);
  testNDIDiscovery();
  c_.scene.removeFrameConsumer(token);
  c_.syphon.stop();
  c_.ndi.stop();
  c_.state.setIsSyphonActive(syphonWasActive);
  c_.state.setIsNDIActive(ndiWasActive);
}

void OutputSelfTest::testSyphonClient(const std::string& outputDirectory) {
  // The "server directory" is the PipeWire registry, read through a client
  // of the library the publisher loaded.
  if (!c_.syphon.api() || !c_.syphon.api()->hasClientEntryPoints()) {
    say("Syphon: server directory class not available");
    say("RESULT Syphon: our server is NOT visible to other apps");
    return;
  }
  // Without a daemon there is no directory to read: it sees nothing.
  auto probe = PipeWireProbe::create(c_.syphon.api());
  for (int i = 0; i < 20; ++i) c_.runLoop(0.05);  // announcements arrive
  std::vector<PipeWireProbe::SourceNode> servers;
  if (probe) servers = probe.value->videoSources();
  std::string names;
  for (const auto& s : servers) names += (names.empty() ? "" : ", ") + s.name + " (" + s.application + ")";
  say("Syphon directory sees " + std::to_string(servers.size()) + " server(s): " + names);
  const PipeWireProbe::SourceNode* ours = nullptr;
  for (const auto& s : servers)
    if (s.name == c_.syphon.serverName() && s.processId == static_cast<int>(::getpid())) ours = &s;
  if (!ours) {
    say("RESULT Syphon: our server is NOT visible to other apps");
    return;
  }
  std::string error;
  if (!probe.value->connectClient(*ours, MaskSceneManager::outputWidth, MaskSceneManager::outputHeight, &error)) {
    say("RESULT Syphon: visible, but a client could not connect");
    return;
  }
  std::optional<PipeWireProbe::Frame> frame;
  for (int i = 0; i < 40 && !frame; ++i) {
    renderOneFrame(true);
    c_.runLoop(0.05);
    frame = probe.value->receivedFrame();
  }
  if (!frame) {
    say("RESULT Syphon: visible, client connected but no frame arrived");
    return;
  }
  say("Syphon client received a " + std::to_string(frame->width) + "x" + std::to_string(frame->height) +
      " frame, hasClients=" + (c_.syphon.hasClients() ? "true" : "false"));
  RenderedFrame received;
  received.width = frame->width;
  received.height = frame->height;
  received.pixels = std::move(frame->bgra);
  const std::string path = (std::filesystem::path(outputDirectory) / "syphon_received.png").string();
  if (!writePNG(received, path, &error)) {
    say("Cannot write " + path + ": " + error);
    say("RESULT Syphon: a frame arrived but could not be saved to syphon_received.png");
    return;
  }
  say("RESULT Syphon: OK (frame saved to syphon_received.png)");
}

void OutputSelfTest::testNDIDiscovery() {
  if (!c_.ndi.isRuntimeLoaded()) {
    say("RESULT NDI: runtime not loaded, nothing to check");
    return;
  }
  renderOneFrame();
  const auto sources = c_.ndi.findSources(0.5);
  if (!sources) {
    say("RESULT NDI: could not start discovery");
    return;
  }
  std::string names;
  bool found = false;
  for (const auto& name : *sources) {
    names += (names.empty() ? "" : ", ") + name;
    found = found || sameSourceName(name, c_.ndi.networkSourceName());
  }
  say("NDI discovery sees: " + names);
  say(std::string("RESULT NDI: ") + (found ? "OK, source is discoverable" : "source NOT discovered"));
}

bool OutputSelfTest::writePNG(const RenderedFrame& frame, const std::string& path, std::string* error) {
  return PngWriter::write(path, frame, error);
}

}  // namespace velmora
