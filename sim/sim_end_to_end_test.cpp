// The module's real handlers against the simulator over a real socket: rows
// must equal the simulator's ground truth.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "performance/snmp_zerva_performance_cache_handler.h"
#include "performance/snmp_zerva_performance_controllerNFSV3_handler.h"
#include "performance/snmp_zerva_performance_fileSystem_handler.h"
#include "performance/snmp_zerva_performance_lun_handler.h"
#include "performance/snmp_zerva_performance_node_handler.h"
#include "performance/snmp_zerva_performance_port_handler.h"
#include "performance/snmp_zerva_performance_switch.h"
#include "sim/sim_server.h"
#include "sim/array_simulator.h"
#include "snmpcommon/snmp_backend_capability.h"
#include "snmpcommon/snmp_capability.h"
#include "snmpcommon/snmp_comm_util.h"
#include "snmpcommon/snmp_socket_transport.h"
#include "tests/support/temp_dir.h"
#include "vempub/vem_xml_config.h"

namespace zerva_sim {
namespace {

const char kDeviceConfig[] =
    "<device><section name=\"COMMAND\">"
    "<item key=\"GET_PERFORMANCE_SWITCH\" value=\"59594907649\"/>"
    "<item key=\"SET_PERFORMANCE_SWITCH\" value=\"59594907650\"/>"
    "<item key=\"GET_CUR_STATISTIC_DATA\" value=\"59594907664\"/>"
    "<item key=\"GET_SNMP_FEATURES\" value=\"59594907904\"/>"
    "</section></device>";

unsigned int U(const CTLVRecordV3& r, unsigned short tag) { return CTLVCell::ValueCast<unsigned int>()(r[tag]); }

class EndToEndTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string error;
    ASSERT_TRUE(CVEMXmlConfig::instance()->loadFromString(kDeviceConfig, &error)) << error;
    SimOptions o;
    o.listen = "unix:" + dir_.path() + "/s";
    o.luns = 1000;
    o.seed = 21;
    server_.reset(new ArraySimServer(o));
    ASSERT_TRUE(server_->start(&error)) << error;
    server_->array().freezeClock(4000000000ULL);
    CSnmpSocketTransportOptions t;
    ASSERT_TRUE(CSnmpBackendAddress::parse(server_->address(), t.address, &error));
    t.retryInterval = std::chrono::milliseconds(50);
    transport_ = std::make_shared<CSnmpSocketTransport>(t);
    previousTransport_ = CSNMP_Configuration::instance()->setTransport(transport_);
    previousSource_ = SetSnmpCapabilitySource(std::make_shared<CBackendCapabilitySource>());
  }
  void TearDown() override {
    CSNMP_Configuration::instance()->setTransport(previousTransport_);
    SetSnmpCapabilitySource(previousSource_);
    server_.reset();
  }

  std::vector<uint32_t> Truth(uint32_t type, const std::string& id, const std::vector<uint32_t>& items) {
    std::vector<uint32_t> v;
    EXPECT_EQ(server_->array().statistics(type, id, items, &v), kSimOk) << type << ":" << id;
    return v;
  }

  // Expects the cells of row at these columns to hold, in order, the ground
  // truth of these items of the object.
  void ExpectTruth(const CTLVRecordV3& row, const std::vector<unsigned short>& columns, uint32_t type,
                   const std::string& id, const std::vector<uint32_t>& items) {
    const std::vector<uint32_t> v = Truth(type, id, items);
    ASSERT_EQ(v.size(), columns.size()) << type << ":" << id;
    for (size_t c = 0; c < columns.size(); ++c) {
      EXPECT_EQ(U(row, columns[c]), v[c]) << type << ":" << id << " column " << columns[c];
    }
  }

  // Columns 2, 3, ... of a row, one for each of these items.
  static std::vector<unsigned short> ColumnsFrom2(const std::vector<uint32_t>& items) {
    std::vector<unsigned short> columns;
    for (size_t c = 0; c < items.size(); ++c) columns.push_back(static_cast<unsigned short>(c + 2));
    return columns;
  }

  zerva_test::TempDir dir_;
  std::unique_ptr<ArraySimServer> server_;
  std::shared_ptr<CSnmpSocketTransport> transport_;
  std::shared_ptr<ISnmpBackendTransport> previousTransport_;
  std::shared_ptr<ISnmpCapabilitySource> previousSource_;
  CVEM_SnmpContext ctx_;
  CTLVPackage req_;
};

