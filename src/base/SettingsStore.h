#pragma once
// The per-user settings store: one JSON object document, settings.json, in
// $VELMORA_CONFIG_DIR, else $XDG_CONFIG_HOME/velmora, else ~/.config/velmora.
//
// Values are typed JSON (strings, integers, booleans, doubles, arrays,
// dictionaries) under string keys. Every write replaces the file atomically
// (temporary file in the same folder, fsync, rename), so the file is never
// half-written. A file that is not a JSON object is renamed aside to
// "settings.json.corrupt-<unix time>", defaults are used and one log line
// says so. Thread-safe.

#include <cstdint>
#include <filesystem>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace velmora {

class SettingsStore {
 public:
  // The process-wide store in defaultFolder().
  static SettingsStore& shared();
  static std::filesystem::path defaultFolder();

  // Reads <folder>/settings.json (missing file: empty store). Never fails:
  // unreadable content is moved aside and the store starts empty.
  explicit SettingsStore(std::filesystem::path folder);

  const std::filesystem::path& folder() const { return folder_; }
  std::filesystem::path filePath() const { return folder_ / "settings.json"; }

  // Re-reads the file (another instance may have written it).
  void reload();

  // The stored value of any kind, or none when the key is absent.
  std::optional<nlohmann::json> object(const std::string& key) const;
  // Typed reads: none when absent or of another kind.
  std::optional<std::string> string(const std::string& key) const;
  std::optional<std::int64_t> integer(const std::string& key) const;  // integral numbers only
  std::optional<bool> boolean(const std::string& key) const;
  std::optional<double> number(const std::string& key) const;  // any number
  std::optional<nlohmann::json> array(const std::string& key) const;
  std::optional<nlohmann::json> dictionary(const std::string& key) const;

  // Stores the value and writes the file. Returns false (and logs) when the
  // file could not be written; the value is kept in memory either way.
  bool set(const std::string& key, nlohmann::json value);
  bool remove(const std::string& key);

 private:
  void loadLocked();
  bool writeLocked();

  std::filesystem::path folder_;
  mutable std::mutex mutex_;
  nlohmann::json document_ = nlohmann::json::object();
};

}  // namespace velmora
