// ArraySimulator: the simulated array behind the simulator's socket. It owns
// the topology, the workload model, the performance switch, the clock, the
// fault table and the command counters, and turns one request frame into
// one reply (answer bytes plus what the connection does next).
#ifndef ZERVA_SIM_ARRAY_SIMULATOR_H_
#define ZERVA_SIM_ARRAY_SIMULATOR_H_

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "sim/fault.h"
#include "sim/latency.h"
#include "sim/topology.h"
#include "sim/workload.h"

class CTLVRecordV3;

namespace zerva_sim {

// The simulator's wire constants: the fixed record identifiers and the cell
// tags below, the codes looked up by name in CommandCodes, the object types
// in sim/topology.h. They are the back end's side of the protocol, and the
// simulator keeps its own copy of them on purpose instead of including the
// module's (tlv/backend_codes.h): a wrong number on one side then makes the
// end-to-end tests fail, where a shared number would agree with itself. Each
// is defined once in the simulator, here or in sim/topology.h.

// Fixed record identifiers (not looked up by name).
const unsigned long long kListingCmd = 0xD0000C000ULL;            // object listing by type
const unsigned long long kSortedListingCmd = 0xD00002013ULL;      // listing with a kTagSortOrder sort order
const unsigned long long kLunBatchStatsCmd = 0xDE0222048ULL;      // statistics of many LUNs
const unsigned long long kSimControlCmd = 0x53494D0000000001ULL;  // the simulator's own control command

// Cell tags of the array's commands (the control command numbers its own).
enum : uint16_t {
  // Listings: request and answer.
  kTagObjectType = 0,   // type 6: the object type listed
  kTagListingKey = 1,   // request: list the objects after this key
  kTagObjectId = 1,     // answer: the object's ID
  kTagObjectName = 2,   // answer: the name of a controller, LUN, file system or bond port
  kTagPortName = 6,     // answer: the name of an Ethernet, FC or FCoE port
  kTagSortOrder = 15,   // sorted listing request: {"sortby":"1 ASC"} or "1 DESC"
  kTagPortStatus = 64,  // answer: the port's status
  kTagPortBond = 70,    // answer: the bond an Ethernet port belongs to
  kTagControl = 4095,   // answer: 0 = more objects follow, 1 = the listing ends
  // Switch and features.
  kTagSwitchState = 0,  // get answer, set request
  kTagFeature = 0,      // one feature number per answer record
  // Statistics.
  kTagStatsKey = 0,     // "type:id"
  kTagStatsItems = 8,   // item numbers joined by ","
  kTagStatsValues = 9,  // answer: values joined by ","
  kTagBatchType = 11,   // batch request: the object type
  kTagBatchIds = 12,    // batch request: object IDs joined by ","
  kTagBatchId = 13,     // batch answer: the object of the record
};

// Result codes of the simulator's refusals (hdrWord0 of the answer). None
// lies in 0x4E540000-0x4E5400FF, the host transport's range.
enum SimResult : uint32_t {
  kSimOk = 0,
  kSimErrUnknownCommand = 0x53494D01,  // no such command
  kSimErrMalformed = 0x53494D02,       // missing or ill-typed cell, bad text, not one record
  kSimErrNoObject = 0x53494D03,        // the object does not exist
  kSimErrUnknownItem = 0x53494D04,     // an item the object does not publish
  kSimErrSwitchOff = 0x53494D05,       // statistics asked while collection is switched off
  kSimErrBadValue = 0x53494D06,        // a switch value other than 0 or 1
  kSimErrBadObjectType = 0x53494D07,   // an object type the command does not serve
  kSimErrNotSupported = 0x53494D08,    // the feature the object needs is off
  kSimErrTooMany = 0x53494D09,         // more objects in one batch than kMaxBatchObjects
};

// Most LUNs in one batch statistics request.
const size_t kMaxBatchObjects = 4096;

// Codes of the commands looked up by name in the device configuration.
struct CommandCodes {
  unsigned long long getSwitch = 59594907649ULL;
  unsigned long long setSwitch = 59594907650ULL;
  unsigned long long getStats = 59594907664ULL;
  unsigned long long getFeatures = 59594907904ULL;
};

// Reads the four codes from a device configuration file (section
// "COMMAND"), or from the host's device configuration when path is empty.
// An item that is missing keeps the shipped default; a non-numeric one is an
// error.
bool LoadCommandCodes(const std::string& path, CommandCodes* codes, std::string* error);

// The command names the simulator knows (GET_PERFORMANCE_SWITCH,
// SET_PERFORMANCE_SWITCH, GET_CUR_STATISTIC_DATA, GET_SNMP_FEATURES, LISTING,
// SORTED_LISTING, LUN_BATCH_STATS, SIM_CONTROL) with their record identifiers
// under these codes.
std::vector<std::pair<std::string, unsigned long long>> CommandNames(const CommandCodes& codes);

// What the connection does with one request.
struct Reply {
  std::vector<unsigned char> bytes;  // sent as they are (may be empty)
  uint32_t delayMs = 0;              // wait before sending
  bool closeAfter = false;           // close the connection after sending
};

class ArraySimulator {
 public:
  // Model time at which the running clock starts.
  static const uint64_t kClockStartMs = 1000000000ULL;

