#include "base/RuntimeLibrary.h"

#include <dlfcn.h>
#include <link.h>

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
  // A bare name was found by the system loader: keep the file it chose.
  std::string opened = path;
  link_map* map = nullptr;
  if (!isSystemLoaderName(path) || ::dlinfo(handle, RTLD_DI_LINKMAP, &map) != 0) map = nullptr;
  if (map && map->l_name && *map->l_name) opened = map->l_name;
  return CreateResult<RuntimeLibrary>::success(
      std::unique_ptr<RuntimeLibrary>(new RuntimeLibrary(handle, std::move(opened))));
}

std::unique_ptr<RuntimeLibrary> RuntimeLibrary::loadFirst(std::string_view component,
                                                          const std::vector<std::string>& candidates,
                                                          const std::function<bool(RuntimeLibrary&)>& accept) {
  for (const auto& path : candidates) {
    const bool bySystemLoader = isSystemLoaderName(path);
    const std::string place = bySystemLoader ? path + " through the system loader" : path;
    std::error_code ec;
    if (!bySystemLoader && !std::filesystem::exists(path, ec)) {
      logOnce(component, place, "not there");
      continue;
    }
    auto opened = open(path);
    if (!opened) {
      logOnce(component, place, bySystemLoader ? "not found (" + opened.reason + ")"
                                                : "cannot be opened (" + opened.reason + ")");
      continue;
    }
    if (accept && !accept(*opened.value)) {
      logOnce(component, place, bySystemLoader ? "not usable (" + opened.value->path() + ")" : "not usable");
      continue;
    }
    logOnce(component, place, bySystemLoader ? "loaded (" + opened.value->path() + ")" : "loaded");
    return std::move(opened.value);
  }
  return nullptr;
}

bool RuntimeLibrary::isSystemLoaderName(const std::string& path) {
  return !path.empty() && path.find('/') == std::string::npos;
}

void* RuntimeLibrary::symbol(const char* name) const { return handle_ ? ::dlsym(handle_, name) : nullptr; }

}  // namespace velmora
