#pragma once
// A fresh temporary folder for one test, removed afterwards.
#include <stdlib.h>

#include <filesystem>
#include <string>

namespace velmora::test {

class TempDir {
 public:
  TempDir() {
    std::string templ = (std::filesystem::temp_directory_path() / "velmora-tmp-XXXXXX").string();
    if (char* dir = ::mkdtemp(templ.data())) path_ = dir;
  }
  ~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

}  // namespace velmora::test
