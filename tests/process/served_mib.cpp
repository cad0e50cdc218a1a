#include "tests/process/served_mib.h"

#include <gtest/gtest.h>

#include <fstream>

namespace zerva_test {

using zerva_agent::MibObject;

const zerva_agent::MibDescription& ServedMib(std::string* error) {
  static zerva_agent::MibDescription mib;
  static std::string loadError;
  static bool loaded = false;
  if (!loaded) {
    loaded = true;
    if (!zerva_agent::LoadMibDescription(ZERVA_MIB_XML, mib, &loadError) && loadError.empty()) {
      loadError = "cannot load " ZERVA_MIB_XML;
    }
  }
  *error = loadError;
  return mib;
}

const zerva_agent::MibDescription& Mib() {
  std::string error;
  const zerva_agent::MibDescription& mib = ServedMib(&error);
  EXPECT_EQ("", error);
  return mib;
}

const MibObject* MibTable(const std::string& name) {
  for (const MibObject& o : Mib().objects) {
    if (o.kind == MibObject::Table && o.name == name) return &o;
  }
  return nullptr;
}

std::vector<const MibObject*> MibTables() {
  std::vector<const MibObject*> out;
  for (const MibObject& o : Mib().objects) {
    if (o.kind == MibObject::Table) out.push_back(&o);
  }
  return out;
}

const std::map<std::string, std::string>& MibUnits() {
  static const std::map<std::string, std::string> units = [] {
    std::map<std::string, std::string> out;
    std::ifstream in(ZERVA_MIB_SMI);
    EXPECT_TRUE(in.good()) << "cannot read " ZERVA_MIB_SMI;
    // "name OBJECT-TYPE" opens an object; its `UNITS "text"` line follows
    // before the next object.
    std::string line, object;
    while (std::getline(in, line)) {
      const size_t type = line.find(" OBJECT-TYPE");
      if (type != std::string::npos && line.find_first_of(" \t") == type) object = line.substr(0, type);
      const size_t units = line.find_first_not_of(' ');
      if (object.empty() || units == std::string::npos || line.compare(units, 6, "UNITS ") != 0) continue;
      const size_t open = line.find_first_not_of(' ', units + 6);
      const size_t close = line.rfind('"');
      if (open != std::string::npos && line[open] == '"' && close > open) {
        out[object] = line.substr(open + 1, close - open - 1);
      }
    }
    return out;
  }();
  return units;
}

}  // namespace zerva_test
