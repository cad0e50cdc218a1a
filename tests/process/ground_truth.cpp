#include "tests/process/ground_truth.h"

#include <algorithm>
#include <cstdio>
#include <sstream>

#include "sim/topology.h"
#include "tests/process/agent_under_test.h"

namespace zerva_test {

using zerva_agent::MibColumn;
using zerva_agent::MibIndexEncoding;
using zerva_agent::MibObject;
using zerva_agent::MibSyntax;

// ---------------------------------------------------------------------------
// Values

std::string ValueText(const Value& v) { return v.type + ": " + v.value; }

Oid TableTruth::first() const { return instances.empty() ? Oid() : instances.begin()->first; }

Oid TableTruth::last() const { return instances.empty() ? Oid() : instances.rbegin()->first; }

std::string Hex(const std::string& bytes) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  for (unsigned char c : bytes) {
    out += kDigits[c >> 4];
    out += kDigits[c & 15];
  }
  return out;
}

// ---------------------------------------------------------------------------
// The array's model

namespace {

// A cell as the back end's model gives it, before the MIB syntax applies.
struct Raw {
  bool text = false;
  std::string bytes;
  long long number = 0;
};
Raw Num(long long n) {
  Raw r;
  r.number = n;
  return r;
}
Raw Text(const std::string& s) {
  Raw r;
  r.text = true;
  r.bytes = s;
  return r;
}

typedef std::map<unsigned int, Raw> RawRow;  // column number -> cell

// The value a column of the given syntax shows for a raw cell.
Value Format(MibSyntax syntax, const Raw& raw) {
  switch (syntax) {
    case MibSyntax::Integer32:
      return {"INTEGER", std::to_string(raw.number)};
    case MibSyntax::Unsigned32:
    case MibSyntax::Gauge32:
      return {"Gauge32", std::to_string(raw.number)};
    case MibSyntax::Counter32:
      return {"Counter32", std::to_string(raw.number)};
    case MibSyntax::Counter64:
      return {"Counter64", std::to_string(raw.number)};
    case MibSyntax::TimeTicks:
      return {"Timeticks", std::to_string(raw.number)};
    case MibSyntax::DisplayString:
    case MibSyntax::OctetString:
      return {"OCTETS", Hex(raw.text ? raw.bytes : std::to_string(raw.number))};
  }
  return {"?", ""};
}

// The model's values of `items` for one object; appends a message to *error
// when the simulator refuses.
std::vector<uint32_t> Stats(const zerva_sim::ArraySimulator& sim, uint32_t type, const std::string& id,
                            const std::vector<uint32_t>& items, std::string* error) {
  std::vector<uint32_t> values;
  const uint32_t rc = sim.statistics(type, id, items, &values);
  if (rc != zerva_sim::kSimOk || values.size() != items.size()) {
    char code[16];
    snprintf(code, sizeof code, "0x%X", rc);
    *error += "statistics of " + std::to_string(type) + ":" + id + " refused " + code + "\n";
    values.assign(items.size(), 0);
  }
  return values;
}

// Columns first.. of a row from consecutive values.
void PutValues(RawRow* row, unsigned int firstColumn, const std::vector<uint32_t>& values) {
  for (size_t i = 0; i < values.size(); ++i) (*row)[firstColumn + static_cast<unsigned int>(i)] = Num(values[i]);
}

// The rows of each table, keyed by index cell, as the tables' contracts
// (docs/mib.md, docs/simulator.md) lay the model's objects and items out.
std::vector<RawRow> RawRows(const zerva_sim::ArraySimulator& sim, const std::string& table, bool* served,
                            std::string* error) {
  const zerva_sim::Topology& topo = sim.topology();
  const bool nfs = topo.features.count(zerva_sim::kFeatureNfs) != 0;
  const bool smb = topo.features.count(zerva_sim::kFeatureSmb) != 0;
  const bool fsPerf = topo.features.count(zerva_sim::kFeatureFsPerf) != 0;
  const bool on = sim.switchState() == 1;
  std::vector<RawRow> rows;
  *served = true;

  // The five per-controller protocol services.
  const std::map<std::string, std::pair<uint32_t, bool>> services = {
      {"vemPerfNfsV3Table", {zerva_sim::kObjNfsV3, nfs}},   {"vemPerfNfsV4Table", {zerva_sim::kObjNfsV4, nfs}},
      {"vemPerfNfsV41Table", {zerva_sim::kObjNfsV41, nfs}}, {"vemPerfSmbV1Table", {zerva_sim::kObjSmbV1, smb}},
      {"vemPerfSmbV2Table", {zerva_sim::kObjSmbV2, smb}},
  };

  if (table == "vemPerfNodeTable") {
    for (const std::string& c : topo.controllers) {
      RawRow row;
      row[1] = Num(NodeOfController(c));
      PutValues(&row, 2, Stats(sim, zerva_sim::kObjController, c, {68, 69, 78, 22, 25, 28, 21, 23, 26}, error));
      // Items 475/476 only where the array has file-system statistics;
      // elsewhere the columns have no instance.
      if (fsPerf) PutValues(&row, 11, Stats(sim, zerva_sim::kObjController, c, {475, 476}, error));
      rows.push_back(row);
    }
  } else if (table == "vemPerfLunTable") {
    for (uint32_t lun : topo.luns) {
      const std::vector<uint32_t> v = Stats(sim, zerva_sim::kObjLun, std::to_string(lun),
                                            {303, 22, 25, 28, 21, 23, 26, 5, 307, 370, 371, 384, 385}, error);
      RawRow row;
      row[1] = Num(lun);
      PutValues(&row, 2, std::vector<uint32_t>(v.begin(), v.begin() + 7));
      // Read and write shares of item 22, in percent (0 without I/O).
      row[9] = Num(v[1] == 0 ? 0 : static_cast<uint32_t>(v[2] * 100u) / v[1]);
      row[10] = Num(v[1] == 0 ? 0 : static_cast<uint32_t>(v[3] * 100u) / v[1]);
      PutValues(&row, 11, std::vector<uint32_t>(v.begin() + 7, v.end()));
      rows.push_back(row);
    }
  } else if (table == "vemPerfPortTable") {
    for (const zerva_sim::SimPort& p : topo.ports) {
      if (p.type != zerva_sim::kObjPortBond) {
        // Bond members are reported through their bond port; only link
        // up (5), degraded (6) and unknown (0) ports are reported.
        if (p.type == zerva_sim::kObjPortEth && !p.bond.empty()) continue;
        if (p.status != 0 && p.status != 5 && p.status != 6) continue;
      }
      RawRow row;
      row[1] = Num(p.id);
      PutValues(&row, 2, Stats(sim, p.type, std::to_string(p.id), {78, 22, 25, 28, 21, 23, 26, 5, 307}, error));
      row[11] = Text(p.name);
      rows.push_back(row);
    }
  } else if (table == "vemPerfCacheTable") {
    for (const std::string& c : topo.controllers) {
      const std::vector<uint32_t> v = Stats(sim, zerva_sim::kObjController, c, {110, 120, 303}, error);
      RawRow row;
      row[1] = Num(NodeOfController(c));
      row[2] = Num(v[0]);
      row[3] = Num(v[1]);
      row[4] = Num(-1);  // no source item: always -1
      row[5] = Num(v[2]);
      rows.push_back(row);
    }
  } else if (services.count(table) != 0) {
    const auto& service = services.at(table);
    *served = service.second;
    if (!*served) return rows;
    for (const std::string& c : topo.controllers) {
      RawRow row;
      row[1] = Text(c);
      PutValues(&row, 2, Stats(sim, service.first, c, {182, 439}, error));
      rows.push_back(row);
    }
  } else if (table == "vemPerfFsTable") {
    *served = fsPerf;
    if (!*served) return rows;
    for (uint32_t fs : topo.fileSystems) {
      RawRow row;
      row[1] = Text(std::to_string(fs));
      PutValues(
          &row, 2,
          Stats(sim, zerva_sim::kObjFileSystem, std::to_string(fs), {182, 523, 232, 23, 524, 525, 233, 26}, error));
      rows.push_back(row);
    }
  } else {
    *error += "no ground truth for table " + table + "\n";
  }
  // With collection switched off every table is empty.
  if (!on) rows.clear();
  return rows;
}

}  // namespace

