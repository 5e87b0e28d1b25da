#include "base/SettingsStore.h"

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "base/AtomicFile.h"
#include "base/Log.h"

namespace velmora {

namespace fs = std::filesystem;

SettingsStore& SettingsStore::shared() {
  static SettingsStore store(defaultFolder());
  return store;
}

fs::path SettingsStore::defaultFolder() {
  if (const char* dir = std::getenv("VELMORA_CONFIG_DIR"); dir && *dir) return fs::path(dir);
  if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg && *xdg) return fs::path(xdg) / "velmora";
  if (const char* home = std::getenv("HOME"); home && *home) return fs::path(home) / ".config" / "velmora";
  return fs::path(".velmora");
}

SettingsStore::SettingsStore(fs::path folder) : folder_(std::move(folder)) {
  std::lock_guard lock(mutex_);
  loadLocked();
}

void SettingsStore::reload() {
  std::lock_guard lock(mutex_);
  loadLocked();
}

void SettingsStore::loadLocked() {
  document_ = nlohmann::json::object();
  const fs::path file = filePath();
  std::error_code ec;
  if (!fs::exists(file, ec)) return;
  std::ifstream in(file, std::ios::binary);
  std::stringstream buffer;
  buffer << in.rdbuf();
  nlohmann::json parsed = nlohmann::json::parse(buffer.str(), nullptr, /*allow_exceptions=*/false);
  if (parsed.is_object()) {
    document_ = std::move(parsed);
    return;
  }
  const auto unixTime = std::chrono::duration_cast<std::chrono::seconds>(
                            std::chrono::system_clock::now().time_since_epoch())
                            .count();
  fs::path aside = file;
  aside += ".corrupt-" + std::to_string(unixTime);
  fs::rename(file, aside, ec);
  if (ec) {
    logLine("Settings", "Settings file " + file.string() + " is unreadable and could not be moved aside (" +
                            ec.message() + "); using defaults");
  } else {
    logLine("Settings", "Settings file " + file.string() + " is unreadable; moved it to " + aside.string() +
                            " and using defaults");
  }
}

bool SettingsStore::writeLocked() {
  std::error_code ec;
  fs::create_directories(folder_, ec);
  const fs::path file = filePath();
  // Only the user reads their settings.
  const std::string error = AtomicFile::write(file, document_.dump(2) + "\n", 0600);
  if (!error.empty()) logLine("Settings", "Could not write " + file.string() + ": " + error);
  return error.empty();
}

std::optional<nlohmann::json> SettingsStore::object(const std::string& key) const {
  std::lock_guard lock(mutex_);
  auto it = document_.find(key);
  if (it == document_.end()) return std::nullopt;
  return *it;
}

std::optional<std::string> SettingsStore::string(const std::string& key) const {
  auto v = object(key);
  if (!v || !v->is_string()) return std::nullopt;
  return v->get<std::string>();
}

std::optional<std::int64_t> SettingsStore::integer(const std::string& key) const {
  auto v = object(key);
  if (!v) return std::nullopt;
  if (v->is_number_integer()) return v->get<std::int64_t>();
  if (v->is_number_unsigned()) {
    auto u = v->get<std::uint64_t>();
    if (u > static_cast<std::uint64_t>(INT64_MAX)) return std::nullopt;
    return static_cast<std::int64_t>(u);
  }
  return std::nullopt;
}

std::optional<bool> SettingsStore::boolean(const std::string& key) const {
  auto v = object(key);
  if (!v || !v->is_boolean()) return std::nullopt;
  return v->get<bool>();
}

std::optional<double> SettingsStore::number(const std::string& key) const {
  auto v = object(key);
  if (!v || !v->is_number()) return std::nullopt;
  return v->get<double>();
}

std::optional<nlohmann::json> SettingsStore::array(const std::string& key) const {
  auto v = object(key);
  if (!v || !v->is_array()) return std::nullopt;
  return v;
}

std::optional<nlohmann::json> SettingsStore::dictionary(const std::string& key) const {
  auto v = object(key);
  if (!v || !v->is_object()) return std::nullopt;
  return v;
}

bool SettingsStore::set(const std::string& key, nlohmann::json value) {
  std::lock_guard lock(mutex_);
  document_[key] = std::move(value);
  return writeLocked();
}

bool SettingsStore::remove(const std::string& key) {
  std::lock_guard lock(mutex_);
  document_.erase(key);
  return writeLocked();
}

}  // namespace velmora
