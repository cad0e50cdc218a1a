// Keeps docs/backend-protocol.md true: every labelled dump in it is checked
// against the handlers as they are built today.
//
// For each documented example the test parses the request and answer dumps,
// runs the real handler against a fake back end that answers with the
// documented answer bytes, and requires the request to be byte for byte the
// documented one and the handler's outcome to be the documented one. It also
// checks the decoded listings beside the dumps, the tables of command codes,
// transport codes and transport defaults, and carries one documented exchange
// over the real socket transport.
#include <gtest/gtest.h>

#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "performance/snmp_zerva_performance_switch.h"
#include "snmpcommon/snmp_backend_frame.h"
#include "snmpcommon/snmp_configuration.h"
#include "snmpcommon/snmp_context.h"
#include "snmpcommon/snmp_socket_transport.h"
#include "tests/protocol/protocol_examples.h"
#include "tests/support/fake_backend.h"
#include "tests/support/temp_dir.h"
#include "tlv/vem_message_package.h"
#include "vempub/vem_xml_config.h"

#ifndef ZERVA_BACKEND_PROTOCOL_DOC
#error "ZERVA_BACKEND_PROTOCOL_DOC must name docs/backend-protocol.md"
#endif

namespace {

using zerva_protocol::Bytes;
using zerva_protocol::DocBlock;
using zerva_protocol::Example;
using zerva_protocol::ExampleRun;

// The block suffixes every example has in the document.
const char* const kSuffixes[] = {".request", ".request.decoded", ".answer", ".answer.decoded", ".outcome"};

// The document's text, read once.
const std::string& DocText() {
  static const std::string text = [] {
    std::ifstream in(ZERVA_BACKEND_PROTOCOL_DOC, std::ios::binary);
    std::ostringstream buf;
    buf << in.rdbuf();
    return buf.str();
  }();
  return text;
}

const std::vector<DocBlock>& DocBlocks() {
  static const std::vector<DocBlock> blocks = zerva_protocol::ParseDocBlocks(DocText());
  return blocks;
}

// The block with that label, or null.
const DocBlock* FindBlock(const std::string& label) {
  for (const DocBlock& b : DocBlocks()) {
    if (b.label == label) return &b;
  }
  return nullptr;
}

// The bytes of a hexdump block; fails the test when it is absent or malformed.
Bytes DumpBytes(const std::string& label) {
  const DocBlock* block = FindBlock(label);
  if (block == nullptr) {
    ADD_FAILURE() << "the document has no block " << label;
    return Bytes();
  }
  Bytes bytes;
  std::string error;
  EXPECT_TRUE(zerva_protocol::ParseHexDump(block->text, &bytes, &error))
      << label << " (document line " << block->line << "): " << error;
  return bytes;
}

std::vector<std::string> BlockLines(const std::string& label) {
  std::vector<std::string> lines;
  const DocBlock* block = FindBlock(label);
  if (block == nullptr) {
    ADD_FAILURE() << "the document has no block " << label;
    return lines;
  }
  std::istringstream in(block->text);
  std::string line;
  while (std::getline(in, line)) lines.push_back(line);
  return lines;
}

std::vector<std::string> Labels() {
  std::vector<std::string> labels;
  for (const Example& e : zerva_protocol::Examples()) labels.push_back(e.label);
  return labels;
}

const Example& ExampleNamed(const std::string& label) {
  for (const Example& e : zerva_protocol::Examples()) {
    if (e.label == label) return e;
  }
  throw std::runtime_error("no example " + label);
}

class DocumentedExampleTest : public ::testing::TestWithParam<std::string> {};

TEST_P(DocumentedExampleTest, DocumentHasEveryBlockOfTheExample) {
  for (const char* suffix : kSuffixes) EXPECT_NE(FindBlock(GetParam() + suffix), nullptr) << GetParam() << suffix;
}

TEST_P(DocumentedExampleTest, RequestDumpIsWhatTheHandlerSendsToday) {
  const Bytes request = DumpBytes(GetParam() + ".request");
  const ExampleRun run = ExampleNamed(GetParam()).run(DumpBytes(GetParam() + ".answer"));
  EXPECT_EQ(run.error, "");
  EXPECT_EQ(zerva_protocol::HexDump(run.request), zerva_protocol::HexDump(request));
}

TEST_P(DocumentedExampleTest, AnswerDumpDecodesWithTheCodec) {
  Bytes answer = DumpBytes(GetParam() + ".answer");
  ASSERT_GE(answer.size(), TLVMsgHeadV3::SIZE);
  const Bytes original = answer;
  CTLVPackage pkg;
  const unsigned int consumed = pkg.decode(answer.data(), static_cast<unsigned int>(answer.size()));
  ASSERT_NE(consumed, CTLVPackage::FAILED);
  EXPECT_EQ(consumed, answer.size() - TLVMsgHeadV3::SIZE);
  // Nothing in the frame is lost or left over: encoding it again gives it back.
  unsigned char* out = nullptr;
  const unsigned int n = pkg.encode(out);
  const Bytes again(out, out + n);
  delete[] out;
  EXPECT_EQ(zerva_protocol::HexDump(again), zerva_protocol::HexDump(original));
}

TEST_P(DocumentedExampleTest, HandlerTurnsTheAnswerIntoTheDocumentedOutcome) {
  const ExampleRun run = ExampleNamed(GetParam()).run(DumpBytes(GetParam() + ".answer"));
  EXPECT_EQ(run.outcome, BlockLines(GetParam() + ".outcome"));
}

TEST_P(DocumentedExampleTest, DecodedListingsDescribeTheDumpedBytes) {
  for (const char* which : {".request", ".answer"}) {
    const std::string label = GetParam() + which;
    std::string expected;
    for (const std::string& line : BlockLines(label + ".decoded")) expected += line + "\n";
    EXPECT_EQ(zerva_protocol::DescribeFrame(DumpBytes(label)), expected) << label;
  }
}

TEST_P(DocumentedExampleTest, GeneratedRegionIsWhatTheGeneratorPrints) {
  std::string error;
  const std::string region = zerva_protocol::GeneratedRegion(DocText(), GetParam(), &error);
  ASSERT_EQ(error, "");
  EXPECT_EQ(region, zerva_protocol::ExampleMarkdown(ExampleNamed(GetParam())))
      << "regenerate with: backend_protocol_dumps --update docs/backend-protocol.md";
}

INSTANTIATE_TEST_SUITE_P(Examples, DocumentedExampleTest, ::testing::ValuesIn(Labels()),
                         [](const ::testing::TestParamInfo<std::string>& info) {
                           std::string name;
                           for (char c : info.param) name += c == '-' ? '_' : c;
                           return name;
                         });

TEST(BackendProtocolDocTest, EveryLabelledBlockBelongsToAnExampleAndIsUnique) {
  std::set<std::string> known;
  for (const std::string& label : Labels()) {
    for (const char* suffix : kSuffixes) known.insert(label + suffix);
  }
  std::set<std::string> seen;
  ASSERT_FALSE(DocBlocks().empty()) << "no labelled block in " << ZERVA_BACKEND_PROTOCOL_DOC;
  for (const DocBlock& block : DocBlocks()) {
    EXPECT_TRUE(known.count(block.label)) << "stale block " << block.label << " at line " << block.line;
    EXPECT_TRUE(seen.insert(block.label).second) << "second block " << block.label << " at line " << block.line;
  }
}

TEST(BackendProtocolDocTest, CommandCodeTableMatchesTheShippedDeviceConfiguration) {
  ASSERT_TRUE(zerva_protocol::LoadShippedDeviceConfig(nullptr));
  for (const char* name :
       {"GET_PERFORMANCE_SWITCH", "SET_PERFORMANCE_SWITCH", "GET_CUR_STATISTIC_DATA", "GET_SNMP_FEATURES"}) {
    std::string code;
    CVEMXmlConfig::instance()->getDeviceItem("COMMAND", name, code);
    ASSERT_FALSE(code.empty()) << name;
    char hex[32];
    snprintf(hex, sizeof hex, "0x%llX", strtoull(code.c_str(), nullptr, 10));
    const std::string row = std::string("| `") + name + "` | " + code + " | " + hex + " |";
    EXPECT_NE(DocText().find(row), std::string::npos) << "missing table row: " << row;
  }
}

TEST(BackendProtocolDocTest, TransportCodeTableMatchesTheHost) {
  for (int code = SNMP_TRANSPORT_E_NOT_CONFIGURED; code <= SNMP_TRANSPORT_E_ENCODE; ++code) {
    char hex[16];
    snprintf(hex, sizeof hex, "0x%08X", static_cast<unsigned int>(code));
    const std::string row = std::string("| ") + hex + " | " + SnmpTransportErrorText(code) + " |";
    EXPECT_NE(DocText().find(row), std::string::npos) << "missing table row: " << row;
  }
  EXPECT_STREQ(SnmpTransportErrorText(SNMP_TRANSPORT_E_ENCODE + 1), "") << "a new transport code is not documented";
}

TEST(BackendProtocolDocTest, TransportDefaultsTableMatchesTheHost) {
  const CSnmpSocketTransportOptions defaults;
  const std::vector<std::string> rows = {
      "| `connectTimeout` | " + std::to_string(defaults.connectTimeout.count()) + " ms |",
      "| `callTimeout` | " + std::to_string(defaults.callTimeout.count()) + " ms |",
      "| `listingTimeout` | " + std::to_string(defaults.listingTimeout.count()) + " ms |",
      "| `retryInterval` | " + std::to_string(defaults.retryInterval.count()) + " ms |",
      "| `maxBody` | " + std::to_string(defaults.maxBody) + " bytes |",
  };
  for (const std::string& row : rows) EXPECT_NE(DocText().find(row), std::string::npos) << "missing: " << row;
}

// A one-shot back end on a Unix socket in a temporary directory: accepts one
// connection, reads one frame, answers with the given bytes.
class OneShotBackend {
 public:
  explicit OneShotBackend(Bytes answer) : answer_(std::move(answer)) {
    if (dir_.path().empty()) return;
    path_ = dir_.path() + "/backend.sock";
    listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un sun = {};
    sun.sun_family = AF_UNIX;
    snprintf(sun.sun_path, sizeof sun.sun_path, "%s", path_.c_str());
    if (listener_ < 0 || bind(listener_, reinterpret_cast<struct sockaddr*>(&sun), sizeof sun) != 0 ||
        listen(listener_, 1) != 0) {
      return;
    }
    thread_ = std::thread([this] { serve(); });
  }
  ~OneShotBackend() {
    if (thread_.joinable()) thread_.join();
    if (listener_ >= 0) close(listener_);
    if (!path_.empty()) unlink(path_.c_str());
  }
  bool listening() const { return thread_.joinable(); }
  std::string address() const { return "unix:" + path_; }
  // The request frame received; valid after the client's call returned.
  Bytes received() {
    if (thread_.joinable()) thread_.join();
    return received_;
  }