TEST_F(EndToEndTest, CapabilitiesComeFromTheSimulator) {
  EXPECT_TRUE(checkOidFeatureSurport(SNMP_FEATURE_NFS));
  EXPECT_TRUE(checkOidFeatureSurport(SNMP_FEATURE_CIFS));
  EXPECT_TRUE(checkOidFeatureSurport(SNMP_FEATURE_FILESYSTEM_PERF));
}

TEST_F(EndToEndTest, PortRowsEqualTheGroundTruth) {
  CPerformancePortHandler handler;
  CTLVPackage rsp;
  ASSERT_EQ(handler.OnQueryTable(ctx_, req_, rsp), 0);
  const std::vector<uint32_t> items = {78, 22, 25, 28, 21, 23, 26, 5, 307};
  std::vector<const SimPort*> expected;
  for (uint32_t type : {213u, 212u, 252u, 235u}) {
    for (const SimPort& p : server_->array().topology().ports) {
      if (p.type != type) continue;
      if (type == 213 && !p.bond.empty()) continue;
      if (type != 235 && p.status != 0 && p.status != 5 && p.status != 6) continue;
      expected.push_back(&p);
    }
  }
  ASSERT_EQ(rsp.size(), expected.size());
  for (size_t i = 0; i < expected.size(); ++i) {
    const CTLVRecordV3& row = *rsp[i];
    EXPECT_EQ(U(row, 1), expected[i]->id);
    ExpectTruth(row, ColumnsFrom2(items), expected[i]->type, std::to_string(expected[i]->id), items);
    EXPECT_EQ(row[11]->toString(), expected[i]->name);
  }
}

TEST_F(EndToEndTest, CacheAndNodeRowsEqualTheGroundTruth) {
  CPerformanceCacheHandler cache;
  CTLVPackage rsp;
  ASSERT_EQ(cache.OnQueryTable(ctx_, req_, rsp), 0);
  const auto& ctrls = server_->array().topology().controllers;
  ASSERT_EQ(rsp.size(), ctrls.size());
  for (size_t i = 0; i < ctrls.size(); ++i) {
    EXPECT_EQ(U(*rsp[i], 1), CSnmpCommUtil::ParseCtrlNodeID(ctrls[i]));
    ExpectTruth(*rsp[i], {2, 3, 5}, 207, ctrls[i], {110, 120, 303});
  }
  CPerformanceNodeHandler node;
  CTLVPackage nodes;
  ASSERT_EQ(node.OnQueryTable(ctx_, req_, nodes), 0);
  ASSERT_EQ(nodes.size(), ctrls.size());
  const std::vector<uint32_t> items = {68, 69, 78, 22, 25, 28, 21, 23, 26, 475, 476};
  for (size_t i = 0; i < ctrls.size(); ++i) ExpectTruth(*nodes[i], ColumnsFrom2(items), 207, ctrls[i], items);
}

TEST_F(EndToEndTest, NfsRowsEqualTheGroundTruth) {
  CPerformanceControllerNFSV3Handler handler;
  CTLVPackage rsp;
  ASSERT_EQ(handler.OnQueryTable(ctx_, req_, rsp), 0);
  const auto& ctrls = server_->array().topology().controllers;
  ASSERT_EQ(rsp.size(), ctrls.size());
  for (size_t i = 0; i < ctrls.size(); ++i) {
    EXPECT_EQ((*rsp[i])[1]->toString(), ctrls[i]);
    ExpectTruth(*rsp[i], {2, 3}, 1000, ctrls[i], {182, 439});
  }
}

