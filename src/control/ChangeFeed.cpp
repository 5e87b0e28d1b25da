#include "control/ChangeFeed.h"

#include <algorithm>

#include "animation/CharacterAnimationController.h"
#include "control/CommandContext.h"
#include "osc/OSCWriter.h"

namespace velmora {

namespace {

// Appends the value with its own type tag (f, i, T/F, s).
void addValue(OSCWriter::Message& m, const RemoteValues::Value& value) {
  std::visit(
      [&](const auto& v) {
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, bool>) {
          m.boolean(v);
        } else if constexpr (std::is_same_v<T, std::int32_t>) {
          m.i(v);
        } else if constexpr (std::is_same_v<T, float>) {
          m.f(v);
        } else {
          m.s(v);
        }
      },
      value);
}

const char* outputOf(const std::string& name) {
  if (name == "syphonStatus") return "syphon";
  if (name == "ndiStatus") return "ndi";
  if (name == "projectorStatus") return "projector";
  return nullptr;
}

}  // namespace

void ChangeFeed::reset() {
  primed_ = false;
  last_.clear();
  cue_.reset();
}

ChangeFeed::Bytes ChangeFeed::valueMessage(const std::string& address, const RemoteValues::Value& value) {
  auto m = OSCWriter::message(address);
  addValue(m, value);
  return m.bytes();
}

std::vector<ChangeFeed::Bytes> ChangeFeed::poll(const CommandContext& context, double now) {
  std::vector<Bytes> out;
  auto values = RemoteValues::read(context, now);
  const CharacterAnimationController& cues = context.cues;
  std::optional<PlayingCue> cue;
  if (cues.isPlaying() && cues.activeCue()) {
    cue = PlayingCue{cues.activeCueName(), cues.cueStartTime(), cues.cueStartTime() + cues.activeCue()->duration()};
  }
  if (!primed_) {
    primed_ = true;
    last_ = std::move(values);
    cue_ = cue;
    return out;
  }

  // Cues: a cue that is gone, or replaced by another start, finished when
  // its time ran out and was stopped otherwise (reset, or a new cue).
  const bool sameCue = cue && cue_ && cue->name == cue_->name && cue->start == cue_->start;
  if (cue_ && !sameCue) {
    const char* how = now >= cue_->end ? "finished" : "stopped";
    out.push_back(OSCWriter::message("/velmora/event/cue").s(cue_->name).s(how).bytes());
  }
  if (cue && !sameCue) {
    out.push_back(OSCWriter::message("/velmora/event/cue").s(cue->name).s("started").bytes());
    lastProgress_ = -1e9;
  }
  cue_ = cue;
  if (cue && now - lastProgress_ >= progressInterval) {
    lastProgress_ = now;
    const double duration = cue->end - cue->start;
    const double progress = duration > 0 ? std::clamp((now - cue->start) / duration, 0.0, 1.0) : 1.0;
    out.push_back(
        OSCWriter::message("/velmora/event/cue/progress").s(cue->name).f(static_cast<float>(progress)).bytes());
  }

  // Values: the list's order and names are fixed, so entry i is entry i.
  for (std::size_t i = 0; i < values.size() && i < last_.size(); ++i) {
    const auto& entry = values[i];
    if (!entry.announced || entry.value == last_[i].value) continue;
    if (entry.name == "character") {
      out.push_back(OSCWriter::message("/velmora/event/character").s(std::get<std::string>(entry.value)).bytes());
    } else if (entry.name == "tracking.connected") {
      out.push_back(
          OSCWriter::message("/velmora/event/tracking").s(std::get<bool>(entry.value) ? "found" : "lost").bytes());
    } else if (const char* output = outputOf(entry.name)) {
      out.push_back(
          OSCWriter::message("/velmora/event/output").s(output).s(std::get<std::string>(entry.value)).bytes());
    }
    auto setting = OSCWriter::message("/velmora/event/setting");
    setting.s(entry.name);
    addValue(setting, entry.value);
    out.push_back(setting.bytes());
    if (!entry.address.empty()) out.push_back(valueMessage(entry.address, entry.value));
  }
  last_ = std::move(values);
  return out;
}

}  // namespace velmora