 private:
  void serve() {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    struct pollfd pfd = {listener_, POLLIN, 0};
    if (poll(&pfd, 1, 3000) != 1) return;
    const int fd = accept(listener_, nullptr, nullptr);
    if (fd < 0) return;
    if (ReadBackendFrame(fd, received_, SNMP_FRAME_DEFAULT_MAX_BODY, deadline) == 0) {
      WriteBackendFrame(fd, answer_.data(), answer_.size(), deadline);
    }
    close(fd);
  }

  Bytes answer_;
  Bytes received_;
  zerva_test::TempDir dir_;
  std::string path_;
  int listener_ = -1;
  std::thread thread_;
};

TEST(BackendProtocolDocTest, DocumentedSwitchReadTravelsUnchangedOverTheSocketTransport) {
  ASSERT_TRUE(zerva_protocol::LoadShippedDeviceConfig(nullptr));
  OneShotBackend backend(DumpBytes("switch-read.answer"));
  ASSERT_TRUE(backend.listening());
  CSnmpSocketTransportOptions options;
  std::string error;
  ASSERT_TRUE(CSnmpBackendAddress::parse(backend.address(), options.address, &error)) << error;
  options.callTimeout = std::chrono::milliseconds(3000);  // a loaded machine must not fail the test
  auto previous = CSNMP_Configuration::instance()->setTransport(std::make_shared<CSnmpSocketTransport>(options));

  CPerformanceSwithHandler handler;
  CTLVPackage req;
  CTLVPackage rsp;
  const int result = handler.OnQueryLeaf(CVEM_SnmpContext(), req, rsp);
  CSNMP_Configuration::instance()->setTransport(previous);

  std::vector<std::string> outcome = {"result " + std::to_string(result)};
  for (const CTLVRecordV3* row : rsp.records()) outcome.push_back("row " + zerva_test::RecordText(*row));
  EXPECT_EQ(zerva_protocol::HexDump(backend.received()), zerva_protocol::HexDump(DumpBytes("switch-read.request")));
  EXPECT_EQ(outcome, BlockLines("switch-read.outcome"));
}

}  // namespace
