// The simulated array's configuration: controllers, front-end ports, LUNs,
// file systems, features and the initial performance switch.
//
// A topology is read from a small line-oriented text file (docs/simulator.md
// describes the format) or built in (DefaultTopology). Objects are kept in
// compact form: LUN and file-system IDs as sorted numbers, ports and
// controllers as short structs; nothing grows with time.
#ifndef ZERVA_SIM_TOPOLOGY_H_
#define ZERVA_SIM_TOPOLOGY_H_

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace zerva_sim {

// Back-end object types the simulator knows.
enum : uint32_t {
  kObjLun = 11,
  kObjFileSystem = 40,
  kObjController = 207,
  kObjPortEth = 213,
  kObjPortFc = 212,
  kObjPortFcoe = 252,
  kObjPortBond = 235,
  kObjNfsV3 = 1000,
  kObjNfsV4 = 1001,
  kObjNfsV41 = 57636,
  kObjSmbV1 = 1002,
  kObjSmbV2 = 1003,
};

// Feature numbers of the capability list.
enum : int { kFeatureNfs = 48, kFeatureSmb = 49, kFeatureFsPerf = 602 };

// Limits of a topology.
enum : size_t {
  kMaxControllers = 256,
  kMaxPorts = 4096,
  kMaxLuns = 1u << 20,
  kMaxFileSystems = 1u << 16,
};

struct SimPort {
  uint32_t type = kObjPortEth;  // 213, 212, 252 or 235
  uint32_t id = 0;              // object ID, unique among all ports
  std::string name;
  uint32_t status = 0;  // running status (tag 64)
  std::string bond;     // type 213 only: the bond a member port belongs to (tag 70)
};

struct Topology {
  std::vector<std::string> controllers;  // "0A", "0B", ...
  std::vector<SimPort> ports;            // in listing order
  std::vector<uint32_t> luns;            // sorted, unique
  std::vector<uint32_t> fileSystems;     // sorted, unique
  std::set<int> features;                // 48, 49, 602
  bool switchOn = true;
  size_t pageSize = 256;  // objects per listing page

  // Index of a port by type and decimal ID text; -1 when there is none.
  long findPort(uint32_t type, const std::string& id) const;
  // Index of a controller by ID text; -1 when there is none.
  long findController(const std::string& id) const;
};

// The controller ID of a node number: engine * 4 + slot, "0A".."63D".
std::string ControllerIdOfNode(unsigned int node);

// The built-in mid-size array: 4 controllers, 32 ports of four types,
// 400 LUNs, 48 file systems, features 48, 49 and 602, switch on.
Topology DefaultTopology();

// Parses a topology text. Returns false with *error ("line N: ...") for
// anything it does not understand. Settings absent from the text keep the
// values of an empty topology (no objects, no features, switch on).
bool ParseTopology(const std::string& text, Topology* out, std::string* error);

// Reads and parses a topology file.
bool LoadTopologyFile(const std::string& path, Topology* out, std::string* error);

// Replaces the LUNs with IDs 0..n-1. REQUIRES: n <= kMaxLuns.
void SetLunCount(Topology* t, size_t n);
// Replaces the file systems with IDs 1..n (file system 0 is reserved).
// REQUIRES: n <= kMaxFileSystems.
void SetFileSystemCount(Topology* t, size_t n);
// Sets the features from a bitmask: bit 0 = 48, bit 1 = 49, bit 2 = 602.
void SetFeatureMask(Topology* t, unsigned long mask);

}  // namespace zerva_sim

#endif  // ZERVA_SIM_TOPOLOGY_H_
