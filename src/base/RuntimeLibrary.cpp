#include "base/RuntimeLibrary.h"

#include <dlfcn.h>

#include <filesystem>
#include <mutex>
#include <set>

#include "base/Log.h"

namespace velmora {

namespace {

// Logs a place and what was found there the first time that pair is seen,
// so a start retried every few seconds does not repeat itself.
void logOnce(std::string_view component, const std::string& path, const std::string& outcome) {
  static std::mutex mutex;
  static std::set<std::string> seen;
  std::string key = std::string(component) + '\n' + path + '\n' + outcome;
  {
    std::lock_guard lock(mutex);
    if (!seen.insert(std::move(key)).second) return;
  }
  logLine(std::string(component), "Looked for " + path + ": " + outcome);
}

}  // namespace

RuntimeLibrary::~RuntimeLibrary() {
  if (handle_) ::dlclose(handle_);
}

CreateResult<RuntimeLibrary> RuntimeLibrary::open(const std::string& path) {
  ::dlerror();
  void* handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!handle) {
    const char* why = ::dlerror();
    return CreateResult<RuntimeLibrary>::failure(why ? why : "cannot be opened");
  }
  return CreateResult<RuntimeLibrary>::success(std::unique_ptr<RuntimeLibrary>(new RuntimeLibrary(handle, path)));
}

std::unique_ptr<RuntimeLibrary> RuntimeLibrary::loadFirst(std::string_view component,
                                                          const std::vector<std::string>& candidates,
                                                          const std::function<bool(RuntimeLibrary&)>& accept) {
  for (const auto& path : candidates) {
    std::error_code ec;
    if (!std::filesystem::exists(path, ec)) {
      logOnce(component, path, "not there");
      continue;
    }
    auto opened = open(path);
    if (!opened) {
      logOnce(component, path, "cannot be opened (" + opened.reason + ")");
      continue;
    }
    if (accept && !accept(*opened.value)) {
      logOnce(component, path, "not usable");
      continue;
    }
    logOnce(component, path, "loaded");
    return std::move(opened.value);
  }
  return nullptr;
}

void* RuntimeLibrary::symbol(const char* name) const { return handle_ ? ::dlsym(handle_, name) : nullptr; }

}  // namespace velmora
