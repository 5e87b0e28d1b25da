#pragma once
// Every operator-visible value a show controller can ask for and follow, as
// one ordered list of named values: what "/velmora/state" answers, what
// "/velmora/get s <name>" looks up, and what the change feed compares tick
// to tick. Names are the state's JSON names; "lighting.key" and
// "tracking.sender" are fields of the "lighting" and "tracking" objects.
//
// Read on the main thread only (it reads FaceTrackingState and the cue
// player).

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace velmora {

struct CommandContext;

class RemoteValues {
 public:
  using Value = std::variant<bool, std::int32_t, float, std::string>;

  struct Entry {
    std::string name;
    Value value;
    // The command address that sets this value ("" when none): changes are
    // echoed there as a typed message, for widgets that follow one address.
    std::string address;
    // False for live measurements (cue progress, packets per second,
    // latencies): they are in the state but change too often to announce.
    bool announced = true;
  };

  // The whole list, in the order the state's JSON shows it. `now` is the
  // cue clock (seconds), for the active cue's progress.
  static std::vector<Entry> read(const CommandContext& context, double now);

  // The list as a JSON object, dotted names nested ("lighting": {...}).
  static std::string stateJson(const std::vector<Entry>& entries);
  // One name as JSON: an entry's value, or for "lighting" / "tracking" the
  // object of its fields; none for a name that is not there.
  static std::optional<std::string> valueJson(const std::vector<Entry>& entries, std::string_view name);
  // A value as JSON text (floats rounded to 6 significant digits, so 0.45
  // reads 0.45 and not 0.449999988).
  static std::string json(const Value& value);
};

}  // namespace velmora
