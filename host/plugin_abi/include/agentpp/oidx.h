// Agentpp::Oidx: an object identifier as a list of sub-identifiers.
//
// Only what the batch-table hooks need of the agent framework's OID type:
// construction from dotted text and from a list, length, sub-identifier
// access, comparison and text.
#ifndef ZERVA_AGENTPP_OIDX_H_
#define ZERVA_AGENTPP_OIDX_H_

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

namespace Agentpp {

class Oidx {
 public:
  Oidx() {}
  // From dotted decimal text ("1.3.6.1", a leading dot allowed). Text that
  // is not a valid OID gives an empty Oidx (see valid()).
  explicit Oidx(const std::string& text);
  explicit Oidx(const char* text) : Oidx(std::string(text)) {}
  Oidx(std::initializer_list<uint32_t> subids) : subids_(subids) {}
  explicit Oidx(const std::vector<uint32_t>& subids) : subids_(subids) {}
  Oidx(const uint32_t* subids, size_t len) : subids_(subids, subids + len) {}

  // False when built from text that did not parse.
  bool valid() const { return valid_; }
  size_t len() const { return subids_.size(); }
  bool empty() const { return subids_.empty(); }
  // REQUIRES: i < len().
  uint32_t operator[](size_t i) const { return subids_[i]; }
  const std::vector<uint32_t>& subids() const { return subids_; }

  Oidx& operator+=(uint32_t subid) {
    subids_.push_back(subid);
    return *this;
  }
  Oidx& operator+=(const Oidx& tail) {
    subids_.insert(subids_.end(), tail.subids_.begin(), tail.subids_.end());
    return *this;
  }
  // The OID without its first count sub-identifiers (empty past the end).
  Oidx cut_left(size_t count) const;
  // True when this OID begins with prefix.
  bool startsWith(const Oidx& prefix) const;

  // Dotted decimal, no leading dot.
  std::string get_printable() const;

  friend bool operator==(const Oidx& a, const Oidx& b) { return a.subids_ == b.subids_; }
  friend bool operator!=(const Oidx& a, const Oidx& b) { return !(a == b); }
  // Lexicographic order of sub-identifiers, as SNMP orders OIDs.
  friend bool operator<(const Oidx& a, const Oidx& b) { return a.subids_ < b.subids_; }

 private:
  std::vector<uint32_t> subids_;
  bool valid_ = true;
};

}  // namespace Agentpp

#endif  // ZERVA_AGENTPP_OIDX_H_
