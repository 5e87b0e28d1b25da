#include "outputs/SyphonPublisher.h"

#include <filesystem>

#include "base/Clock.h"
#include "base/Log.h"
#include "outputs/PipeWireApi.h"
#include "outputs/PipeWireVideoSource.h"

namespace velmora {

SyphonPublisher& SyphonPublisher::shared() {
  static SyphonPublisher instance(candidateFrameworkPaths());
  return instance;
}

SyphonPublisher::SyphonPublisher(std::vector<std::string> candidateFolders, std::function<double()> clock,
                                 bool askSystemLoader)
    : candidateFolders_(std::move(candidateFolders)),
      clock_(clock ? std::move(clock) : std::function<double()>(uptime)),
      askSystemLoader_(askSystemLoader) {}

SyphonPublisher::~SyphonPublisher() { stop(); }

std::vector<std::string> SyphonPublisher::candidateFrameworkPaths() {
  std::vector<std::string> folders;
  std::error_code ec;
  const std::filesystem::path executable = std::filesystem::read_symlink("/proc/self/exe", ec);
  if (!ec) folders.push_back((executable.parent_path().parent_path() / "lib").string());
  for (const char* folder : {"/usr/lib/x86_64-linux-gnu", "/usr/local/lib", "/usr/lib"}) folders.push_back(folder);
  return folders;
}

bool SyphonPublisher::loadFramework() {
  if (api_) return true;
  if (loadAttempted_) return false;
  loadAttempted_ = true;
  std::vector<std::string> paths;
  for (const auto& folder : candidateFolders_)
    paths.push_back((std::filesystem::path(folder) / PipeWireApi::libraryName).string());
  // Systems that keep 64-bit libraries elsewhere (/usr/lib64) are found by soname.
  if (askSystemLoader_) paths.push_back(PipeWireApi::libraryName);
  api_ = PipeWireApi::load(paths);
  if (!api_) {
    std::string folders;
    for (const auto& folder : candidateFolders_) folders += (folders.empty() ? "" : ", ") + folder;
    if (askSystemLoader_) folders += (folders.empty() ? "" : ", ") + std::string("the system loader");
    lastError_ = "PipeWire not found (looked in " + folders + ")";
    return false;
  }
  frameworkPath_ = api_->path();
  return true;
}

bool SyphonPublisher::dropFailedSource() {
  std::shared_ptr<PipeWireVideoSource> lost;
  {
    std::lock_guard lock(sourceMutex_);
    if (!source_ || !source_->hasFailed()) return false;
    lost = std::move(source_);
  }
  logLine("Syphon", "Server lost its PipeWire connection (" + lost->failure() + "); retrying every 2 s");
  lost.reset();  // the render thread may still hold it for one offer; the last owner tears it down
  return true;
}

bool SyphonPublisher::isRunning() const {
  std::lock_guard lock(sourceMutex_);
  return source_ && !source_->hasFailed();
}

bool SyphonPublisher::start() {
  const bool lost = dropFailedSource();
  if (isRunning()) return true;
  if (!loadFramework()) return false;
  // While no daemon answers, try again only every retryInterval seconds
  // (the caller asks every frame). A connection just lost is retried at once.
  const double now = clock_();
  if (!lost && lastFailedStart_ && now - *lastFailedStart_ < retryInterval) return false;
  PipeWireVideoSource::Settings settings;
  settings.nodeName = serverName_;
  auto created = PipeWireVideoSource::create(api_, settings);
  if (!created) {
    lastFailedStart_ = now;
    lastError_ = "PipeWire video source could not be created (is PipeWire running?)";
    return false;
  }
  {
    std::lock_guard lock(sourceMutex_);
    source_ = std::shared_ptr<PipeWireVideoSource>(std::move(created.value));
  }
  lastFailedStart_.reset();
  lastError_.reset();
  logLine("Syphon", "Server '" + serverName_ + "' started using " + frameworkPath_.value_or("?"));
  return true;
}

void SyphonPublisher::stop() {
  // A source whose daemon went away was already reported lost; it is let go
  // without a stop line (there was no running server left to stop).
  if (dropFailedSource()) return;
  std::shared_ptr<PipeWireVideoSource> stopped;
  {
    std::lock_guard lock(sourceMutex_);
    stopped = std::move(source_);
  }
  if (!stopped) return;
  stopped.reset();
  logLine("Syphon", "Server stopped");
}

void SyphonPublisher::publish(const std::shared_ptr<const RenderedFrame>& frame) {
  std::shared_ptr<PipeWireVideoSource> source;
  {
    std::lock_guard lock(sourceMutex_);
    source = source_;
  }
  if (source && source->isStreaming()) source->offer(frame);
}

bool SyphonPublisher::hasClients() const {
  std::lock_guard lock(sourceMutex_);
  return source_ && source_->isStreaming();
}

std::shared_ptr<PipeWireVideoSource> SyphonPublisher::source() const {
  std::lock_guard lock(sourceMutex_);
  return source_;
}

}  // namespace velmora
