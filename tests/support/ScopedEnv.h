#pragma once
// Sets (or, with a null value, unsets) one environment variable for the life
// of the object, then puts back what was there. Main thread only: the C
// environment is not safe to change while other threads read it.
#include <stdlib.h>

#include <optional>
#include <string>

namespace velmora::test {

class ScopedEnv {
 public:
  ScopedEnv(std::string name, const char* value) : name_(std::move(name)) {
    if (const char* old = ::getenv(name_.c_str())) saved_ = old;
    set(value);
  }
  ~ScopedEnv() { set(saved_ ? saved_->c_str() : nullptr); }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

  void set(const char* value) { value ? ::setenv(name_.c_str(), value, 1) : ::unsetenv(name_.c_str()); }

 private:
  std::string name_;
  std::optional<std::string> saved_;
};

}  // namespace velmora::test
