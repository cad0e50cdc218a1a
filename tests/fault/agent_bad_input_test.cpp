// The agent against bad SNMP input on its UDP port: random datagrams and
// truncated or bit-flipped copies of a valid GET must not stop it from
// answering; wrong communities get no answer at all and change nothing;
// GETBULK with absurd max-repetitions is answered in time; Net-SNMP's
// complaints about bad datagrams stay in the log, folded. (Wrong SNMPv3
// credentials: tests/e2e/agent_access_test.cpp.)
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tests/fault/fault_harness.h"
#include "tests/process/snmp_message.h"

namespace zerva_fault {
namespace {

const int kGauge32 = 0x42;

using zerva_test::LinesWith;

// An SNMPv2c GetRequest message for one OID.
std::string GetMessage(const std::string& community, long requestId, const Oid& oid) {
  return zerva_test::SnmpV2cRequest(0xA0, community, requestId, oid);
}

// A UDP socket connected to the agent.
class Datagrams {
 public:
  explicit Datagrams(int port) : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0)) {
    sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a);
  }
  ~Datagrams() { close(fd_); }
  bool ok() const { return fd_ >= 0; }
  void send(const std::string& bytes) { ::send(fd_, bytes.data(), bytes.size(), 0); }
  // Reads every datagram waiting; how many there were.
  size_t drain() {
    size_t n = 0;
    char buf[65536];
    while (recv(fd_, buf, sizeof buf, 0) >= 0) ++n;
    return n;
  }
  // The next datagram within `ms`, or "".
  std::string receive(int ms) {
    struct pollfd p = {fd_, POLLIN, 0};
    if (poll(&p, 1, ms) <= 0) return "";
    char buf[65536];
    const ssize_t n = recv(fd_, buf, sizeof buf, 0);
    return n > 0 ? std::string(buf, static_cast<size_t>(n)) : "";
  }

 private:
  int fd_;
};

class AgentBadInputTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string error;
    ASSERT_TRUE(rig_.start(TestArray(), &error)) << error;
  }

  // True when a GET of the switch with `public` is answered with its value within 1 s.
  bool AnswersValidGet() {
    SnmpClient client(rig_.port(), "public");
    const Answer a = client.get(SwitchOid());
    return a.status == Answer::kAnswered && a.errorStatus == 0 && a.varbinds.size() == 1 &&
           a.varbinds[0].type == kGauge32 && a.varbinds[0].number == 1;
  }

  AgentUnderTest rig_;
};

TEST_F(AgentBadInputTest, RandomAndMangledDatagramsLeaveTheAgentServing) {
  Datagrams udp(rig_.port());
  ASSERT_TRUE(udp.ok());
  const std::string valid = GetMessage("public", 4711, SwitchOid());
  // The reference datagram is answered as it is.
  udp.send(valid);
  const std::string reply = udp.receive(1000);
  ASSERT_FALSE(reply.empty()) << "no answer to the valid GET datagram";
  ASSERT_EQ('\x30', reply[0]);

  std::mt19937 rng(20240611);
  auto byte = [&] { return static_cast<char>(rng() & 0xFF); };
  const auto deadline = Clock::now() + std::chrono::seconds(3);
  size_t sent = 0, answered = 0, checks = 0, failedChecks = 0;
  while (sent < 4000 && Clock::now() < deadline) {
    std::string d;
    switch (sent % 5) {
      case 0: {  // random bytes
        d.resize(rng() % 600);
        for (char& c : d) c = byte();
        break;
      }
      case 1:  // a truncated GET
        d = valid.substr(0, rng() % valid.size());
        break;
      case 2: {  // a GET with one to three flipped bits
        d = valid;
        for (unsigned n = 1 + rng() % 3; n > 0; --n) d[rng() % d.size()] ^= static_cast<char>(1u << (rng() % 8));
        break;
      }
      case 3: {  // a GET with a random byte, often a length or a tag
        d = valid;
        d[rng() % d.size()] = byte();
        break;
      }
      default: {  // a SEQUENCE announcing far more than follows
        d = std::string("\x30\x84\xFF\xFF\xFF\xF0", 6) + valid.substr(2);
        d[rng() % d.size()] = byte();
        break;
      }
    }
    udp.send(d);
    ++sent;
    if (sent % 100 == 0) {
      answered += udp.drain();
      ++checks;
      if (!AnswersValidGet()) ++failedChecks;
    }
  }
  answered += udp.drain();
  printf("%zu bad datagrams sent, %zu answers to them, %zu valid GETs between them\n", sent, answered, checks);
  EXPECT_GE(sent, 1000u);
  EXPECT_EQ(0u, failedChecks) << "valid GETs not answered in 1 s while bad datagrams arrived, of " << checks;
  EXPECT_TRUE(rig_.process().running()) << rig_.log();
  EXPECT_TRUE(AnswersValidGet());
  udp.send(valid);
  EXPECT_FALSE(udp.receive(1000).empty());
  EXPECT_EQ(0, rig_.stop()) << rig_.log();
}

