#include "sim/array_simulator.h"

#include <json/json.h>
#include <pugixml.hpp>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>

#include "sim/answer_writer.h"
#include "tlv/coding.h"
#include "snmpcommon/snmp_comm_util.h"
#include "tlv/vem_message_package.h"
#include "vempub/vem_decimal.h"
#include "vempub/vem_xml_config.h"

namespace zerva_sim {

namespace {

const size_t kMaxCountedCommands = 1024;
const unsigned long long kAnswerId = 0xFFFFFFFFFFFFFFFFULL;

// A numeric cell's value (types 3 to 9, up to 8 bytes, little-endian).
bool ReadNumber(const CTLVRecordV3& record, uint16_t tag, uint64_t* out) {
  if (!record.hasTag(tag)) return false;
  const CTLVCell* cell = record[tag];
  if (cell->type() < CTLVCell::TLV_TYPE_UINT || cell->length() > 8) return false;
  *out = tlv::DecodeFixedUpTo64(cell->value(), cell->length());
  return true;
}

// A text cell's text (up to its first NUL).
bool ReadText(const CTLVRecordV3& record, uint16_t tag, std::string* out) {
  if (!record.hasTag(tag)) return false;
  const CTLVCell* cell = record[tag];
  if (cell->type() != CTLVCell::TLV_TYPE_STRING) return false;
  *out = cell->toString();
  return true;
}

// A decimal number of at most 32 bits (ParseDecimal's rule).
bool ParseU32(const std::string& text, uint32_t* out) {
  uint64_t v = 0;
  if (!ParseDecimal(text, 0xFFFFFFFFULL, &v)) return false;
  *out = static_cast<uint32_t>(v);
  return true;
}

bool IsPortType(uint32_t t) { return t == kObjPortEth || t == kObjPortFc || t == kObjPortFcoe || t == kObjPortBond; }

// The feature an object type needs, or 0.
int FeatureOf(uint32_t t) {
  if (t == kObjNfsV3 || t == kObjNfsV4 || t == kObjNfsV41) return kFeatureNfs;
  if (t == kObjSmbV1 || t == kObjSmbV2) return kFeatureSmb;
  if (t == kObjFileSystem) return kFeatureFsPerf;
  return 0;
}

// Node number of a controller ID of the form the topology admits ("1B" -> 5).
uint64_t NodeOf(const std::string& id) { return CSnmpCommUtil::ParseCtrlNodeID(id); }

// The text a values cell (tag 9) carries under the bad-values fault.
const char kBadValuesText[] = "12,n/a,7";

// The answer frame with every values text replaced by kBadValuesText; the
// result code, the records and their other cells as they were.
std::vector<unsigned char> SpoilValues(std::vector<unsigned char> frame) {
  CTLVPackage in;
  if (in.decode(frame.data(), static_cast<unsigned int>(frame.size())) == CTLVPackage::FAILED) return frame;
  CTLVPackage out;
  out.head() = in.head();
  for (const CTLVRecordV3* record : in.records()) {
    std::unique_ptr<CTLVRecordV3> copy(new CTLVRecordV3(record->id(), CTLVRecordV3::DEFAULT_BUCKETS));
    for (const CTLVCell* cell : record->cells()) {
      std::unique_ptr<CTLVCell> c(new CTLVCell());
      const unsigned short tagWord = static_cast<unsigned short>((cell->tag() << 4) | (cell->type() & 0xF));
      if (cell->tag() == kTagStatsValues && cell->type() == CTLVCell::TLV_TYPE_STRING) {
        c->setCell(tagWord, kBadValuesText, sizeof kBadValuesText);  // with its NUL
      } else {
        c->setCell(tagWord, reinterpret_cast<const char*>(cell->value()), cell->length());
      }
      copy->append(c.release());
    }
    out.push_back(copy.release());
  }
  std::vector<unsigned char> bytes(TLVMsgHeadV3::SIZE + out.bodyLength());
  out.encode(bytes.data(), static_cast<unsigned int>(bytes.size()));
  return bytes;
}

std::string JoinNumbers(const std::vector<uint32_t>& values) {
  std::string text;
  for (size_t i = 0; i < values.size(); ++i) {
    if (i) text += ',';
    text += std::to_string(values[i]);
  }
  return text;
}

}  // namespace

bool ParseIdList(const std::string& text, bool skipEmpty, std::vector<uint32_t>* out) {
  out->clear();
  size_t start = 0;
  for (;;) {
    const size_t comma = text.find(',', start);
    const std::string field = text.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
    uint32_t v;
    if (field.empty()) {
      if (!skipEmpty) return false;
    } else if (!ParseU32(field, &v)) {
      return false;
    } else {
      out->push_back(v);
    }
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  return true;
}

bool LoadCommandCodes(const std::string& path, CommandCodes* codes, std::string* error) {
  struct Entry {
    const char* name;
    unsigned long long* code;
  };
  CommandCodes c;
  const Entry entries[] = {{"GET_PERFORMANCE_SWITCH", &c.getSwitch},
                           {"SET_PERFORMANCE_SWITCH", &c.setSwitch},
                           {"GET_CUR_STATISTIC_DATA", &c.getStats},
                           {"GET_SNMP_FEATURES", &c.getFeatures}};
  pugi::xml_document doc;
  pugi::xml_node section;
  if (!path.empty()) {
    const pugi::xml_parse_result parsed = doc.load_file(path.c_str());
    if (!parsed) {
      *error = path + ": " + parsed.description();
      return false;
    }
    section = doc.child("device").find_child_by_attribute("section", "name", "COMMAND");
    if (!doc.child("device")) {
      *error = path + ": not a device configuration (no <device> element)";
      return false;
    }
  }
  for (const Entry& e : entries) {
    std::string text;
    if (!path.empty()) {
      text = section.find_child_by_attribute("item", "key", e.name).attribute("value").as_string();
    } else {
      CVEMXmlConfig::instance()->getDeviceItem("COMMAND", e.name, text);
    }
    if (text.empty()) continue;  // keeps the shipped default
    uint64_t v = 0;
    if (!ParseDecimal(text, UINT64_MAX, &v)) {
      *error = std::string("command ") + e.name + ": '" + text + "' is not a decimal code";
      return false;
    }
    *e.code = v;
  }
  *codes = c;
  return true;
}

ArraySimulator::ArraySimulator(Topology topology, uint64_t seed, const CommandCodes& codes)
    : topology_(std::move(topology)),
      model_(seed),
      codes_(codes),
      switch_(topology_.switchOn ? 1u : 0u),
      faults_(seed ^ 0xFA17ULL),
      baseAt_(std::chrono::steady_clock::now()) {}

uint64_t ArraySimulator::nowMs() const {
  std::lock_guard<std::mutex> lock(clockMu_);
  if (frozen_) return frozenMs_;
  const auto elapsed = std::chrono::steady_clock::now() - baseAt_;
  return baseMs_ + static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count());
}

void ArraySimulator::freezeClock(uint64_t ms) {
  std::lock_guard<std::mutex> lock(clockMu_);
  frozen_ = true;
  frozenMs_ = ms;
}

void ArraySimulator::runClock() {
  const uint64_t now = nowMs();
  std::lock_guard<std::mutex> lock(clockMu_);
  frozen_ = false;
  baseMs_ = now;
  baseAt_ = std::chrono::steady_clock::now();
}

std::vector<std::pair<std::string, unsigned long long>> CommandNames(const CommandCodes& codes) {
  return {{"GET_PERFORMANCE_SWITCH", codes.getSwitch},
          {"SET_PERFORMANCE_SWITCH", codes.setSwitch},
          {"GET_CUR_STATISTIC_DATA", codes.getStats},
          {"GET_SNMP_FEATURES", codes.getFeatures},
          {"LISTING", kListingCmd},
          {"SORTED_LISTING", kSortedListingCmd},
          {"LUN_BATCH_STATS", kLunBatchStatsCmd},
          {"SIM_CONTROL", kSimControlCmd}};
}

bool ArraySimulator::commandByName(const std::string& name, unsigned long long* id) const {
  for (const auto& n : CommandNames(codes_)) {
    if (name == n.first) {
      *id = n.second;
      return true;
    }
  }
  return false;
}

bool ArraySimulator::parseFault(const std::string& text, FaultRule* out, std::string* error) const {
  return ParseFault(
      text, [this](const std::string& name, unsigned long long* id) { return commandByName(name, id); }, out, error);
}

bool ArraySimulator::parseLatency(const std::string& text, LatencySetting* out, std::string* error) const {
  return ParseLatency(
      text, [this](const std::string& name, unsigned long long* id) { return commandByName(name, id); }, out, error);
}

std::map<unsigned long long, uint64_t> ArraySimulator::commandCounts() const {
  std::lock_guard<std::mutex> lock(countMu_);
  return counts_;
}

size_t ArraySimulator::memoryBytes() const {
  size_t bytes = sizeof *this;
  bytes += topology_.luns.capacity() * sizeof(uint32_t) + topology_.fileSystems.capacity() * sizeof(uint32_t);
  for (const SimPort& p : topology_.ports) bytes += sizeof p + p.name.capacity() + p.bond.capacity();
  for (const std::string& c : topology_.controllers) bytes += sizeof c + c.capacity();
  return bytes;
}

uint32_t ArraySimulator::objectKey(uint32_t objType, const std::string& objId, uint64_t* key) const {
  const int feature = FeatureOf(objType);
  if (feature != 0 && topology_.features.count(feature) == 0) return kSimErrNotSupported;
  uint32_t n;
  if (objType == kObjLun || objType == kObjFileSystem) {
    const std::vector<uint32_t>& ids = objType == kObjLun ? topology_.luns : topology_.fileSystems;
    if (!ParseU32(objId, &n) || !std::binary_search(ids.begin(), ids.end(), n)) return kSimErrNoObject;
    *key = n;
    return kSimOk;
  }
  if (IsPortType(objType)) {
    const long i = topology_.findPort(objType, objId);
    if (i < 0) return kSimErrNoObject;
    *key = topology_.ports[static_cast<size_t>(i)].id;
    return kSimOk;
  }
  if (objType == kObjController || feature == kFeatureNfs || feature == kFeatureSmb) {
    if (topology_.findController(objId) < 0) return kSimErrNoObject;
    *key = NodeOf(objId);
    return kSimOk;
  }
  return kSimErrBadObjectType;
}

uint32_t ArraySimulator::valuesText(uint32_t objType, uint64_t key, const std::vector<uint32_t>& items, uint64_t tMs,
                                    std::string* text) const {
  std::vector<uint32_t> values;
  values.reserve(items.size());
  const bool fsPerf = topology_.features.count(kFeatureFsPerf) != 0;
  for (uint32_t item : items) {
    uint32_t v;
    if (objType == kObjController && (item == 475 || item == 476) && !fsPerf) return kSimErrUnknownItem;
    if (!model_.value(objType, key, item, tMs, &v)) return kSimErrUnknownItem;
    values.push_back(v);
  }
  *text = JoinNumbers(values);
  return kSimOk;
}

uint32_t ArraySimulator::statistics(uint32_t objType, const std::string& objId, const std::vector<uint32_t>& items,
                                    std::vector<uint32_t>* values) const {
  uint64_t key;
  const uint32_t rc = objectKey(objType, objId, &key);
  if (rc != kSimOk) return rc;
  std::string text;
  const uint32_t vr = valuesText(objType, key, items, nowMs(), &text);
  if (vr != kSimOk) return vr;
  ParseIdList(text, false, values);
  return kSimOk;
}

Reply ArraySimulator::handle(const unsigned char* frame, size_t size) {
  Reply reply;
  CTLVPackage req;
  std::vector<unsigned char> copy(frame, frame + size);
  if (size < TLVMsgHeadV3::SIZE || req.decode(copy.data(), static_cast<unsigned int>(size)) == CTLVPackage::FAILED ||
      req.empty()) {
    reply.bytes = AnswerWriter::Empty(kSimErrMalformed);
    return reply;
  }
  const CTLVRecordV3& record = *req[0];
  {
    std::lock_guard<std::mutex> lock(countMu_);
    auto it = counts_.find(record.id());
    if (it != counts_.end()) {
      ++it->second;
    } else if (counts_.size() < kMaxCountedCommands) {
      counts_[record.id()] = 1;
    }
  }
  std::vector<unsigned char> normal;
  if (req.size() != 1) {
    normal = AnswerWriter::Empty(kSimErrMalformed);
  } else {
    try {
      normal = answer(record);
    } catch (const CVEM_Exception&) {
      normal = AnswerWriter::Empty(kSimErrMalformed);
    }
  }
  if (record.id() == kSimControlCmd) {
    reply.bytes = std::move(normal);
    return reply;
  }
  // The array's latency, then a fault if one hits (a delay fault adds to it).
  const uint32_t latencyMs = latency_.of(record.id());
  FaultRule fault;
  if (faults_.match(record.id(), &fault)) {
    reply = faulted(fault, std::move(normal));
  } else {
    reply.bytes = std::move(normal);
  }
  reply.delayMs += latencyMs;
  return reply;
}

Reply ArraySimulator::faulted(const FaultRule& fault, std::vector<unsigned char> normal) const {
  Reply reply;
  reply.closeAfter = true;
  switch (fault.kind) {
    case FaultKind::kRefuse:
      reply.bytes = AnswerWriter::Empty(fault.code);
      reply.closeAfter = false;
      break;
    case FaultKind::kDelay:
      reply.bytes = std::move(normal);
      reply.delayMs = fault.delayMs;
      reply.closeAfter = false;
      break;
    case FaultKind::kClose:
      break;
    case FaultKind::kGarbage: {
      const char text[] = "this is not a TLV frame: the simulator was told to send garbage\n";
      reply.bytes.assign(text, text + sizeof text - 1);
      break;
    }
    case FaultKind::kTruncate: {
      const size_t body = normal.size() - TLVMsgHeadV3::SIZE;
      if (body == 0) tlv::EncodeFixed32(normal.data() + 24, 16);  // announce a body that never comes
      normal.resize(TLVMsgHeadV3::SIZE + body / 2);
      reply.bytes = std::move(normal);
      break;
    }
    case FaultKind::kBadMagic:
      tlv::EncodeFixed32(normal.data(), 0xDEADBEEF);
      reply.bytes = std::move(normal);
      break;
    case FaultKind::kBadVersion:
      tlv::EncodeFixed32(normal.data() + 4, TLVMsgHeadV3::VERSION + 1);
      reply.bytes = std::move(normal);
      break;
    case FaultKind::kHugeLength:
      normal.resize(TLVMsgHeadV3::SIZE);
      tlv::EncodeFixed32(normal.data() + 24, 0xFFFFFFF0u);
      reply.bytes = std::move(normal);
      break;
    case FaultKind::kBadValues:
      reply.bytes = SpoilValues(std::move(normal));
      reply.closeAfter = false;
      break;
    case FaultKind::kBadBody: {
      // A well-framed answer whose one record header announces more bytes
      // than the body has: the frame arrives whole, the codec refuses it.
      normal.resize(TLVMsgHeadV3::SIZE + 10);
      tlv::EncodeFixed32(normal.data() + 24, 10);
      tlv::EncodeFixed64(normal.data() + TLVMsgHeadV3::SIZE, 1);
      tlv::EncodeFixed16(normal.data() + TLVMsgHeadV3::SIZE + 8, 0xFFFF);
      reply.bytes = std::move(normal);
      break;
    }
  }
  return reply;
}

std::vector<unsigned char> ArraySimulator::answer(const CTLVRecordV3& record) {
  const unsigned long long id = record.id();
  if (id == codes_.getSwitch) {
    AnswerWriter w;
    w.beginRecord(kAnswerId);
    w.u32(kTagSwitchState, switch_.load());
    return w.finish();
  }
  if (id == codes_.setSwitch) return setSwitchAnswer(record);
  if (id == codes_.getStats) return curStatistics(record);
  if (id == codes_.getFeatures) {
    AnswerWriter w;
    for (int f : topology_.features) {
      w.beginRecord(kAnswerId);
      w.u32(kTagFeature, static_cast<uint32_t>(f));
    }
    return w.finish();
  }
  if (id == kListingCmd) return listing(record, false);
  if (id == kSortedListingCmd) return listing(record, true);
  if (id == kLunBatchStatsCmd) return lunBatchStatistics(record);
  if (id == kSimControlCmd) return control(record);
  return AnswerWriter::Empty(kSimErrUnknownCommand);
}

std::vector<unsigned char> ArraySimulator::setSwitchAnswer(const CTLVRecordV3& record) {
  uint64_t v;
  if (!ReadNumber(record, kTagSwitchState, &v)) return AnswerWriter::Empty(kSimErrMalformed);
  if (v > 1) return AnswerWriter::Empty(kSimErrBadValue);
  switch_.store(static_cast<uint32_t>(v));
  return AnswerWriter::Empty(kSimOk);
}

std::vector<unsigned char> ArraySimulator::curStatistics(const CTLVRecordV3& record) {
  std::string key, itemsText;
  std::vector<uint32_t> items;
  if (!ReadText(record, kTagStatsKey, &key) || !ReadText(record, kTagStatsItems, &itemsText) ||
      !ParseIdList(itemsText, false, &items)) {
    return AnswerWriter::Empty(kSimErrMalformed);
  }
  const size_t colon = key.find(':');
  uint32_t type;
  if (colon == std::string::npos || !ParseU32(key.substr(0, colon), &type)) {
    return AnswerWriter::Empty(kSimErrMalformed);
  }
  if (switch_.load() != 1) return AnswerWriter::Empty(kSimErrSwitchOff);
  uint64_t objKey;
  uint32_t rc = objectKey(type, key.substr(colon + 1), &objKey);
  std::string values;
  if (rc == kSimOk) rc = valuesText(type, objKey, items, nowMs(), &values);
  if (rc != kSimOk) return AnswerWriter::Empty(rc);
  AnswerWriter w;
  w.beginRecord(kAnswerId);
  w.str(kTagStatsValues, values);
  return w.finish();
}

std::vector<unsigned char> ArraySimulator::lunBatchStatistics(const CTLVRecordV3& record) {
  uint64_t type;
  std::string idsText, itemsText;
  std::vector<uint32_t> ids, items;
  if (!ReadNumber(record, kTagBatchType, &type) || !ReadText(record, kTagBatchIds, &idsText) ||
      !ReadText(record, kTagStatsItems, &itemsText) || !ParseIdList(idsText, true, &ids) ||
      !ParseIdList(itemsText, false, &items)) {
    return AnswerWriter::Empty(kSimErrMalformed);
  }
  if (type != kObjLun) return AnswerWriter::Empty(kSimErrBadObjectType);
  if (ids.size() > kMaxBatchObjects) return AnswerWriter::Empty(kSimErrTooMany);
  const std::vector<uint32_t> published = WorkloadModel::itemsOf(kObjLun);
  for (uint32_t item : items) {
    if (!std::binary_search(published.begin(), published.end(), item)) return AnswerWriter::Empty(kSimErrUnknownItem);
  }
  if (switch_.load() != 1) return AnswerWriter::Empty(kSimErrSwitchOff);
  const uint64_t t = nowMs();
  AnswerWriter w;
  for (uint32_t id : ids) {
    // A LUN deleted since the listing has no record in the answer.
    if (!std::binary_search(topology_.luns.begin(), topology_.luns.end(), id)) continue;
    std::string values;
    valuesText(kObjLun, id, items, t, &values);
    w.beginRecord(kAnswerId);
    w.str(kTagBatchId, std::to_string(id));
    w.str(kTagStatsValues, values);
  }
  return w.finish();
}

std::vector<unsigned char> ArraySimulator::listing(const CTLVRecordV3& record, bool sorted) {
  uint64_t type;
  if (!ReadNumber(record, kTagObjectType, &type) || type > 0xFFFFFFFFULL) return AnswerWriter::Empty(kSimErrMalformed);
  bool descending = false;
  if (sorted && record.hasTag(kTagSortOrder)) {
    std::string text;
    Json::Value sort;
    Json::CharReaderBuilder builder;
    std::istringstream in;
    std::string errors;
    if (!ReadText(record, kTagSortOrder, &text)) return AnswerWriter::Empty(kSimErrMalformed);
    in.str(text);
    if (!Json::parseFromStream(builder, in, &sort, &errors) || !sort.isObject() || !sort["sortby"].isString()) {
      return AnswerWriter::Empty(kSimErrMalformed);
    }
    const std::string by = sort["sortby"].asString();
    if (by == "1 DESC") {
      descending = true;
    } else if (by != "1 ASC") {
      return AnswerWriter::Empty(kSimErrMalformed);
    }
  }
  const uint32_t t = static_cast<uint32_t>(type);
  if (t == kObjLun || t == kObjFileSystem) return pagedListing(record, t, descending);
  if (sorted) return AnswerWriter::Empty(kSimErrBadObjectType);
  AnswerWriter w;
  if (t == kObjController) {
    for (const std::string& c : topology_.controllers) {
      w.beginRecord(kAnswerId);
      w.t6(kTagObjectType, kObjController);
      w.str(kTagObjectId, c);
      w.str(kTagObjectName, "controller " + c);
    }
    return w.finish();
  }
  if (!IsPortType(t)) return AnswerWriter::Empty(kSimErrBadObjectType);
  for (const SimPort& p : topology_.ports) {
    if (p.type != t) continue;
    w.beginRecord(kAnswerId);
    w.t6(kTagObjectType, t);
    w.str(kTagObjectId, std::to_string(p.id));
    w.str(t == kObjPortBond ? kTagObjectName : kTagPortName, p.name);
    w.u32(kTagPortStatus, p.status);
    if (!p.bond.empty()) w.str(kTagPortBond, p.bond);
  }
  return w.finish();
}

std::vector<unsigned char> ArraySimulator::pagedListing(const CTLVRecordV3& record, uint32_t type, bool descending) {
  const std::vector<uint32_t>& ids = type == kObjLun ? topology_.luns : topology_.fileSystems;
  const size_t n = ids.size();
  // Position j in listing order: ids[j] ascending, ids[n - 1 - j] descending.
  size_t j = 0;
  if (record.hasTag(kTagListingKey)) {
    std::string keyText;
    uint32_t key;
    if (!ReadText(record, kTagListingKey, &keyText)) return AnswerWriter::Empty(kSimErrMalformed);
    if (!keyText.empty()) {
      if (!ParseU32(keyText, &key)) return AnswerWriter::Empty(kSimErrMalformed);
      j = descending ? n - static_cast<size_t>(std::lower_bound(ids.begin(), ids.end(), key) - ids.begin())
                     : static_cast<size_t>(std::upper_bound(ids.begin(), ids.end(), key) - ids.begin());
    }
  }
  AnswerWriter w;
  const size_t end = std::min(n, j + topology_.pageSize);
  for (; j < end; ++j) {
    const uint32_t id = descending ? ids[n - 1 - j] : ids[j];
    char name[32];
    snprintf(name, sizeof name, type == kObjLun ? "LUN%05u" : "fs%04u", id);
    w.beginRecord(kAnswerId);
    w.t6(kTagObjectType, type);
    w.str(kTagObjectId, std::to_string(id));
    w.str(kTagObjectName, name);
  }
  w.beginRecord(kAnswerId);
  w.u32(kTagControl, end < n ? 0 : 1);
  return w.finish();
}

std::vector<unsigned char> ArraySimulator::control(const CTLVRecordV3& record) {
  std::string action, arg;
  if (!ReadText(record, 0, &action)) return AnswerWriter::Empty(kSimErrMalformed);
  if (action == "fault") {
    FaultRule rule;
    std::string error;
    if (!ReadText(record, 1, &arg) || !parseFault(arg, &rule, &error)) return AnswerWriter::Empty(kSimErrMalformed);
    addFault(rule);
    return AnswerWriter::Empty(kSimOk);
  }
  if (action == "clear-faults") {
    clearFaults();
    return AnswerWriter::Empty(kSimOk);
  }
  if (action == "latency") {
    LatencySetting setting;
    std::string error;
    if (!ReadText(record, 1, &arg) || !parseLatency(arg, &setting, &error)) {
      return AnswerWriter::Empty(kSimErrMalformed);
    }
    setLatency(setting);
    return AnswerWriter::Empty(kSimOk);
  }
  if (action == "clear-latency") {
    clearLatency();
    return AnswerWriter::Empty(kSimOk);
  }
  AnswerWriter w;
  if (action == "list-latency") {
    for (const LatencySetting& l : latencies()) {
      w.beginRecord(kAnswerId);
      w.str(1, LatencyText(l));
    }
    return w.finish();
  }
  if (action == "list-faults") {
    for (const FaultRule& f : faults()) {
      w.beginRecord(kAnswerId);
      w.str(1, FaultText(f));
    }
    return w.finish();
  }
  if (action == "counts") {
    for (const auto& c : commandCounts()) {
      w.beginRecord(kAnswerId);
      w.t6(0, c.first);
      w.t6(1, c.second);
    }
    return w.finish();
  }
  if (action == "freeze-clock") {
    uint64_t ms;
    if (!ReadNumber(record, 1, &ms) || ms >= (1ULL << 50)) return AnswerWriter::Empty(kSimErrMalformed);
    freezeClock(ms);
    return AnswerWriter::Empty(kSimOk);
  }
  if (action == "run-clock") {
    runClock();
    return AnswerWriter::Empty(kSimOk);
  }
  if (action == "clock") {
    w.beginRecord(kAnswerId);
    w.t6(0, nowMs());
    return w.finish();
  }
  return AnswerWriter::Empty(kSimErrMalformed);
}

}  // namespace zerva_sim
