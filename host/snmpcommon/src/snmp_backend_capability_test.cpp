#include "snmpcommon/snmp_backend_capability.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <map>
#include <set>
#include <thread>
#include <vector>

#include "snmpcommon/snmp_configuration.h"
#include "tests/support/fake_backend.h"
#include "tests/support/kit_log_capture.h"
#include "vempub/vem_xml_config.h"

namespace {

using zerva_test::Answer;
using zerva_test::BackendFixture;
using zerva_test::Call;
using zerva_test::KitLogCapture;
using zerva_test::PackageText;
using zerva_test::Rec;

const unsigned long long kFeaturesCmd = 59594907904ULL;  // 0xDE0222100

const char kDeviceConfig[] =
    "<device><section name=\"COMMAND\">"
    "<item key=\"GET_PERFORMANCE_SWITCH\" value=\"59594907649\"/>"
    "<item key=\"GET_SNMP_FEATURES\" value=\"59594907904\"/>"
    "</section></device>";

// The fake back end and a device configuration that names GET_SNMP_FEATURES.
struct BackendCapabilityTest : ::testing::Test {
  BackendFixture fixture;
  CBackendCapabilitySource source;

  void SetUp() override {
    std::string error;
    ASSERT_TRUE(CVEMXmlConfig::instance()->loadFromString(kDeviceConfig, &error)) << error;
  }
  zerva_test::FakeBackend& backend() { return fixture.backend(); }
  size_t queries() { return backend().callsTo(kFeaturesCmd).size(); }
  static std::vector<CVEMLogRecord> Errors(const KitLogCapture& log) {
    std::vector<CVEMLogRecord> out;
    for (const CVEMLogRecord& r : log.records(VEM_LOG_ERROR)) {
      if (r.kitNo == VEM_KIT_HOST) out.push_back(r);
    }
    return out;
  }
};

Answer Features(std::initializer_list<unsigned int> numbers) {
  Answer a;
  for (unsigned int n : numbers) a.records.push_back(Rec().u32(0, n));
  return a;
}

bool Contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// 16 bytes a line: offset, then the bytes in hex.
std::string HexDump(const std::vector<unsigned char>& bytes) {
  std::string out;
  for (size_t i = 0; i < bytes.size(); i += 16) {
    char line[32];
    snprintf(line, sizeof line, "%04zx ", i);
    out += line;
    for (size_t j = i; j < i + 16 && j < bytes.size(); ++j) {
      snprintf(line, sizeof line, " %02x", bytes[j]);
      out += line;
    }
    out += "\n";
  }
  return out;
}

TEST_F(BackendCapabilityTest, AsksTheBackEndOnceAndRemembersTheAnswer) {
  backend().on(kFeaturesCmd, Features({48, 602}));
  EXPECT_FALSE(source.answered());
  EXPECT_TRUE(source.supports(48));
  EXPECT_TRUE(source.answered());
  EXPECT_FALSE(source.supports(49));
  EXPECT_TRUE(source.supports(602));
  EXPECT_TRUE(source.supports(48));
  EXPECT_EQ(queries(), 1u);
  // A question does not ask a changed back end again: only askAgain() does.
  backend().on(kFeaturesCmd, Features({49}));
  EXPECT_FALSE(source.supports(49));
  EXPECT_EQ(queries(), 1u);
  EXPECT_EQ(source.features(), (std::set<int>{48, 602}));
}

TEST_F(BackendCapabilityTest, AnswersTheHostsFeatureQuestions) {
  backend().on(kFeaturesCmd, Features({48, 49, 602}));
  auto previous = SetSnmpCapabilitySource(std::make_shared<CBackendCapabilitySource>());
  EXPECT_TRUE(checkOidFeatureSurport(SNMP_FEATURE_NFS));
  EXPECT_TRUE(checkOidFeatureSurport(SNMP_FEATURE_CIFS));
  EXPECT_TRUE(checkOidFeatureSurport(SNMP_FEATURE_FILESYSTEM_PERF));
  EXPECT_FALSE(checkOidFeatureSurport(static_cast<tagSNMP_FEATURE_TYPE_E>(7)));
  EXPECT_EQ(queries(), 1u);
  SetSnmpCapabilitySource(previous);
}

TEST_F(BackendCapabilityTest, OnlyTheListedFeaturesAreSupported) {
  backend().on(kFeaturesCmd, Features({49}));
  EXPECT_FALSE(source.supports(48));
  EXPECT_TRUE(source.supports(49));
  EXPECT_FALSE(source.supports(602));
  EXPECT_FALSE(source.supports(0));
}

TEST_F(BackendCapabilityTest, SendsOneRecordWithTheCommandCodeAndNoCells) {
  backend().on(kFeaturesCmd, Features({48}));
  source.supports(48);
  const std::vector<Call> calls = backend().calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_FALSE(calls[0].listing);
  EXPECT_EQ(PackageText(*calls[0].package()), std::vector<std::string>{"0xDE0222100: "});
  EXPECT_EQ(HexDump(calls[0].bytes),
            "0000  55 55 55 55 03 00 00 00 00 00 00 00 ff ff ff ff\n"
            "0010  fd ff ff ff ff ff ff ff 0a 00 00 00 00 21 22 e0\n"
            "0020  0d 00 00 00 00 00\n");
}

TEST_F(BackendCapabilityTest, AnswerOfThreeFeaturesEncodesAsDocumented) {
  // The answer a back end sends for 48, 49 and 602, built with the host's codec.
  CTLVPackage answer;
  for (unsigned int f : {48u, 49u, 602u}) answer.push_back(Rec().u32(0, f).build());
  unsigned char* out = nullptr;
  const unsigned int n = answer.encode(out);
  std::vector<unsigned char> bytes(out, out + n);
  delete[] out;
  EXPECT_EQ(HexDump(bytes),
            "0000  55 55 55 55 03 00 00 00 00 00 00 00 ff ff ff ff\n"
            "0010  fd ff ff ff ff ff ff ff 36 00 00 00 ff ff ff ff\n"
            "0020  ff ff ff ff 08 00 03 00 04 00 30 00 00 00 ff ff\n"
            "0030  ff ff ff ff ff ff 08 00 03 00 04 00 31 00 00 00\n"
            "0040  ff ff ff ff ff ff ff ff 08 00 03 00 04 00 5a 02\n"
            "0050  00 00\n");
  backend().on(kFeaturesCmd, [&bytes](const CTLVPackage&, bool) {
    CTLVPackage decoded;
    decoded.decode(bytes.data(), static_cast<unsigned int>(bytes.size()));
    Answer a;
    for (const CTLVRecordV3* r : decoded.records()) {
      a.records.push_back(Rec(r->id()).u32(0, CTLVCell::ValueCast<unsigned int>()((*r)[0])));
    }
    return a;
  });
  EXPECT_TRUE(source.supports(48));
  EXPECT_TRUE(source.supports(49));
  EXPECT_TRUE(source.supports(602));
}

TEST_F(BackendCapabilityTest, EmptyAnswerMeansNothingIsSupported) {
  backend().on(kFeaturesCmd, Answer{});
  EXPECT_FALSE(source.supports(48));
  EXPECT_FALSE(source.supports(49));
  EXPECT_FALSE(source.supports(602));
  EXPECT_TRUE(source.answered());
  EXPECT_EQ(queries(), 1u);
}

TEST_F(BackendCapabilityTest, TransportFailureIsLoggedNotRememberedAndAskedAgain) {
  KitLogCapture log;
  backend().push(Answer(SNMP_TRANSPORT_E_CONNECT));
  backend().on(kFeaturesCmd, Features({48}));
  EXPECT_FALSE(source.supports(48));
  EXPECT_FALSE(source.answered());
  auto errors = Errors(log);
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_TRUE(Contains(errors[0].message, "GET_SNMP_FEATURES failed with 0x4E540002 (cannot connect to the back end)"))
      << errors[0].message;
  EXPECT_TRUE(source.supports(48));  // asked again
  EXPECT_TRUE(source.supports(48));
  EXPECT_EQ(queries(), 2u);
  EXPECT_EQ(Errors(log).size(), 1u);
}

TEST_F(BackendCapabilityTest, BackEndCodeIsAFailureToo) {
  KitLogCapture log;
  backend().push(Answer(1077949460));
  backend().push(Answer(1077949460));
  backend().on(kFeaturesCmd, Features({602}));
  EXPECT_FALSE(source.supports(602));
  EXPECT_FALSE(source.supports(602));
  EXPECT_TRUE(source.supports(602));
  EXPECT_EQ(queries(), 3u);
  auto errors = Errors(log);
  ASSERT_EQ(errors.size(), 2u);  // one line per failed query
  EXPECT_TRUE(Contains(errors[0].message, "failed with 0x40403414 (the back end's code)")) << errors[0].message;
}

TEST_F(BackendCapabilityTest, MalformedAnswerIsAFailure) {
  KitLogCapture log;
  backend().push(Answer{Rec().u32(0, 48), Rec().str(0, "49")});
  backend().push(Answer{Rec().u64(0, 48)});
  backend().push(Answer{Rec().u32(1, 48)});
  backend().on(kFeaturesCmd, Features({48}));
  EXPECT_FALSE(source.supports(48));
  EXPECT_FALSE(source.supports(48));
  EXPECT_FALSE(source.supports(48));
  EXPECT_TRUE(source.supports(48));
  auto errors = Errors(log);
  ASSERT_EQ(errors.size(), 3u);
  EXPECT_TRUE(Contains(errors[0].message, "answer record 1 has no 4-byte unsigned cell with tag 0"))
      << errors[0].message;
}

TEST_F(BackendCapabilityTest, MissingCommandCodeAsksNothing) {
  std::string error;
  ASSERT_TRUE(CVEMXmlConfig::instance()->loadFromString(
      "<device><section name=\"COMMAND\"><item key=\"GET_SNMP_FEATURES\" value=\"x12\"/></section></device>", &error));
  KitLogCapture log;
  backend().on(kFeaturesCmd, Features({48}));
  EXPECT_FALSE(source.supports(48));
  EXPECT_EQ(backend().callCount(), 0u);
  auto errors = Errors(log);
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_TRUE(Contains(errors[0].message, "no usable command code")) << errors[0].message;
  EXPECT_TRUE(Contains(errors[0].message, "'x12'")) << errors[0].message;
  // Once the configuration names it, the back end is asked.
  ASSERT_TRUE(CVEMXmlConfig::instance()->loadFromString(kDeviceConfig, &error));
  EXPECT_TRUE(source.supports(48));
}

TEST_F(BackendCapabilityTest, AskAgainReplacesTheKeptList) {
  backend().on(kFeaturesCmd, Features({48, 602}));
  EXPECT_TRUE(source.supports(48));
  backend().on(kFeaturesCmd, Features({49}));
  EXPECT_TRUE(source.askAgain());
  EXPECT_EQ(queries(), 2u);
  EXPECT_EQ(source.features(), std::set<int>{49});
  EXPECT_FALSE(source.supports(48));
  EXPECT_TRUE(source.supports(49));
  EXPECT_FALSE(source.supports(602));
  EXPECT_EQ(queries(), 2u);
}

TEST_F(BackendCapabilityTest, AskAgainBeforeAnyQuestionAnswersEveryLaterOne) {
  backend().on(kFeaturesCmd, Features({602}));
  EXPECT_TRUE(source.askAgain());
  EXPECT_TRUE(source.answered());
  EXPECT_TRUE(source.supports(602));
  EXPECT_FALSE(source.supports(48));
  EXPECT_EQ(queries(), 1u);
}

TEST_F(BackendCapabilityTest, FailedAskAgainKeepsTheListAndSaysSo) {
  backend().on(kFeaturesCmd, Features({48, 49}));
  EXPECT_TRUE(source.supports(48));
  KitLogCapture log;
  backend().push(Answer(SNMP_TRANSPORT_E_CLOSED));
  EXPECT_FALSE(source.askAgain());
  EXPECT_TRUE(source.answered());
  EXPECT_EQ(source.features(), (std::set<int>{48, 49}));
  EXPECT_TRUE(source.supports(49));
  EXPECT_EQ(queries(), 2u);
  auto errors = Errors(log);
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_TRUE(Contains(errors[0].message, "GET_SNMP_FEATURES failed with 0x4E540004")) << errors[0].message;
  EXPECT_TRUE(Contains(errors[0].message, "the features stay {48,49} until the back end answers")) << errors[0].message;
}

TEST_F(BackendCapabilityTest, FailedAskAgainWithoutAListLeavesEveryFeatureUnsupported) {
  KitLogCapture log;
  backend().push(Answer(SNMP_TRANSPORT_E_CONNECT));
  backend().push(Answer(SNMP_TRANSPORT_E_CONNECT));
  backend().on(kFeaturesCmd, Features({48}));
  EXPECT_FALSE(source.askAgain());
  EXPECT_FALSE(source.answered());
  EXPECT_TRUE(source.features().empty());
  EXPECT_FALSE(source.supports(48));  // asks, fails again
  EXPECT_EQ(queries(), 2u);
  auto errors = Errors(log);
  ASSERT_EQ(errors.size(), 2u);
  EXPECT_TRUE(Contains(errors[0].message, "every feature reads as unsupported until the back end answers"))
      << errors[0].message;
  EXPECT_TRUE(source.askAgain());
  EXPECT_TRUE(source.supports(48));
}

TEST_F(BackendCapabilityTest, RecordsEveryQuestionWithItsAnswer) {
  backend().on(kFeaturesCmd, Features({48, 602}));
  EXPECT_TRUE(source.asked().answers.empty());
  source.supports(602);
  source.supports(48);
  source.supports(49);
  source.supports(602);
  CSnmpAskedFeatures asked = source.asked();
  EXPECT_EQ(asked.answers, (std::map<int, bool>{{48, true}, {49, false}, {602, true}}));
  EXPECT_FALSE(asked.unanswered);
  // A new list changes the answers recorded from then on, not those before.
  backend().on(kFeaturesCmd, Features({49}));
  ASSERT_TRUE(source.askAgain());
  EXPECT_EQ(source.asked().answers, asked.answers);
  source.supports(49);
  EXPECT_EQ(source.asked().answers, (std::map<int, bool>{{48, true}, {49, true}, {602, true}}));
  source.clearAsked();
  EXPECT_TRUE(source.asked().answers.empty());
  EXPECT_FALSE(source.asked().unanswered);
}

TEST_F(BackendCapabilityTest, QuestionWithoutAnAnswerIsRecordedAsUnanswered) {
  KitLogCapture log;
  backend().push(Answer(SNMP_TRANSPORT_E_TIMEOUT));
  backend().on(kFeaturesCmd, Features({48}));
  EXPECT_FALSE(source.supports(48));
  EXPECT_TRUE(source.supports(48));
  CSnmpAskedFeatures asked = source.asked();
  EXPECT_TRUE(asked.unanswered);  // stays set until clearAsked()
  EXPECT_EQ(asked.answers, (std::map<int, bool>{{48, true}}));
  source.clearAsked();
  EXPECT_FALSE(source.supports(49));  // answered from the kept list
  EXPECT_FALSE(source.asked().unanswered);
}

TEST_F(BackendCapabilityTest, ConcurrentFirstQuestionsShareOneQuery) {
  std::atomic<int> inside{0}, most{0};
  backend().on(kFeaturesCmd, [&](const CTLVPackage&, bool) {
    const int now = ++inside;
    if (now > most) most = now;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    --inside;
    return Features({48, 49});
  });
  std::atomic<int> yes{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 6; ++i) {
    threads.emplace_back([&] {
      if (source.supports(49)) yes++;
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(yes.load(), 6);
  EXPECT_EQ(queries(), 1u);
  EXPECT_EQ(most.load(), 1);
}

}  // namespace
