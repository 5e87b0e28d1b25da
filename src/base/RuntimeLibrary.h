#pragma once
// A shared library opened at run time (dlopen), never linked: the optional
// video runtimes (PipeWire, NDI) are found in fixed lists of places when an
// output is switched on, so Velmora starts and runs without them.
//
// Every place looked at is logged once per process under the caller's
// component ("[NDI] Looked for libndi.so.6 in /usr/lib: not there"), so an
// operator can see where a runtime was expected without a line per retry.
//
// Threads: any; the handle is closed when the object goes away.

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/CreateResult.h"

namespace velmora {

class RuntimeLibrary {
 public:
  ~RuntimeLibrary();
  RuntimeLibrary(const RuntimeLibrary&) = delete;
  RuntimeLibrary& operator=(const RuntimeLibrary&) = delete;

  // Opens the file with immediate binding and local symbols
  // (RTLD_NOW | RTLD_LOCAL); the reason is the loader's own message. A bare
  // file name without a folder ("libpipewire-0.3.so.0") asks the system
  // loader (its cache, LD_LIBRARY_PATH, /usr/lib64...); path() is then the
  // file it chose.
  static CreateResult<RuntimeLibrary> open(const std::string& path);
  static bool isSystemLoaderName(const std::string& path);

  // Tries each candidate path in order: a path where no file exists is
  // skipped; the first that opens and that `accept` takes (it may look up
  // symbols and initialise the library; a refusal closes it) is returned.
  // A bare file name is asked of the system loader, logged as
  // "Looked for NAME through the system loader: loaded (/its/path)".
  // Null when none worked.
  static std::unique_ptr<RuntimeLibrary> loadFirst(std::string_view component,
                                                   const std::vector<std::string>& candidates,
                                                   const std::function<bool(RuntimeLibrary&)>& accept = {});

  // The address of a symbol, or null when the library lacks it.
  void* symbol(const char* name) const;
  template <class Function>
  Function function(const char* name) const {
    return reinterpret_cast<Function>(symbol(name));
  }
  const std::string& path() const { return path_; }

 private:
  RuntimeLibrary(void* handle, std::string path) : handle_(handle), path_(std::move(path)) {}
  void* handle_ = nullptr;
  std::string path_;
};

}  // namespace velmora