TEST_F(AgentBadInputTest, WrongCommunitiesGetNoAnswerAndChangeNothing) {
  // Each request waits out its 1 s: they run side by side.
  struct Probe {
    std::string community;
    long version;
    bool set;
    Answer answer;
  };
  std::vector<Probe> probes;
  for (const char* community : {"wrong", "not-public", "PUBLIC", "public ", ""}) {
    for (long version : {0L /* v1 */, 1L /* v2c */}) probes.push_back({community, version, false, Answer()});
  }
  for (const char* community : {"secret", "not-public"}) {
    for (long version : {0L /* v1 */, 1L /* v2c */}) probes.push_back({community, version, true, Answer()});
  }
  std::vector<std::thread> threads;
  for (Probe& p : probes) {
    threads.emplace_back([&p, this] {
      SnmpClient client(rig_.port(), p.community, p.version);
      p.answer = p.set ? client.setUnsigned(SwitchOid(), 0) : client.get(SwitchOid());
    });
  }
  for (std::thread& t : threads) t.join();
  for (const Probe& p : probes) {
    EXPECT_EQ(Answer::kTimeout, p.answer.status)
        << "community '" << p.community << "', version " << p.version << (p.set ? ", SET" : ", GET");
  }
  // The SETs changed nothing either: no write reached the array.
  EXPECT_EQ(1u, rig_.array().switchState());
  EXPECT_EQ(0u, rig_.requests(rig_.array().codes().setSwitch));
  EXPECT_TRUE(AnswersValidGet());
  // The right community still works for a write.
  SnmpClient writer(rig_.port(), "private");
  const Answer set = writer.setUnsigned(SwitchOid(), 0);
  ASSERT_EQ(Answer::kAnswered, set.status);
  EXPECT_EQ(0, set.errorStatus);
  EXPECT_EQ(0u, rig_.array().switchState());
  EXPECT_EQ(1u, rig_.requests(rig_.array().codes().setSwitch));
}

TEST_F(AgentBadInputTest, NetSnmpsComplaintsAboutBadDatagramsAreLoggedOnceAndCounted) {
  Datagrams udp(rig_.port());
  ASSERT_TRUE(udp.ok());
  // A GET whose PDU tag (after the version and the community) is no PDU type.
  std::string bad = GetMessage("public", 4712, SwitchOid());
  const size_t pduTag = 2 + 3 + 2 + std::string("public").size();
  ASSERT_EQ('\xA0', bad[pduTag]);
  bad[pduTag] = '\xA9';
  for (int i = 0; i < 10; ++i) udp.send(bad);
  // Answered after them: the agent has read all ten.
  EXPECT_TRUE(AnswersValidGet());
  ASSERT_EQ(0, rig_.stop()) << rig_.log();
  const std::string log = rig_.log();
  const std::vector<std::string> lines = LinesWith(log, "Bad PDU type received: 0xa9");
  ASSERT_EQ(2u, lines.size()) << log;
  EXPECT_NE(std::string::npos, lines[0].find("[kit 2] ERROR 0x1002E net-snmp:0 Bad PDU type received: 0xa9")) << log;
  // The rest, counted, is written at shutdown at the latest.
  EXPECT_NE(std::string::npos,
            lines[1].find("[kit 2] ERROR 0x1002E net-snmp:0 \u2026 and 9 more like this in the last 60 s: "
                          "Bad PDU type received: 0xa9"))
      << log;
}

TEST_F(AgentBadInputTest, GetBulkWithHugeMaxRepetitionsIsAnsweredInTime) {
  AnswerChecker checker;
  ASSERT_TRUE(checker.loaded()) << checker.error();
  SnmpClient client(rig_.port(), "public");
  for (int repetitions : {2147483647, 100000, 5000}) {
    for (const Oid& root : {Subtree(), ParseOid(".1.3.6.1.4.1.32473.4.1.21.4")}) {
      const Answer a = client.getBulk(root, repetitions);
      ASSERT_EQ(Answer::kAnswered, a.status) << repetitions << " repetitions from " << OidText(root);
      EXPECT_EQ("", checker.checkWalkAnswer(a, root, repetitions));
      EXPECT_EQ(0, a.errorStatus);
      EXPECT_GT(a.varbinds.size(), 1u);
      printf("max-repetitions %d from %s: %zu varbinds in %.0f ms\n", repetitions, OidText(root).c_str(),
             a.varbinds.size(), a.ms);
    }
  }
  EXPECT_TRUE(rig_.process().running()) << rig_.log();
}

}  // namespace
}  // namespace zerva_fault
