#pragma once
// Whole-file writes that never leave a half-written file under the final
// name: the bytes go to a temporary file beside it ("<name>.tmp-<pid>"),
// are flushed to the disk, and only then renamed over the final name. On any
// failure (folder missing or read-only, disk full, file too large) the
// temporary file is removed and whatever was under the final name before is
// left as it was. Any thread; two writers of the same path in one process
// must not overlap.

#include <filesystem>
#include <string>
#include <string_view>

namespace velmora {

class AtomicFile {
 public:
  // Empty on success, otherwise the reason as the system words it
  // ("No space left on device"). `mode`: the new file's permission bits
  // (before the umask).
  static std::string write(const std::filesystem::path& path, std::string_view bytes, unsigned mode = 0644);
};

}  // namespace velmora
