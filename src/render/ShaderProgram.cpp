#include "render/ShaderProgram.h"

#include <epoxy/gl.h>

#include <glm/gtc/type_ptr.hpp>

namespace velmora {

namespace {

std::string shaderLog(GLuint shader) {
  GLint length = 0;
  glGetShaderiv(shader, GL_INFO_LOG_LENGTH, &length);
  std::string log(static_cast<std::size_t>(length > 0 ? length : 0), '\0');
  if (length > 0) glGetShaderInfoLog(shader, length, nullptr, log.data());
  while (!log.empty() && (log.back() == '\0' || log.back() == '\n')) log.pop_back();
  return log;
}

std::string programLog(GLuint program) {
  GLint length = 0;
  glGetProgramiv(program, GL_INFO_LOG_LENGTH, &length);
  std::string log(static_cast<std::size_t>(length > 0 ? length : 0), '\0');
  if (length > 0) glGetProgramInfoLog(program, length, nullptr, log.data());
  while (!log.empty() && (log.back() == '\0' || log.back() == '\n')) log.pop_back();
  return log;
}

GLuint compile(GLenum stage, const std::string& text, std::string& error) {
  GLuint shader = glCreateShader(stage);
  const char* src = text.c_str();
  glShaderSource(shader, 1, &src, nullptr);
  glCompileShader(shader);
  GLint ok = GL_FALSE;
  glGetShaderiv(shader, GL_COMPILE_STATUS, &ok);
  if (ok != GL_TRUE) {
    error = shaderLog(shader);
    if (error.empty()) error = "no log";
    glDeleteShader(shader);
    return 0;
  }
  return shader;
}

}  // namespace

CreateResult<ShaderProgram> ShaderProgram::create(const Sources& s) {
  using Result = CreateResult<ShaderProgram>;
  std::string error;
  GLuint vs = compile(GL_VERTEX_SHADER, s.vertex, error);
  if (!vs) return Result::failure("ShaderProgram::create(): " + s.name + " vertex shader does not compile: " + error);
  GLuint fs = 0;
  if (!s.fragment.empty()) {
    fs = compile(GL_FRAGMENT_SHADER, s.fragment, error);
    if (!fs) {
      glDeleteShader(vs);
      return Result::failure("ShaderProgram::create(): " + s.name + " fragment shader does not compile: " + error);
    }
  }
  GLuint program = glCreateProgram();
  glAttachShader(program, vs);
  if (fs) glAttachShader(program, fs);
  if (!s.feedbackVaryings.empty()) {
    std::vector<const char*> names;
    for (const auto& v : s.feedbackVaryings) names.push_back(v.c_str());
    glTransformFeedbackVaryings(program, static_cast<GLsizei>(names.size()), names.data(), GL_INTERLEAVED_ATTRIBS);
  }
  glLinkProgram(program);
  glDetachShader(program, vs);
  glDeleteShader(vs);
  if (fs) {
    glDetachShader(program, fs);
    glDeleteShader(fs);
  }
  GLint ok = GL_FALSE;
  glGetProgramiv(program, GL_LINK_STATUS, &ok);
  if (ok != GL_TRUE) {
    error = programLog(program);
    glDeleteProgram(program);
    return Result::failure("ShaderProgram::create(): " + s.name + " program does not link: " +
                           (error.empty() ? std::string("no log") : error));
  }
  return Result::success(std::unique_ptr<ShaderProgram>(new ShaderProgram(program)));
}

ShaderProgram::~ShaderProgram() { glDeleteProgram(program_); }

void ShaderProgram::use() const { glUseProgram(program_); }

int ShaderProgram::location(const char* name) {
  auto it = locations_.find(std::string_view(name));
  if (it != locations_.end()) return it->second;
  const int loc = glGetUniformLocation(program_, name);
  locations_.emplace(name, loc);
  return loc;
}

void ShaderProgram::set(const char* name, int v) { glUniform1i(location(name), v); }
void ShaderProgram::set(const char* name, float v) { glUniform1f(location(name), v); }
void ShaderProgram::set(const char* name, const float2& v) { glUniform2fv(location(name), 1, glm::value_ptr(v)); }
void ShaderProgram::set(const char* name, const float3& v) { glUniform3fv(location(name), 1, glm::value_ptr(v)); }
void ShaderProgram::set(const char* name, const float4& v) { glUniform4fv(location(name), 1, glm::value_ptr(v)); }
void ShaderProgram::set(const char* name, const float4x4& v) {
  glUniformMatrix4fv(location(name), 1, GL_FALSE, glm::value_ptr(v));
}
void ShaderProgram::setMatrix3(const char* name, const float4x4& m) {
  const glm::mat3 m3(m);
  glUniformMatrix3fv(location(name), 1, GL_FALSE, glm::value_ptr(m3));
}
void ShaderProgram::setArray(const char* name, const int* v, int count) { glUniform1iv(location(name), count, v); }
void ShaderProgram::setArray(const char* name, const float* v, int count) { glUniform1fv(location(name), count, v); }
void ShaderProgram::setArray(const char* name, const float2* v, int count) {
  glUniform2fv(location(name), count, reinterpret_cast<const float*>(v));
}
void ShaderProgram::setArray(const char* name, const float3* v, int count) {
  glUniform3fv(location(name), count, reinterpret_cast<const float*>(v));
}

}  // namespace velmora
