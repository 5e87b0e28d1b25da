#pragma once
// One linked GLSL program. create() compiles and links; on failure it
// returns the stage and the driver's log as the reason, and nothing is left
// allocated. Uniform locations are looked up once and cached.
//
// Threads: whichever thread has its context current (the render thread;
// the projector window's program on the main thread).

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "base/CreateResult.h"
#include "base/Math.h"

namespace velmora {

class ShaderProgram {
 public:
  struct Sources {
    std::string name;      // for messages: "lit", "shadow", ...
    std::string vertex;    // full GLSL text, #version line included
    std::string fragment;  // may be empty (depth-only and transform feedback programs)
    std::vector<std::string> feedbackVaryings;  // interleaved transform feedback outputs
  };

  static CreateResult<ShaderProgram> create(const Sources& sources);
  ~ShaderProgram();
  ShaderProgram(const ShaderProgram&) = delete;
  ShaderProgram& operator=(const ShaderProgram&) = delete;

  unsigned id() const { return program_; }
  void use() const;
  // -1 when the uniform does not exist or was optimised away (setting it is then a no-op).
  int location(const char* name);

  void set(const char* name, int v);
  void set(const char* name, float v);
  void set(const char* name, const float2& v);
  void set(const char* name, const float3& v);
  void set(const char* name, const float4& v);
  void set(const char* name, const float4x4& v);
  void setMatrix3(const char* name, const float4x4& upperLeft);
  void setArray(const char* name, const int* v, int count);
  void setArray(const char* name, const float* v, int count);
  void setArray(const char* name, const float2* v, int count);
  void setArray(const char* name, const float3* v, int count);

 private:
  explicit ShaderProgram(unsigned program) : program_(program) {}
  unsigned program_;
  // Found by the name's view: a frame's dozens of set() calls build no string.
  struct NameHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view name) const { return std::hash<std::string_view>{}(name); }
  };
  std::unordered_map<std::string, int, NameHash, std::equal_to<>> locations_;
};

}  // namespace velmora
