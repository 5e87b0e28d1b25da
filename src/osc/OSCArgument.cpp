#include "osc/OSCArgument.h"

#include <charconv>

namespace velmora {

namespace {

template <class T>
std::string shortest(T v) {
  char buf[64];
  auto r = std::to_chars(buf, buf + sizeof buf, v);
  return std::string(buf, r.ptr);
}

}  // namespace

std::string OSCArgument::printed() const {
  struct Printer {
    std::string operator()(float v) const { return shortest(v); }
    std::string operator()(double v) const { return shortest(v); }
    std::string operator()(std::int32_t v) const { return std::to_string(v); }
    std::string operator()(bool v) const { return v ? "true" : "false"; }
    std::string operator()(const std::string& v) const {
      std::string out;
      out.reserve(v.size() + 2);
      out += '"';
      for (char c : v) {
        if (c == '"' || c == '\\') out += '\\';
        out += c;
      }
      out += '"';
      return out;
    }
  };
  return std::visit(Printer{}, value);
}

}  // namespace velmora