  ArraySimulator(Topology topology, uint64_t seed, const CommandCodes& codes);
  ArraySimulator(const ArraySimulator&) = delete;
  ArraySimulator& operator=(const ArraySimulator&) = delete;

  // Handles one whole request frame (header and body) and counts it.
  Reply handle(const unsigned char* frame, size_t size);

  // --- ground truth -------------------------------------------------------
  // Model time in milliseconds: running (kClockStartMs plus the time since
  // construction) or frozen.
  uint64_t nowMs() const;
  // Freezes the clock at ms. REQUIRES: ms < 2^50.
  void freezeClock(uint64_t ms);
  // Lets the clock run again from where it stands.
  void runClock();
  // The values of items for one object at the current model time, as
  // GET_CUR_STATISTIC_DATA would answer them (the switch is not consulted).
  // Returns kSimOk or the refusal code.
  uint32_t statistics(uint32_t objType, const std::string& objId, const std::vector<uint32_t>& items,
                      std::vector<uint32_t>* values) const;

  const Topology& topology() const { return topology_; }
  const WorkloadModel& model() const { return model_; }
  const CommandCodes& codes() const { return codes_; }

  // --- switch -------------------------------------------------------------
  uint32_t switchState() const { return switch_.load(); }
  void setSwitch(bool on) { switch_.store(on ? 1u : 0u); }

  // --- faults -------------------------------------------------------------
  void addFault(const FaultRule& rule) { faults_.add(rule); }
  void clearFaults() { faults_.clear(); }
  std::vector<FaultRule> faults() const { return faults_.list(); }
  // ParseFault with this simulator's command names.
  bool parseFault(const std::string& text, FaultRule* out, std::string* error) const;
  // --- latency ------------------------------------------------------------
  void setLatency(const LatencySetting& setting) { latency_.set(setting); }
  void clearLatency() { latency_.clear(); }
  std::vector<LatencySetting> latencies() const { return latency_.list(); }
  // ParseLatency with this simulator's command names.
  bool parseLatency(const std::string& text, LatencySetting* out, std::string* error) const;

  // The record identifier of a command name (GET_CUR_STATISTIC_DATA, ...,
  // LISTING, SORTED_LISTING, LUN_BATCH_STATS, SIM_CONTROL).
  bool commandByName(const std::string& name, unsigned long long* id) const;

  // --- counters -----------------------------------------------------------
  // Requests received, by the identifier of their first record (faulted
  // ones included; frames that do not decode are not counted).
  std::map<unsigned long long, uint64_t> commandCounts() const;

  // Bytes held by the topology and the tables (the model keeps nothing per
  // time step, so this does not change while the simulator runs).
  size_t memoryBytes() const;

 private:
  // The answer to a decoded request record, without faults.
  std::vector<unsigned char> answer(const CTLVRecordV3& record);
  std::vector<unsigned char> listing(const CTLVRecordV3& record, bool sorted);
  std::vector<unsigned char> pagedListing(const CTLVRecordV3& record, uint32_t type, bool descending);
  std::vector<unsigned char> curStatistics(const CTLVRecordV3& record);
  std::vector<unsigned char> lunBatchStatistics(const CTLVRecordV3& record);
  std::vector<unsigned char> setSwitchAnswer(const CTLVRecordV3& record);
  std::vector<unsigned char> control(const CTLVRecordV3& record);
  Reply faulted(const FaultRule& fault, std::vector<unsigned char> normal) const;
  // The workload key of an object, or a refusal code.
  uint32_t objectKey(uint32_t objType, const std::string& objId, uint64_t* key) const;
  uint32_t valuesText(uint32_t objType, uint64_t key, const std::vector<uint32_t>& items, uint64_t tMs,
                      std::string* text) const;

  const Topology topology_;
  const WorkloadModel model_;
  const CommandCodes codes_;
  std::atomic<uint32_t> switch_;
  FaultTable faults_;
  LatencyTable latency_;

  mutable std::mutex clockMu_;
  bool frozen_ = false;
  uint64_t frozenMs_ = 0;
  uint64_t baseMs_ = kClockStartMs;
  std::chrono::steady_clock::time_point baseAt_;

  mutable std::mutex countMu_;
  std::map<unsigned long long, uint64_t> counts_;
};

// Parses "a,b,c" into numbers. Empty fields are skipped when skipEmpty is
// set and refused otherwise; anything but decimal digits is refused.
bool ParseIdList(const std::string& text, bool skipEmpty, std::vector<uint32_t>* out);

}  // namespace zerva_sim

#endif  // ZERVA_SIM_ARRAY_SIMULATOR_H_
