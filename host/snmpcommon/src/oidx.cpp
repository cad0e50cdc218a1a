#include "agentpp/oidx.h"

namespace Agentpp {

Oidx::Oidx(const std::string& text) {
  size_t i = 0;
  if (!text.empty() && text[0] == '.') i = 1;
  if (i == text.size()) return;  // "" and "." are the empty OID
  while (i <= text.size()) {
    uint64_t v = 0;
    size_t start = i;
    while (i < text.size() && text[i] >= '0' && text[i] <= '9') {
      v = v * 10 + static_cast<uint64_t>(text[i] - '0');
      if (v > 0xFFFFFFFFULL) break;
      ++i;
    }
    bool endOfField = i == text.size() || text[i] == '.';
    if (i == start || !endOfField || v > 0xFFFFFFFFULL) {
      subids_.clear();
      valid_ = false;
      return;
    }
    subids_.push_back(static_cast<uint32_t>(v));
    if (i == text.size()) break;
    ++i;                     // the dot
    if (i == text.size()) {  // trailing dot
      subids_.clear();
      valid_ = false;
      return;
    }
  }
}

Oidx Oidx::cut_left(size_t count) const {
  if (count >= subids_.size()) return Oidx();
  return Oidx(std::vector<uint32_t>(subids_.begin() + static_cast<long>(count), subids_.end()));
}

bool Oidx::startsWith(const Oidx& prefix) const {
  if (prefix.len() > len()) return false;
  for (size_t i = 0; i < prefix.len(); ++i) {
    if (subids_[i] != prefix.subids_[i]) return false;
  }
  return true;
}

std::string Oidx::get_printable() const {
  std::string out;
  for (size_t i = 0; i < subids_.size(); ++i) {
    if (i != 0) out += '.';
    out += std::to_string(subids_[i]);
  }
  return out;
}

}  // namespace Agentpp
