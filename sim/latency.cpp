#include "sim/latency.h"

#include <cstdio>

#include "vempub/vem_decimal.h"

namespace zerva_sim {

bool ParseLatency(const std::string& text, const CommandResolver& resolve, LatencySetting* out, std::string* error) {
  LatencySetting setting;
  const size_t eq = text.rfind('=');
  const std::string ms = eq == std::string::npos ? text : text.substr(eq + 1);
  if (eq != std::string::npos) {
    const std::string command = text.substr(0, eq);
    if (!ParseCommandId(command, resolve, &setting.command)) {
      *error = "unknown command '" + command + "'";
      return false;
    }
    setting.anyCommand = false;
  }
  uint64_t value = 0;
  if (!ParseDecimal(ms, kMaxLatencyMs, &value)) {
    *error = "latency needs milliseconds, 0 to " + std::to_string(kMaxLatencyMs) + ": [COMMAND=]MS";
    return false;
  }
  setting.ms = static_cast<uint32_t>(value);
  *out = setting;
  return true;
}

std::string LatencyText(const LatencySetting& setting) {
  if (setting.anyCommand) return std::to_string(setting.ms);
  char hex[32];
  snprintf(hex, sizeof hex, "0x%llX=", setting.command);
  return hex + std::to_string(setting.ms);
}

void LatencyTable::set(const LatencySetting& setting) {
  std::lock_guard<std::mutex> lock(mu_);
  if (setting.anyCommand) {
    anyMs_ = setting.ms;
  } else if (setting.ms == 0) {
    commandMs_.erase(setting.command);
  } else {
    commandMs_[setting.command] = setting.ms;
  }
}

void LatencyTable::clear() {
  std::lock_guard<std::mutex> lock(mu_);
  anyMs_ = 0;
  commandMs_.clear();
}

std::vector<LatencySetting> LatencyTable::list() const {
  std::lock_guard<std::mutex> lock(mu_);
  std::vector<LatencySetting> out;
  if (anyMs_ != 0) out.push_back(LatencySetting{true, 0, anyMs_});
  for (const auto& c : commandMs_) out.push_back(LatencySetting{false, c.first, c.second});
  return out;
}

uint32_t LatencyTable::of(unsigned long long command) const {
  std::lock_guard<std::mutex> lock(mu_);
  auto it = commandMs_.find(command);
  return it != commandMs_.end() ? it->second : anyMs_;
}

}  // namespace zerva_sim
