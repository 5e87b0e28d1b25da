#pragma once
// One line per event on standard output: "[Component] text".
// Thread-safe: lines from several threads never interleave.

#include <functional>
#include <string>
#include <string_view>

namespace velmora {

// Writes "[component] text\n" to stdout (and to the sink, when one is set).
void logLine(std::string_view component, std::string_view text);

// Writes an already formatted line (no prefix added), e.g. the verification
// suite's banner lines.
void logRaw(std::string_view line);

// Tests capture log lines with a sink; it receives each whole line without
// the trailing newline. Pass an empty function to remove it. Stdout output
// continues either way.
void setLogSink(std::function<void(const std::string&)> sink);

}  // namespace velmora
