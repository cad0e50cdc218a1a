#include "tests/protocol/protocol_examples.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <set>
#include <sstream>

#include "diag/vem_exception.h"
#include "performance/command_code.h"
#include "performance/snmp_zerva_performance_fileSystem_handler.h"
#include "performance/snmp_zerva_performance_lun_handler.h"
#include "performance/snmp_zerva_performance_node_handler.h"
#include "performance/snmp_zerva_performance_port_handler.h"
#include "performance/snmp_zerva_performance_switch.h"
#include "snmpcommon/snmp_backend_capability.h"
#include "snmpcommon/snmp_configuration.h"
#include "snmpcommon/snmp_context.h"
#include "tests/support/fake_backend.h"
#include "tlv/backend_codes.h"
#include "tlv/coding.h"
#include "tlv/vem_message_package.h"
#include "vempub/vem_xml_config.h"

#ifndef ZERVA_SHIPPED_DEVICE_CONFIG
#error "ZERVA_SHIPPED_DEVICE_CONFIG must name host/vempub/config/vem-device.xml"
#endif

namespace zerva_protocol {

using zerva_test::Answer;
using zerva_test::BackendFixture;
using zerva_test::Call;
using zerva_test::FakeBackend;
using zerva_test::Rec;

namespace {

using backend::kLunBatchStatsCmd;
using backend::kObjectListingCmd;
using backend::kSortedListingCmd;

// Statistic values the scenarios answer for the objects they list.
const char kPortValues[] = "1200,800,400,64,16,12,4000,2500,3";
const char kNodeValues[] = "35,40,5200,3100,2100,14,9,6,120,30,25";
const char kLunValues[] = "850,1000,600,400,24,16,12,9,4,2,3,1,0";
const char kFsValues[] = "420,380,6000,4,5200,3,7,5";

// A frame holding these records, with the result code in hdrWord0.
Bytes Frame(const std::vector<Rec>& records, unsigned int result) {
  CTLVPackage pkg;
  for (const Rec& r : records) pkg.push_back(r.build());
  pkg.head().hdrWord0 = result;
  return zerva_test::Encode(pkg);
}

// The answer a FakeBackend gives for a frame, decoded as the socket transport
// decodes it: a frame that does not decode, or that carries one of the
// host's reserved transport codes, is a bad frame; otherwise the result is
// hdrWord0 and the records are the decoded ones.
Answer FromFrame(const Bytes& frame) {
  Bytes copy = frame;
  CTLVPackage pkg;
  if (copy.size() < TLVMsgHeadV3::SIZE ||
      pkg.decode(copy.data(), static_cast<unsigned int>(copy.size())) == CTLVPackage::FAILED) {
    return Answer(SNMP_TRANSPORT_E_BAD_FRAME);
  }
  const int result = static_cast<int>(tlv::DecodeFixed32(copy.data() + 8));
  if (IsSnmpTransportError(result)) return Answer(SNMP_TRANSPORT_E_BAD_FRAME);
  Answer answer;
  answer.code = result;
  for (const CTLVRecordV3* record : pkg.records()) {
    Rec rec(record->id());
    for (const CTLVCell* cell : record->cells()) {
      rec.cell(cell->tag(), cell->type(), std::vector<unsigned char>(cell->value(), cell->value() + cell->length()));
    }
    answer.records.push_back(rec);
  }
  return answer;
}

// The back end, the test device configuration replaced by the shipped one,
// and a capability set, for one scenario.
class Scene {
 public:
  explicit Scene(std::set<int> features) : fixture_(std::move(features)) { LoadShippedDeviceConfig(nullptr); }
  FakeBackend& backend() { return fixture_.backend(); }
  BackendFixture& fixture() { return fixture_; }