TableTruth GroundTruth(const zerva_sim::ArraySimulator& sim, const MibObject& table, bool* served, std::string* error) {
  TableTruth truth;
  truth.object = &table;
  truth.prefix = table.oid;
  bool isServed = true;
  for (const RawRow& row : RawRows(sim, table.name, &isServed, error)) {
    const auto indexCell = row.find(table.indexColumn);
    if (indexCell == row.end()) {
      *error += table.name + ": a row without its index\n";
      continue;
    }
    Oid index;
    if (table.indexEncoding == MibIndexEncoding::Integer) {
      index.push_back(static_cast<unsigned long>(indexCell->second.number));
    } else {
      index = StringIndex(indexCell->second.text ? indexCell->second.bytes : std::to_string(indexCell->second.number));
    }
    truth.rowIndexes.push_back(index);
    for (const auto& cell : row) {
      const MibColumn* column = table.column(cell.first);
      if (column == nullptr) {
        *error += table.name + ": no column " + std::to_string(cell.first) + "\n";
        continue;
      }
      truth.instances[InstanceOid(table.oid, column->number, index)] = Format(column->syntax, cell.second);
    }
  }
  std::sort(truth.rowIndexes.begin(), truth.rowIndexes.end());
  if (served != nullptr) *served = isServed;
  return truth;
}

std::string Diff(const std::map<Oid, Value>& expected, const std::map<Oid, Value>& actual) {
  std::ostringstream out;
  int shown = 0;
  const int kMaxShown = 8;
  size_t missing = 0, extra = 0, different = 0;
  for (const auto& e : expected) {
    const auto a = actual.find(e.first);
    if (a == actual.end()) {
      if (shown++ < kMaxShown) out << "  missing " << OidText(e.first) << " = " << ValueText(e.second) << "\n";
      ++missing;
    } else if (a->second != e.second) {
      if (shown++ < kMaxShown) {
        out << "  " << OidText(e.first) << ": expected " << ValueText(e.second) << ", served " << ValueText(a->second)
            << "\n";
      }
      ++different;
    }
  }
  for (const auto& a : actual) {
    if (expected.count(a.first) == 0) {
      if (shown++ < kMaxShown) out << "  unexpected " << OidText(a.first) << " = " << ValueText(a.second) << "\n";
      ++extra;
    }
  }
  if (missing + extra + different == 0) return "";
  std::ostringstream head;
  head << expected.size() << " expected, " << actual.size() << " served: " << missing << " missing, " << extra
       << " unexpected, " << different << " different\n";
  return head.str() + out.str();
}

std::string IndexText(const zerva_agent::MibObject& table, const Oid& rowIndex) {
  if (table.indexEncoding == zerva_agent::MibIndexEncoding::Integer) {
    return rowIndex.size() == 1 ? std::to_string(rowIndex[0]) : OidText(rowIndex);
  }
  std::string text;
  for (size_t i = 1; i < rowIndex.size(); ++i) text += static_cast<char>(rowIndex[i]);
  return text;
}

}  // namespace zerva_test