TEST_F(EndToEndTest, LunWalkReturnsEveryLunWithTheGroundTruth) {
  CPerformanceLunHandler handler;
  CTLVPackage rsp;
  ASSERT_EQ(handler.OnQueryTable(ctx_, req_, rsp), 0);
  EXPECT_TRUE(handler.isWholeTable());
  ASSERT_EQ(rsp.size(), 1000u);
  const std::vector<uint32_t> items = {303, 22, 25, 28, 21, 23, 26, 5, 307, 370, 371, 384, 385};
  for (size_t i = 0; i < rsp.size(); i += 37) {
    const CTLVRecordV3& row = *rsp[i];
    ASSERT_EQ(U(row, 1), i);
    const std::vector<uint32_t> v = Truth(11, std::to_string(i), items);
    for (unsigned short c = 2; c <= 8; ++c) EXPECT_EQ(U(row, c), v[c - 2]);
    EXPECT_EQ(U(row, 9), v[1] == 0 ? 0 : v[2] * 100 / v[1]);
    EXPECT_EQ(U(row, 10), v[1] == 0 ? 0 : v[3] * 100 / v[1]);
    EXPECT_LE(U(row, 9) + U(row, 10), 100u);
    for (unsigned short c = 11; c <= 16; ++c) EXPECT_EQ(U(row, c), v[c - 4]);
  }
  // ceil(1000 / 160) batch statistics commands.
  EXPECT_EQ(server_->commandCounts().at(kLunBatchStatsCmd), 7u);
}

TEST_F(EndToEndTest, FileSystemWalkReturnsEveryFileSystem) {
  CPerformanceFileSystemHandler handler;
  CTLVPackage rsp;
  ASSERT_EQ(handler.OnQueryTable(ctx_, req_, rsp), 0);
  const auto& fs = server_->array().topology().fileSystems;
  ASSERT_EQ(rsp.size(), fs.size());
  const std::vector<uint32_t> items = {182, 523, 232, 23, 524, 525, 233, 26};
  for (size_t i = 0; i < fs.size(); ++i) {
    EXPECT_EQ((*rsp[i])[1]->toString(), std::to_string(fs[i]));
    ExpectTruth(*rsp[i], ColumnsFrom2(items), 40, std::to_string(fs[i]), items);
  }
  EXPECT_GT(server_->commandCounts().at(kSortedListingCmd), 0u);
}

TEST_F(EndToEndTest, SwitchWriteTurnsTablesOff) {
  CPerformanceSwithHandler sw;
  CTLVPackage set;
  CTLVRecordV3* rec = new CTLVRecordV3(0, 32);
  rec->append(tlv::NewUintCell(0, CTLVCell::TLV_TYPE_UINT, 0, 4));
  set.push_back(rec);
  CTLVPackage setRsp;
  ASSERT_EQ(sw.OnSetLeaf(ctx_, set, setRsp), 0);
  EXPECT_EQ(server_->array().switchState(), 0u);
  CTLVCell* cell = nullptr;
  ASSERT_EQ(sw.queryLeaf(ctx_, cell), 0);
  std::unique_ptr<CTLVCell> owned(cell);
  EXPECT_EQ(CTLVCell::ValueCast<unsigned int>()(cell), 0u);
  CPerformancePortHandler ports;
  CPerformanceLunHandler luns;
  CTLVPackage a, b;
  EXPECT_EQ(ports.OnQueryTable(ctx_, req_, a), 0);
  EXPECT_EQ(luns.OnQueryTable(ctx_, req_, b), 0);
  EXPECT_TRUE(a.empty());
  EXPECT_TRUE(b.empty());
}

TEST_F(EndToEndTest, InjectedRefusalReachesTheHandlerAndClears) {
  FaultRule f;
  std::string error;
  ASSERT_TRUE(server_->array().parseFault("refuse=0x5000,cmd=GET_CUR_STATISTIC_DATA", &f, &error));
  server_->array().addFault(f);
  CPerformanceCacheHandler cache;
  CTLVPackage rsp;
  EXPECT_EQ(cache.OnQueryTable(ctx_, req_, rsp), 0x5000);
  server_->array().clearFaults();
  CTLVPackage again;
  EXPECT_EQ(cache.OnQueryTable(ctx_, req_, again), 0);
  EXPECT_EQ(again.size(), 4u);
}

TEST_F(EndToEndTest, ClosedListingConnectionEndsTheWalkWithTheTransportCode) {
  FaultRule f;
  std::string error;
  ASSERT_TRUE(server_->array().parseFault("close,cmd=LISTING,count=1", &f, &error));
  server_->array().addFault(f);
  CPerformanceLunHandler luns;
  CTLVPackage rsp;
  EXPECT_EQ(luns.OnQueryTable(ctx_, req_, rsp), SNMP_TRANSPORT_E_CLOSED);
  CTLVPackage again;
  EXPECT_EQ(luns.OnQueryTable(ctx_, req_, again), 0);
  EXPECT_EQ(again.size(), 1000u);
}

}  // namespace
}  // namespace zerva_sim
