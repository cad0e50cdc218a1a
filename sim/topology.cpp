#include "sim/topology.h"

#include <algorithm>
#include <sstream>

#include "snmpcommon/snmp_comm_util.h"
#include "vempub/vem_decimal.h"
#include "vempub/vem_text_file.h"

namespace zerva_sim {

namespace {

// Splits a line into blank-separated words, dropping a "#" comment.
std::vector<std::string> Words(const std::string& line) {
  std::string text = line.substr(0, line.find('#'));
  std::istringstream in(text);
  std::vector<std::string> words;
  std::string w;
  while (in >> w) words.push_back(w);
  return words;
}

// Parses "a,b,c" of numbers no greater than max.
bool ParseNumberList(const std::string& text, uint64_t max, std::vector<uint64_t>* out) {
  std::istringstream in(text);
  std::string field;
  out->clear();
  while (std::getline(in, field, ',')) {
    uint64_t v;
    if (!ParseDecimal(field, max, &v)) return false;
    out->push_back(v);
  }
  return !out->empty() && text.back() != ',';
}

// Parses ID ranges "A-B" or single IDs into a sorted, unique list.
bool ParseIdRanges(const std::vector<std::string>& words, size_t limit, std::vector<uint32_t>* out,
                   std::string* error) {
  std::vector<uint32_t> ids;
  for (size_t i = 1; i < words.size(); ++i) {
    const std::string& w = words[i];
    const size_t dash = w.find('-');
    uint64_t lo, hi;
    if (dash == std::string::npos) {
      if (!ParseDecimal(w, 0xFFFFFFFFul, &lo)) return *error = "bad ID '" + w + "'", false;
      hi = lo;
    } else if (!ParseDecimal(w.substr(0, dash), 0xFFFFFFFFul, &lo) ||
               !ParseDecimal(w.substr(dash + 1), 0xFFFFFFFFul, &hi) || hi < lo) {
      return *error = "bad ID range '" + w + "'", false;
    }
    if (hi - lo + 1 > limit || ids.size() + (hi - lo + 1) > limit) {
      return *error = "more than " + std::to_string(limit) + " IDs", false;
    }
    for (uint64_t v = lo; v <= hi; ++v) ids.push_back(static_cast<uint32_t>(v));
  }
  std::sort(ids.begin(), ids.end());
  ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
  *out = std::move(ids);
  return true;
}

bool IsPortType(uint64_t t) { return t == kObjPortEth || t == kObjPortFc || t == kObjPortFcoe || t == kObjPortBond; }

// True when a controller ID is "<engine 0..63 without leading zeros><A..D>",
// the form the host reads (CSnmpCommUtil::ParseCtrlNodeID).
bool IsControllerId(const std::string& id) {
  return CSnmpCommUtil::ParseCtrlNodeID(id) != CSnmpCommUtil::INVALID_NODE_ID;
}

uint32_t NextPortId(const Topology& t) {
  uint32_t next = 1;
  for (const SimPort& p : t.ports) next = std::max(next, p.id + 1);
  return next;
}

// One "ports TYPE COUNT PREFIX STATUS[,STATUS...] [bonded=N]" line.
bool AddPortGroup(const std::vector<std::string>& w, Topology* t, std::string* error) {
  uint64_t type, count, bonded = 0;
  std::vector<uint64_t> statuses;
  if (w.size() < 5 || w.size() > 6)
    return *error = "usage: ports TYPE COUNT PREFIX STATUS[,STATUS...] [bonded=N]", false;
  if (!ParseDecimal(w[1], 0xFFFFFFFFul, &type) || !IsPortType(type)) {
    return *error = "port type must be 213, 212, 252 or 235", false;
  }
  if (!ParseDecimal(w[2], kMaxPorts, &count) || t->ports.size() + count > kMaxPorts) {
    return *error = "port count must keep the ports at most " + std::to_string(kMaxPorts), false;
  }
  if (!ParseNumberList(w[4], 0xFFFFFFFFul, &statuses)) return *error = "bad status list '" + w[4] + "'", false;
  if (w.size() == 6) {
    if (w[5].compare(0, 7, "bonded=") != 0 || !ParseDecimal(w[5].substr(7), count, &bonded) || type != kObjPortEth) {
      return *error = "bonded=N (N <= COUNT) is for type 213 only", false;
    }
  }
  uint32_t id = NextPortId(*t);
  for (uint64_t i = 0; i < count; ++i) {
    SimPort p;
    p.type = static_cast<uint32_t>(type);
    p.id = id++;
    p.name = w[3] + std::to_string(i);
    p.status = static_cast<uint32_t>(statuses[i % statuses.size()]);
    if (i >= count - bonded) p.bond = "bond" + std::to_string((i - (count - bonded)) / 2);
    t->ports.push_back(p);
  }
  return true;
}

// One "port TYPE ID NAME STATUS [bond=NAME]" line.
bool AddPort(const std::vector<std::string>& w, Topology* t, std::string* error) {
  uint64_t type, id, status;
  if (w.size() < 5 || w.size() > 6) return *error = "usage: port TYPE ID NAME STATUS [bond=NAME]", false;
  if (!ParseDecimal(w[1], 0xFFFFFFFFul, &type) || !IsPortType(type)) {
    return *error = "port type must be 213, 212, 252 or 235", false;
  }
  if (!ParseDecimal(w[2], 0xFFFFFFFFul, &id)) return *error = "bad port ID '" + w[2] + "'", false;
  if (!ParseDecimal(w[4], 0xFFFFFFFFul, &status)) return *error = "bad port status '" + w[4] + "'", false;
  for (const SimPort& p : t->ports) {
    if (p.id == id) return *error = "duplicate port ID " + w[2], false;
  }
  if (t->ports.size() >= kMaxPorts) return *error = "too many ports", false;
  SimPort p;
  p.type = static_cast<uint32_t>(type);
  p.id = static_cast<uint32_t>(id);
  p.name = w[3];
  p.status = static_cast<uint32_t>(status);
  if (w.size() == 6) {
    if (w[5].compare(0, 5, "bond=") != 0 || w[5].size() == 5 || type != kObjPortEth) {
      return *error = "bond=NAME is for type 213 only", false;
    }
    p.bond = w[5].substr(5);
  }
  t->ports.push_back(p);
  return true;
}

bool SetControllers(const std::vector<std::string>& w, Topology* t, std::string* error) {
  uint64_t count;
  t->controllers.clear();
  if (w.size() == 2 && ParseDecimal(w[1], kMaxControllers, &count)) {
    for (uint64_t n = 0; n < count; ++n) t->controllers.push_back(ControllerIdOfNode(static_cast<unsigned>(n)));
    return true;
  }
  if (w.size() < 2) return *error = "usage: controllers COUNT | controllers ID...", false;
  for (size_t i = 1; i < w.size(); ++i) {
    if (!IsControllerId(w[i])) return *error = "bad controller ID '" + w[i] + "' (engine 0-63 and slot A-D: 0A)", false;
    if (t->findController(w[i]) >= 0) return *error = "duplicate controller " + w[i], false;
    t->controllers.push_back(w[i]);
  }
  return true;
}

bool SetFeatures(const std::vector<std::string>& w, Topology* t, std::string* error) {
  t->features.clear();
  if (w.size() != 2) return *error = "usage: features none | N[,N...]", false;
  if (w[1] == "none") return true;
  std::vector<uint64_t> list;
  if (!ParseNumberList(w[1], 0xFFFF, &list)) return *error = "bad feature list '" + w[1] + "'", false;
  for (uint64_t f : list) {
    if (f != kFeatureNfs && f != kFeatureSmb && f != kFeatureFsPerf) {
      return *error = "unknown feature " + std::to_string(f) + " (48, 49 or 602)", false;
    }
    t->features.insert(static_cast<int>(f));
  }
  return true;
}

// Applies one parsed line.
bool ApplyLine(const std::vector<std::string>& w, Topology* t, std::string* error) {
  const std::string& key = w[0];
  uint64_t n;
  if (key == "controllers") return SetControllers(w, t, error);
  if (key == "port") return AddPort(w, t, error);
  if (key == "ports") return AddPortGroup(w, t, error);
  if (key == "luns" || key == "filesystems") {
    const bool lun = key == "luns";
    const size_t limit = lun ? kMaxLuns : kMaxFileSystems;
    if (w.size() != 2 || !ParseDecimal(w[1], limit, &n)) {
      return *error = "usage: " + key + " COUNT (at most " + std::to_string(limit) + ")", false;
    }
    lun ? SetLunCount(t, n) : SetFileSystemCount(t, n);
    return true;
  }
  if (key == "lun_ids") return ParseIdRanges(w, kMaxLuns, &t->luns, error);
  if (key == "filesystem_ids") return ParseIdRanges(w, kMaxFileSystems, &t->fileSystems, error);
  if (key == "features") return SetFeatures(w, t, error);
  if (key == "switch") {
    if (w.size() != 2 || (w[1] != "on" && w[1] != "off")) return *error = "usage: switch on|off", false;
    t->switchOn = w[1] == "on";
    return true;
  }
  if (key == "page_size") {
    if (w.size() != 2 || !ParseDecimal(w[1], 4096, &n) || n == 0) return *error = "usage: page_size 1..4096", false;
    t->pageSize = n;
    return true;
  }
  *error = "unknown setting '" + key + "'";
  return false;
}

}  // namespace

long Topology::findPort(uint32_t type, const std::string& id) const {
  uint64_t n;
  if (!ParseDecimal(id, 0xFFFFFFFFul, &n)) return -1;
  for (size_t i = 0; i < ports.size(); ++i) {
    if (ports[i].type == type && ports[i].id == n) return static_cast<long>(i);
  }
  return -1;
}

long Topology::findController(const std::string& id) const {
  for (size_t i = 0; i < controllers.size(); ++i) {
    if (controllers[i] == id) return static_cast<long>(i);
  }
  return -1;
}

std::string ControllerIdOfNode(unsigned int node) {
  return std::to_string(node / 4) + static_cast<char>('A' + node % 4);
}

void SetLunCount(Topology* t, size_t n) {
  t->luns.resize(n);
  for (size_t i = 0; i < n; ++i) t->luns[i] = static_cast<uint32_t>(i);
}

void SetFileSystemCount(Topology* t, size_t n) {
  t->fileSystems.resize(n);
  for (size_t i = 0; i < n; ++i) t->fileSystems[i] = static_cast<uint32_t>(i + 1);
}

void SetFeatureMask(Topology* t, unsigned long mask) {
  t->features.clear();
  if (mask & 1) t->features.insert(kFeatureNfs);
  if (mask & 2) t->features.insert(kFeatureSmb);
  if (mask & 4) t->features.insert(kFeatureFsPerf);
}

bool ParseTopology(const std::string& text, Topology* out, std::string* error) {
  Topology t;
  const VEMLineVisitor apply = [&t](const std::string& line, std::string* why) {
    const std::vector<std::string> words = Words(line);
    return words.empty() || ApplyLine(words, &t, why);
  };
  if (!VEMForEachLine(text, apply, error)) return false;
  *out = std::move(t);
  return true;
}

bool LoadTopologyFile(const std::string& path, Topology* out, std::string* error) {
  std::string text;
  if (!VEMReadTextFile(path, &text, error)) return false;
  std::string what;
  if (!ParseTopology(text, out, &what)) {
    *error = path + ": " + what;
    return false;
  }
  return true;
}

Topology DefaultTopology() {
  static const char kDefault[] =
      "controllers 0A 0B 1A 1B\n"
      "ports 213 16 eth 5,5,6,5,0,1,5,7 bonded=4\n"
      "ports 212 8 fc 5,5,6,1\n"
      "ports 252 4 fcoe 5,0,7,5\n"
      "port 235 100 bond0 5\n"
      "port 235 101 bond1 5\n"
      "luns 400\n"
      "filesystems 48\n"
      "features 48,49,602\n"
      "switch on\n";
  Topology t;
  std::string error;
  ParseTopology(kDefault, &t, &error);
  return t;
}

}  // namespace zerva_sim
