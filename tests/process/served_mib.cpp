#include "tests/process/served_mib.h"

#include <gtest/gtest.h>

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

}  // namespace zerva_test
