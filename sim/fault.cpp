#include "sim/fault.h"

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "vempub/vem_decimal.h"

namespace zerva_sim {

namespace {

struct KindName {
  FaultKind kind;
  const char* name;
};

const KindName kKinds[] = {
    {FaultKind::kRefuse, "refuse"},
    {FaultKind::kDelay, "delay"},
    {FaultKind::kClose, "close"},
    {FaultKind::kGarbage, "garbage"},
    {FaultKind::kTruncate, "truncate"},
    {FaultKind::kBadMagic, "bad-magic"},
    {FaultKind::kBadVersion, "bad-version"},
    {FaultKind::kHugeLength, "huge-len"},
    {FaultKind::kBadValues, "bad-values"},
    {FaultKind::kBadBody, "bad-body"},
};

// Parses an unsigned number no greater than max: decimal (ParseDecimal's
// rule) or 0x-hexadecimal (result codes and command codes are often written
// so).
bool ParseUnsigned(const std::string& text, unsigned long long max, unsigned long long* out) {
  const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
  if (!hex) {
    uint64_t v = 0;
    if (!ParseDecimal(text, max, &v)) return false;
    *out = v;
    return true;
  }
  const std::string digits = text.substr(2);
  if (digits.size() > 16) return false;
  for (char c : digits) {
    if (isxdigit(static_cast<unsigned char>(c)) == 0) return false;
  }
  const unsigned long long v = strtoull(digits.c_str(), nullptr, 16);
  if (v > max) return false;
  *out = v;
  return true;
}

}  // namespace

bool ParseCommandId(const std::string& text, const CommandResolver& resolve, unsigned long long* id) {
  return ParseUnsigned(text, ~0ULL, id) || (resolve && resolve(text, id));
}

bool ParseFault(const std::string& text, const CommandResolver& resolve, FaultRule* out, std::string* error) {
  FaultRule rule;
  std::istringstream in(text);
  std::string part;
  bool first = true;
  while (std::getline(in, part, ',')) {
    const size_t eq = part.find('=');
    const std::string key = part.substr(0, eq);
    const std::string arg = eq == std::string::npos ? std::string() : part.substr(eq + 1);
    const bool hasArg = eq != std::string::npos;
    unsigned long long n = 0;
    if (first) {
      first = false;
      bool known = false;
      for (const KindName& k : kKinds) {
        if (key == k.name) rule.kind = k.kind, known = true;
      }
      if (!known) {
        *error = "unknown fault '" + key +
                 "' (refuse=CODE, delay=MS, close, garbage, truncate, bad-magic, bad-version, huge-len, bad-values, "
                 "bad-body)";
        return false;
      }
      if (rule.kind == FaultKind::kRefuse) {
        if (!ParseUnsigned(arg, 0xFFFFFFFFULL, &n) || n == 0) {
          *error = "refuse needs a non-zero 32-bit result code: refuse=CODE";
          return false;
        }
        rule.code = static_cast<uint32_t>(n);
      } else if (rule.kind == FaultKind::kDelay) {
        if (!ParseUnsigned(arg, kMaxFaultDelayMs, &n)) {
          *error = "delay needs milliseconds, 0 to " + std::to_string(kMaxFaultDelayMs) + ": delay=MS";
          return false;
        }
        rule.delayMs = static_cast<uint32_t>(n);
      } else if (hasArg) {
        *error = "fault '" + key + "' takes no value";
        return false;
      }
      continue;
    }
    if (key == "cmd" && hasArg) {
      if (!ParseCommandId(arg, resolve, &rule.command)) {
        *error = "unknown command '" + arg + "'";
        return false;
      }
      rule.anyCommand = false;
    } else if (key == "rate" && hasArg) {
      char* end = nullptr;
      const double rate = strtod(arg.c_str(), &end);
      if (arg.empty() || *end != '\0' || !(rate > 0.0 && rate <= 1.0)) {
        *error = "rate must be a number in (0, 1]";
        return false;
      }
      rule.rate = rate;
    } else if (key == "count" && hasArg) {
      if (!ParseUnsigned(arg, ~0ULL, &n) || n == 0) {
        *error = "count must be a positive number";
        return false;
      }
      rule.count = n;
    } else {
      *error = "unknown fault option '" + part + "' (cmd=, rate=, count=)";
      return false;
    }
  }
  if (first) {
    *error = "empty fault";
    return false;
  }
  *out = rule;
  return true;
}

std::string FaultText(const FaultRule& rule) {
  std::string text;
  for (const KindName& k : kKinds) {
    if (k.kind == rule.kind) text = k.name;
  }
  if (rule.kind == FaultKind::kRefuse) text += "=" + std::to_string(rule.code);
  if (rule.kind == FaultKind::kDelay) text += "=" + std::to_string(rule.delayMs);
  if (!rule.anyCommand) {
    char hex[32];
    snprintf(hex, sizeof hex, "0x%llX", rule.command);
    text += std::string(",cmd=") + hex;
  }
  if (rule.rate < 1.0) {
    std::ostringstream r;
    r << rule.rate;
    text += ",rate=" + r.str();
  }
  if (rule.count != 0) text += ",count=" + std::to_string(rule.count);
  return text;
}

void FaultTable::add(const FaultRule& rule) {
  std::lock_guard<std::mutex> lock(mu_);
  faults_.push_back(rule);
}

void FaultTable::clear() {
  std::lock_guard<std::mutex> lock(mu_);
  faults_.clear();
}

std::vector<FaultRule> FaultTable::list() const {
  std::lock_guard<std::mutex> lock(mu_);
  return faults_;
}

bool FaultTable::match(unsigned long long command, FaultRule* out) {
  std::lock_guard<std::mutex> lock(mu_);
  for (size_t i = 0; i < faults_.size(); ++i) {
    FaultRule& f = faults_[i];
    if (!f.anyCommand && f.command != command) continue;
    if (f.rate < 1.0 && std::uniform_real_distribution<double>(0.0, 1.0)(rng_) >= f.rate) continue;
    *out = f;
    if (f.count != 0 && --f.count == 0) faults_.erase(faults_.begin() + static_cast<long>(i));
    return true;
  }
  return false;
}

}  // namespace zerva_sim
