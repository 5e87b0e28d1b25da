#pragma once
// What a create() that can fail returns: the object, or nothing and the
// reason it could not be made. Constructors never fail; work that can fail
// (finding a GL display, compiling shaders) goes through a create().

#include <memory>
#include <string>
#include <utility>

namespace velmora {

template <class T>
struct CreateResult {
  std::unique_ptr<T> value;
  std::string reason;  // empty when value is set

  static CreateResult success(std::unique_ptr<T> v) { return {std::move(v), {}}; }
  static CreateResult failure(std::string why) { return {nullptr, std::move(why)}; }
  explicit operator bool() const { return value != nullptr; }
};

}  // namespace velmora