 private:
  BackendFixture fixture_;
};

// Answers every GET_CUR_STATISTIC_DATA with these values.
void AnswerStats(FakeBackend& backend, const std::string& values) {
  backend.on(zerva_test::kGetStatsCmd, Answer{Rec(zerva_test::kGetStatsCmd).str(backend::kTagStatsValues, values)});
}

// The object type of a listing request.
unsigned long long ListedType(const Call& call) {
  std::unique_ptr<CTLVPackage> pkg = call.package();
  if (pkg->empty() || !(*pkg)[0]->hasTag(backend::kTagListingType)) return 0;
  const CTLVCell* cell = (*(*pkg)[0])[backend::kTagListingType];
  return cell->length() == 8 ? tlv::DecodeFixed64(cell->value()) : CTLVCell::ValueCast<unsigned int>()(cell);
}

// Puts the first request with that identifier (and, when objectType is not
// 0, that listed object type) into run; notes its absence otherwise.
void TakeRequest(const FakeBackend& backend, unsigned long long id, unsigned long long objectType, ExampleRun* run) {
  for (const Call& call : backend.callsTo(id)) {
    if (objectType != 0 && ListedType(call) != objectType) continue;
    run->request = call.bytes;
    return;
  }
  char text[96];
  snprintf(text, sizeof text, "the handler sent no request 0x%llX", id);
  run->error = text;
}

void AddResult(int result, ExampleRun* run) { run->outcome.push_back("result " + std::to_string(result)); }

void AddRows(const CTLVPackage& rsp, ExampleRun* run) {
  for (const CTLVRecordV3* row : rsp.records()) run->outcome.push_back("row " + zerva_test::RecordText(*row));
}

// Puts what one handler call did into run: the request it sent (as
// TakeRequest finds it), its result and the rows of its answer.
void AddCall(const FakeBackend& backend, unsigned long long id, unsigned long long objectType, int result,
             const CTLVPackage& rsp, ExampleRun* run) {
  TakeRequest(backend, id, objectType, run);
  AddResult(result, run);
  AddRows(rsp, run);
}

// Calls OnQueryTable of a new Handler with ctx and an empty request, and puts
// what it did into run (see AddCall).
template <typename Handler>
void QueryTable(Scene& scene, const CVEM_SnmpContext& ctx, unsigned long long id, unsigned long long objectType,
                ExampleRun* run) {
  Handler handler;
  CTLVPackage req;
  CTLVPackage rsp;
  const int result = handler.OnQueryTable(ctx, req, rsp);
  AddCall(scene.backend(), id, objectType, result, rsp, run);
}

// Runs body, turning an exception that leaves the handler into an outcome line.
template <typename F>
ExampleRun Guarded(F body) {
  ExampleRun run;
  try {
    body(&run);
  } catch (const CVEM_Exception& e) {
    run.outcome.push_back(std::string("exception: ") + e.what());
  }
  return run;
}

// --- the scenarios ---------------------------------------------------------

Bytes SwitchReadAnswer() { return Frame({Rec(zerva_test::kGetSwitchCmd).u32(backend::kTagSwitchState, 1)}, 0); }

ExampleRun RunSwitchRead(const Bytes& answer) {
  return Guarded([&](ExampleRun* run) {
    Scene scene({});
    scene.backend().on(zerva_test::kGetSwitchCmd, FromFrame(answer));
    CPerformanceSwithHandler handler;
    CTLVPackage req;
    CTLVPackage rsp;
    const int result = handler.OnQueryLeaf(CVEM_SnmpContext(), req, rsp);
    AddCall(scene.backend(), zerva_test::kGetSwitchCmd, 0, result, rsp, run);
  });
}

Bytes SwitchSetAnswer() { return Frame({}, 0); }
// A refusal: the back end's own code, 13 here, in hdrWord0 and no records.
Bytes SwitchSetRefusedAnswer() { return Frame({}, 13); }

ExampleRun RunSwitchSet(const Bytes& answer) {
  return Guarded([&](ExampleRun* run) {
    Scene scene({});
    scene.backend().on(zerva_test::kSetSwitchCmd, FromFrame(answer));
    CPerformanceSwithHandler handler;
    CTLVPackage req;
    req.push_back(Rec().u32(0, 1).build());  // the manager writes 1
    CTLVPackage rsp;
    const int result = handler.OnSetLeaf(CVEM_SnmpContext(), req, rsp);
    AddCall(scene.backend(), zerva_test::kSetSwitchCmd, 0, result, rsp, run);
  });
}

// A listed Ethernet port: ID, name and status.
Rec Port(const std::string& id, const std::string& name, unsigned int status) {
  return Rec(kObjectListingCmd)
      .str(backend::kTagObjectId, id)
      .str(backend::kTagPortName, name)
      .u32(backend::kTagPortStatus, status);
}

Bytes PortListingAnswer() {
  return Frame({Port("4097", "CTE0.A.IOM0.P0", 0), Port("4098", "CTE0.A.IOM0.P1", 1),
                Port("4099", "CTE0.B.IOM0.P0", 5).str(backend::kTagPortBond, "1")},
               0);
}

ExampleRun RunPortListing(const Bytes& answer) {
  return Guarded([&](ExampleRun* run) {
    Scene scene({});
    scene.fixture().setSwitch(1);
    scene.backend().onListing(backend::kObjTypePortEth, FromFrame(answer));
    for (unsigned long long type : {backend::kObjTypePortFc, backend::kObjTypePortFcoe, backend::kObjTypePortBond}) {
      scene.backend().onListing(type, Answer());
    }
    AnswerStats(scene.backend(), kPortValues);
    QueryTable<CPerformancePortHandler>(scene, CVEM_SnmpContext(), kObjectListingCmd, backend::kObjTypePortEth, run);
  });
}

// A listed object: its ID only.
Rec Listed(const std::string& id) { return Rec(kObjectListingCmd).str(backend::kTagObjectId, id); }

// The control record that ends a listing.
Rec EndOfListing() { return Rec(kObjectListingCmd).u32(backend::kTagControl, 1); }

Bytes ControllerListingAnswer() { return Frame({Listed("0A"), Listed("0B")}, 0); }

ExampleRun RunControllerListing(const Bytes& answer) {
  return Guarded([&](ExampleRun* run) {
    Scene scene({SNMP_FEATURE_FILESYSTEM_PERF});
    scene.fixture().setSwitch(1);
    scene.backend().onListing(backend::kObjTypeController, FromFrame(answer));
    AnswerStats(scene.backend(), kNodeValues);
    QueryTable<CPerformanceNodeHandler>(scene, CVEM_SnmpContext(), kObjectListingCmd, backend::kObjTypeController, run);
  });
}

Bytes StatisticsAnswer() {
  return Frame({Rec(zerva_test::kGetStatsCmd).str(backend::kTagStatsValues, kNodeValues)}, 0);
}

ExampleRun RunStatistics(const Bytes& answer) {
  return Guarded([&](ExampleRun* run) {
    Scene scene({SNMP_FEATURE_FILESYSTEM_PERF});
    scene.fixture().setSwitch(1);
    scene.backend().onListing(backend::kObjTypeController, Answer{Listed("0A")});
    scene.backend().on(zerva_test::kGetStatsCmd, FromFrame(answer));
    QueryTable<CPerformanceNodeHandler>(scene, CVEM_SnmpContext(), zerva_test::kGetStatsCmd, 0, run);
  });
}

// One record of a batch statistics answer.
Rec BatchStats(const std::string& id, const std::string& values) {
  return Rec(kLunBatchStatsCmd).str(backend::kTagBatchObjectId, id).str(backend::kTagStatsValues, values);
}

// Answers the LUN batch command with one statistics record per LUN ID of
// its ID list (empty fields skipped), each with kLunValues.
Answer LunBatchAnswer(const CTLVPackage& req, bool) {
  Answer answer;
  const std::string ids = (*req[0])[backend::kTagBatchObjectIds]->toString();
  std::stringstream in(ids);
  std::string id;
  while (std::getline(in, id, ',')) {
    if (!id.empty()) answer.records.push_back(BatchStats(id, kLunValues));
  }
  return answer;
}

Bytes LunListingAnswer() { return Frame({Listed("160"), Listed("161"), EndOfListing()}, 0); }

ExampleRun RunLunListing(const Bytes& answer) {
  return Guarded([&](ExampleRun* run) {
    Scene scene({});
    scene.fixture().setSwitch(1);
    scene.backend().onListing(backend::kObjTypeLun, FromFrame(answer));
    scene.backend().on(kLunBatchStatsCmd, LunBatchAnswer);
    // A GETNEXT from the row of LUN 159: the walk continues after key "159".
    QueryTable<CPerformanceLunHandler>(scene, CVEM_SnmpContext(SNMP_OP_GETNEXT, Agentpp::Oidx{159}, 0),
                                       kObjectListingCmd, backend::kObjTypeLun, run);
  });
}

Bytes LunBatchAnswerFrame() {
  return Frame(
      {BatchStats("0", "850,1000,600,400,24,16,12,9,4,2,3,1,0"), BatchStats("1", "90,200,50,150,8,6,3,1,0,0,0,0,0")},
      0);
}

ExampleRun RunLunBatch(const Bytes& answer) {
  return Guarded([&](ExampleRun* run) {
    Scene scene({});
    scene.fixture().setSwitch(1);
    scene.backend().onListing(backend::kObjTypeLun, Answer{Listed("0"), Listed("1"), EndOfListing()});
    scene.backend().on(kLunBatchStatsCmd, FromFrame(answer));
    QueryTable<CPerformanceLunHandler>(scene, CVEM_SnmpContext(SNMP_OP_WALK, Agentpp::Oidx(), 0), kLunBatchStatsCmd, 0,
                                       run);
  });
}

Bytes FsListingAnswer() {
  return Frame(
      {Rec(kSortedListingCmd).str(backend::kTagObjectId, "12"), Rec(kSortedListingCmd).str(backend::kTagObjectId, "13"),
       Rec(kSortedListingCmd).u32(backend::kTagControl, 1)},
      0);
}

ExampleRun RunFsListing(const Bytes& answer) {
  return Guarded([&](ExampleRun* run) {
    Scene scene({SNMP_FEATURE_FILESYSTEM_PERF});
    scene.fixture().setSwitch(1);
    scene.backend().on(kSortedListingCmd, FromFrame(answer));
    AnswerStats(scene.backend(), kFsValues);
    QueryTable<CPerformanceFileSystemHandler>(scene, CVEM_SnmpContext(SNMP_OP_WALK, Agentpp::Oidx(), 0),
                                              kSortedListingCmd, 0, run);
  });
}

unsigned long long FeaturesCmd() { return static_cast<unsigned long long>(perf::CommandCode(kSnmpFeaturesCommand)); }

Bytes FeaturesAnswer() {
  // The configuration must be loaded for the code; the scenario loads it too.
  LoadShippedDeviceConfig(nullptr);
  const unsigned long long cmd = FeaturesCmd();
  return Frame({Rec(cmd).u32(0, SNMP_FEATURE_NFS), Rec(cmd).u32(0, SNMP_FEATURE_CIFS),
                Rec(cmd).u32(0, SNMP_FEATURE_FILESYSTEM_PERF)},
               0);
}

ExampleRun RunFeatures(const Bytes& answer) {
  return Guarded([&](ExampleRun* run) {
    Scene scene({});
    const unsigned long long cmd = FeaturesCmd();
    scene.backend().on(cmd, FromFrame(answer));
    CBackendCapabilitySource source;
    for (int feature : {SNMP_FEATURE_NFS, SNMP_FEATURE_CIFS, SNMP_FEATURE_FILESYSTEM_PERF}) {
      run->outcome.push_back("feature " + std::to_string(feature) + ": " +
                             (source.supports(feature) ? "supported" : "not supported"));
    }
    run->outcome.push_back(std::string("answer kept: ") + (source.answered() ? "yes" : "no"));
    TakeRequest(scene.backend(), cmd, 0, run);
  });
}

}  // namespace

const std::vector<Example>& Examples() {
  static const std::vector<Example> examples = {
      {"switch-read", "`CPerformanceSwithHandler::queryLeaf` (a manager reads the switch scalar)",
       "The answer's first record carries the state in its tag-0 cell.", SwitchReadAnswer, RunSwitchRead},
      {"switch-set", "`CPerformanceSwithHandler::OnSetLeaf` (a manager writes 1 to the switch scalar)",
       "The answer carries result 0 in hdrWord0 and no record.", SwitchSetAnswer, RunSwitchSet},
      {"switch-set-refused", "`CPerformanceSwithHandler::OnSetLeaf` (a manager writes 1 to the switch scalar)",
       "The back end refuses with its own code 13 in hdrWord0; the handler returns it unchanged.",
       SwitchSetRefusedAnswer, RunSwitchSet},
      {"port-listing", "`CPerformancePortHandler::OnQueryTable` (the first of its four listings: port type 213)",
       std::string("The switch answers 1; the listings of port types 212, 252 and 235 answer no record; every "
                   "`GET_CUR_STATISTIC_DATA` answers \"") +
           kPortValues + "\". Port 4098 has status 1 and port 4099 a non-empty tag 70: both are left out.",
       PortListingAnswer, RunPortListing},
      {"controller-listing", "`CPerformanceNodeHandler::OnQueryTable` (controllers, object type 207)",
       std::string("Feature 602 is supported; the switch answers 1; every `GET_CUR_STATISTIC_DATA` answers \"") +
           kNodeValues + "\".",
       ControllerListingAnswer, RunControllerListing},
      {"statistics", "`CSnmpPerformanceCommon::GetBatchPerfData`, called by the node table for controller 0A",
       "Feature 602 is supported; the switch answers 1; the controller listing answers one record, tag 1 \"0A\".",
       StatisticsAnswer, RunStatistics},
      {"lun-listing", "`CSnmpTableBase::OnQueryTable` of the LUN table (a GETNEXT from the row of LUN 159)",
       "The switch answers 1; the batch command 59594907720 answers one statistics record per LUN it names, each "
       "with the values \"" +
           std::string(kLunValues) + "\".",
       LunListingAnswer, RunLunListing},
      {"lun-batch", "`CPerformanceLunHandler::QueryPerfLunData` (a walk of the LUN table)",
       "The switch answers 1; the listing answers LUNs \"0\" and \"1\" and a control record with tag 4095 = 1.",
       LunBatchAnswerFrame, RunLunBatch},
      {"fs-listing", "`CSnmpTableBase::OnQueryTable` of the file-system table (a walk from the first object)",
       std::string("Feature 602 is supported; the switch answers 1; every `GET_CUR_STATISTIC_DATA` answers \"") +
           kFsValues + "\".",
       FsListingAnswer, RunFsListing},
      {"features", "`CBackendCapabilitySource::supports` (the host's first capability question)",
       "The outcome lists what `checkOidFeatureSurport` then answers for features 48, 49 and 602.", FeaturesAnswer,
       RunFeatures},
  };
  return examples;
}

bool LoadShippedDeviceConfig(std::string* error) {
  CVEMXmlConfig::instance()->setPath(ZERVA_SHIPPED_DEVICE_CONFIG);
  return CVEMXmlConfig::instance()->load(error);
}

// --- hexdump ----------------------------------------------------------------

namespace {

const size_t kBytesPerLine = 16;

char Printable(unsigned char c) { return c >= 0x20 && c <= 0x7E ? static_cast<char>(c) : '.'; }

std::string Offset(size_t offset) {
  char text[24];
  snprintf(text, sizeof text, "%08zx", offset);
  return text;
}

// The hex column of one line (without the offset), padded to full width.
std::string HexColumn(const unsigned char* p, size_t n) {
  std::string out;
  for (size_t i = 0; i < kBytesPerLine; ++i) {
    if (i < n) {
      char hex[4];
      snprintf(hex, sizeof hex, "%02x ", p[i]);
      out += hex;
    } else {
      out += "   ";
    }
    if (i == 7) out += ' ';
  }
  return out;
}

bool Fail(std::string* error, const std::string& text) {
  if (error != nullptr) *error = text;
  return false;
}

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

}  // namespace

std::string HexDump(const Bytes& bytes) {
  std::string out;
  for (size_t off = 0; off < bytes.size(); off += kBytesPerLine) {
    const size_t n = std::min(kBytesPerLine, bytes.size() - off);
    out += Offset(off) + "  " + HexColumn(bytes.data() + off, n) + " |";
    for (size_t i = 0; i < n; ++i) out += Printable(bytes[off + i]);
    out += "|\n";
  }
  out += Offset(bytes.size()) + "\n";
  return out;
}

bool ParseHexDump(const std::string& text, Bytes* bytes, std::string* error) {
  bytes->clear();
  std::istringstream in(text);
  std::string line;
  int lineNo = 0;
  bool closed = false;
  bool shortSeen = false;  // only the last data line may hold fewer than 16 bytes
  while (std::getline(in, line)) {
    ++lineNo;
    const std::string where = "dump line " + std::to_string(lineNo) + ": ";
    if (closed) return Fail(error, where + "text after the closing length");
    if (line.size() < 8) return Fail(error, where + "no offset");
    size_t offset = 0;
    for (size_t i = 0; i < 8; ++i) {
      const int v = HexValue(line[i]);
      if (v < 0) return Fail(error, where + "offset is not 8 lower-case hex digits");
      offset = offset * 16 + static_cast<size_t>(v);
    }
    if (offset != bytes->size()) {
      return Fail(error, where + "offset " + Offset(offset) + " where " + Offset(bytes->size()) + " was expected");
    }
    if (line.size() == 8) {
      closed = true;
      continue;
    }
    const size_t bar = line.find(" |", 8);
    if (bar == std::string::npos || line.back() != '|') return Fail(error, where + "no |ascii| column");
    std::istringstream hex(line.substr(8, bar - 8));
    std::string token;
    Bytes row;
    while (hex >> token) {
      if (token.size() != 2 || HexValue(token[0]) < 0 || HexValue(token[1]) < 0) {
        return Fail(error, where + "'" + token + "' is not a lower-case hex byte");
      }
      row.push_back(static_cast<unsigned char>(HexValue(token[0]) * 16 + HexValue(token[1])));
    }
    if (row.empty() || row.size() > kBytesPerLine) return Fail(error, where + "wrong number of bytes");
    const std::string expected = Offset(offset) + "  " + HexColumn(row.data(), row.size());
    if (line.compare(0, bar, expected) != 0) return Fail(error, where + "columns are not laid out as hexdump -C");
    std::string ascii;
    for (unsigned char c : row) ascii += Printable(c);
    if (line.substr(bar + 2, line.size() - bar - 3) != ascii) {
      return Fail(error, where + "ASCII column does not match the bytes");
    }
    if (shortSeen) return Fail(error, where + "a short line must be the last data line");
    shortSeen = row.size() < kBytesPerLine;
    bytes->insert(bytes->end(), row.begin(), row.end());
  }
  if (!closed) return Fail(error, "dump has no closing length line");
  return true;
}

// --- frame description -------------------------------------------------------

namespace {

std::string Hex(unsigned long long v, int width) {
  char text[32];
  snprintf(text, sizeof text, "0x%0*llX", width, v);
  return text;
}

std::string TypeName(unsigned type) {
  switch (type) {
    case CTLVCell::TLV_TYPE_NONE:
      return "none";
    case CTLVCell::TLV_TYPE_STRING:
      return "text";
    case CTLVCell::TLV_TYPE_UINT:
      return "unsigned";
    case CTLVCell::TLV_TYPE_INT:
      return "signed";
    case CTLVCell::TLV_TYPE_UINT64:
      return "unsigned 64";
    default:
      return "other";
  }
}

std::string ValueText(unsigned type, const unsigned char* v, size_t n) {
  if (type == CTLVCell::TLV_TYPE_STRING) {
    std::string out = "\"";
    for (size_t i = 0; i < n; ++i) {
      if (v[i] == 0) {
        out += "\\0";
      } else if (v[i] == '"' || v[i] == '\\') {
        out += '\\';
        out += static_cast<char>(v[i]);
      } else {
        out += Printable(v[i]);
      }
    }
    return out + "\"";
  }
  if (n == 4 && type == CTLVCell::TLV_TYPE_INT) return std::to_string(static_cast<int32_t>(tlv::DecodeFixed32(v)));
  if (n == 4) return std::to_string(tlv::DecodeFixed32(v));
  if (n == 8) return std::to_string(tlv::DecodeFixed64(v));
  std::string out = "bytes";
  for (size_t i = 0; i < n; ++i) {
    char hex[4];
    snprintf(hex, sizeof hex, " %02x", v[i]);
    out += hex;
  }
  return out;
}

std::string At(size_t offset) { return "[" + Offset(offset) + "] "; }

// Appends one line per record and cell of the body bytes p[pos, end) to
// *out; a record or cell that cannot be read ends the listing with a note.
void DescribeRecords(const unsigned char* p, size_t pos, size_t end, std::string* out) {
  while (pos < end) {
    if (end - pos < CTLVPackage::MIN_RECORD_SIZE) {
      *out += At(pos) + "trailing bytes: not a record\n";
      return;
    }
    const unsigned long long id = tlv::DecodeFixed64(p + pos);
    const size_t len = tlv::DecodeFixed16(p + pos + 8);
    *out += At(pos) + "record " + Hex(id, 1) + " (" + std::to_string(id) + "), " + std::to_string(len) +
            " bytes of cells\n";
    size_t cell = pos + CTLVPackage::MIN_RECORD_SIZE;
    const size_t recordEnd = cell + len;
    if (recordEnd > end) {
      *out += At(cell) + "record runs past the end of the frame\n";
      return;
    }
    while (cell < recordEnd) {
      if (recordEnd - cell < CTLVPackage::MIN_TLV_SIZE) {
        *out += At(cell) + "trailing bytes: not a cell\n";
        return;
      }
      const unsigned tagWord = tlv::DecodeFixed16(p + cell);
      const size_t n = tlv::DecodeFixed16(p + cell + 2);
      if (cell + CTLVPackage::MIN_TLV_SIZE + n > recordEnd) {
        *out += At(cell) + "cell runs past its record\n";
        return;
      }
      const unsigned type = tagWord & 0xF;
      *out += At(cell) + "  tag " + std::to_string(tagWord >> 4) + ", type " + std::to_string(type) + " (" +
              TypeName(type) + "), " + std::to_string(n) +
              " bytes: " + ValueText(type, p + cell + CTLVPackage::MIN_TLV_SIZE, n) + "\n";
      cell += CTLVPackage::MIN_TLV_SIZE + n;
    }
    pos = recordEnd;
  }
}

}  // namespace

std::string DescribeFrame(const Bytes& frame) {
  if (frame.size() < TLVMsgHeadV3::SIZE) return "not a frame: " + std::to_string(frame.size()) + " bytes\n";
  const unsigned char* p = frame.data();
  std::string out = At(0) + "header: magic " + Hex(tlv::DecodeFixed32(p), 8) + ", version " +
                    std::to_string(tlv::DecodeFixed32(p + 4)) + ", hdrWord0 (result) " +
                    std::to_string(static_cast<int32_t>(tlv::DecodeFixed32(p + 8))) + ", hdrWord1 " +
                    Hex(tlv::DecodeFixed32(p + 12), 8) + ", hdrShort0..3 " + Hex(tlv::DecodeFixed16(p + 16), 4) + " " +
                    Hex(tlv::DecodeFixed16(p + 18), 4) + " " + Hex(tlv::DecodeFixed16(p + 20), 4) + " " +
                    Hex(tlv::DecodeFixed16(p + 22), 4) + ", dataLen " + std::to_string(tlv::DecodeFixed32(p + 24)) +
                    "\n";
  size_t pos = TLVMsgHeadV3::SIZE;
  const size_t dataLen = tlv::DecodeFixed32(p + 24);
  if (frame.size() - TLVMsgHeadV3::SIZE != dataLen) {
    out += "dataLen counts " + std::to_string(dataLen) + " bytes of body, the frame holds " +
           std::to_string(frame.size() - TLVMsgHeadV3::SIZE) + "\n";
  }
  const size_t end = std::min(frame.size(), TLVMsgHeadV3::SIZE + dataLen);
  DescribeRecords(p, pos, end, &out);
  Bytes copy = frame;
  CTLVPackage pkg;
  if (pkg.decode(copy.data(), static_cast<unsigned int>(copy.size())) == CTLVPackage::FAILED) {
    out += "(CTLVPackageV3::decode refuses this frame)\n";
  }
  return out;
}

// --- markdown ------------------------------------------------------------------

namespace {

std::string Fenced(const std::string& info, const std::string& body) { return "```" + info + "\n" + body + "```\n"; }

std::string Lines(const std::vector<std::string>& lines) {
  std::string out;
  for (const std::string& l : lines) out += l + "\n";
  return out;
}

std::string BeginMarker(const std::string& label) { return "<!-- generated:begin " + label + " -->\n"; }
std::string EndMarker(const std::string& label) { return "<!-- generated:end " + label + " -->"; }

}  // namespace

std::string ExampleMarkdown(const Example& example) {
  const Bytes answer = example.defaultAnswer();
  const ExampleRun run = example.run(answer);
  std::string out;
  out += "Sent by " + example.sender + ". " + example.setting + "\n\n";
  if (!run.error.empty()) out += "**Not sent:** " + run.error + "\n\n";
  out += "Request (" + std::to_string(run.request.size()) + " bytes):\n\n";
  out += Fenced("hexdump label=" + example.label + ".request", HexDump(run.request));
  out += "\n" + Fenced("text label=" + example.label + ".request.decoded", DescribeFrame(run.request));
  out += "\nAnswer (" + std::to_string(answer.size()) + " bytes):\n\n";
  out += Fenced("hexdump label=" + example.label + ".answer", HexDump(answer));
  out += "\n" + Fenced("text label=" + example.label + ".answer.decoded", DescribeFrame(answer));
  out += "\nWhat the host makes of it:\n\n";
  out += Fenced("text label=" + example.label + ".outcome", Lines(run.outcome));
  return out;
}

std::vector<DocBlock> ParseDocBlocks(const std::string& markdown) {
  std::vector<DocBlock> blocks;
  std::istringstream in(markdown);
  std::string line;
  int lineNo = 0;
  DocBlock* open = nullptr;
  bool inOther = false;  // inside a fenced block without a label
  while (std::getline(in, line)) {
    ++lineNo;
    const bool fence = line.compare(0, 3, "```") == 0;
    if (open != nullptr) {
      if (line == "```") {
        open = nullptr;
      } else {
        open->text += line + "\n";
      }
      continue;
    }
    if (inOther) {
      if (fence) inOther = false;
      continue;
    }
    if (!fence) continue;
    const size_t at = line.find("label=");
    if (at == std::string::npos) {
      inOther = true;
      continue;
    }
    DocBlock block;
    block.label = line.substr(at + 6, line.find_first_of(" \t", at) - (at + 6));
    block.line = lineNo;
    blocks.push_back(block);
    open = &blocks.back();
  }
  return blocks;
}

std::string GeneratedRegion(const std::string& markdown, const std::string& label, std::string* error) {
  const std::string begin = BeginMarker(label);
  const size_t b = markdown.find(begin);
  const size_t e = b == std::string::npos ? b : markdown.find(EndMarker(label), b);
  if (e == std::string::npos) {
    if (error != nullptr) *error = "no generated region for " + label;
    return std::string();
  }
  return markdown.substr(b + begin.size(), e - b - begin.size());
}

bool UpdateGeneratedRegions(std::string* markdown, std::string* error) {
  for (const Example& example : Examples()) {
    const std::string begin = BeginMarker(example.label);
    const size_t b = markdown->find(begin);
    const size_t e = b == std::string::npos ? b : markdown->find(EndMarker(example.label), b);
    if (e == std::string::npos) return Fail(error, "no generated region for " + example.label);
    markdown->replace(b + begin.size(), e - b - begin.size(), ExampleMarkdown(example));
  }
  return true;
}

}  // namespace zerva_protocol
