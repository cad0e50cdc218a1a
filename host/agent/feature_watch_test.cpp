#include "host/agent/feature_watch.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "tests/support/fake_backend.h"
#include "tests/support/kit_log_capture.h"
#include "vempub/vem_xml_config.h"

namespace zerva_agent {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// A time source the test steps by hand.
struct FakeClock {
  Clock::time_point now = Clock::time_point() + std::chrono::hours(1);
  std::function<Clock::time_point()> source() {
    return [this] { return now; };
  }
};

// A back end whose list, availability and connections the test sets.
struct FakeSource : FeatureSource {
  explicit FakeSource(FakeClock* c) : clock(c) {}

  bool answered() override { return hasList; }
  std::set<int> features() override { return kept; }
  bool askAgain() override {
    askTimes.push_back(clock->now);
    if (!up) return false;
    if (connectOnAsk) ++connects;
    kept = list;
    hasList = true;
    return true;
  }
  uint64_t connectCount() override { return connects; }

  FakeClock* clock;
  bool up = false;            // the back end answers
  std::set<int> list;         // with this list
  bool connectOnAsk = false;  // a question opens a connection
  bool hasList = false;       // the list kept from the last good answer
  std::set<int> kept;
  uint64_t connects = 0;
  std::vector<Clock::time_point> askTimes;
};

CSnmpAskedFeatures Asked(std::map<int, bool> answers, bool unanswered = false) {
  CSnmpAskedFeatures a;
  a.answers = std::move(answers);
  a.unanswered = unanswered;
  return a;
}

// The module's questions got no answer: each reads unsupported.
CSnmpAskedFeatures Unanswered() { return Asked({{48, false}, {49, false}, {602, false}}, true); }

struct FeatureWatchTest : ::testing::Test {
  FakeClock clock;
  FakeSource source{&clock};
  std::unique_ptr<FeatureWatch> watch;

  void SetUp() override {
    FeatureWatchSettings settings;
    settings.now = clock.source();
    watch.reset(new FeatureWatch(&source, settings));
  }
  // Polls every `step` for `total`: how many polls asked for a reload.
  int run(milliseconds total, milliseconds step = milliseconds(100)) {
    int reloads = 0;
    for (milliseconds t(0); t < total; t += step) {
      clock.now += step;
      if (watch->poll()) ++reloads;
    }
    return reloads;
  }
  // The waits between the questions, the first counted from `start`.
  std::vector<long long> gaps(Clock::time_point start) const {
    std::vector<long long> out;
    for (Clock::time_point t : source.askTimes) {
      out.push_back(std::chrono::duration_cast<milliseconds>(t - start).count());
      start = t;
    }
    return out;
  }
  // The back end has answered with this list, and the module was built with it.
  void loadedWith(const std::set<int>& features) {
    source.up = true;
    source.list = features;
    source.hasList = true;
    source.kept = features;
    std::map<int, bool> answers;
    for (int f : {48, 49, 602}) answers[f] = features.count(f) != 0;
    watch->loaded(Asked(answers));
  }
};

TEST_F(FeatureWatchTest, UnansweredListIsAskedAgainAfter1_2_4_8_16SecondsThenEvery30) {
  const Clock::time_point start = clock.now;
  watch->loaded(Unanswered());
  EXPECT_EQ(0, run(seconds(200), milliseconds(50)));
  const std::vector<long long> expected = {1000, 2000, 4000, 8000, 16000, 30000, 30000, 30000, 30000, 30000};
  std::vector<long long> got = gaps(start);
  ASSERT_GE(got.size(), expected.size());
  got.resize(expected.size());
  EXPECT_EQ(expected, got);
  EXPECT_EQ(source.askTimes.size(), watch->asks());
}

TEST_F(FeatureWatchTest, AskingStopsOnceTheBackEndAnswers) {
  const Clock::time_point start = clock.now;
  watch->loaded(Unanswered());
  EXPECT_EQ(0, run(seconds(2)));  // asked at 1 s: no answer
  ASSERT_EQ(1u, source.askTimes.size());
  source.up = true;
  source.list = {48, 49, 602};
  // Asked at 3 s: the answer differs from none, so the module is loaded again.
  while (!watch->poll()) clock.now += milliseconds(100);
  EXPECT_EQ((std::vector<long long>{1000, 2000}), gaps(start));
  watch->loaded(Asked({{48, true}, {49, true}, {602, true}}));
  EXPECT_EQ(0, run(std::chrono::minutes(10), seconds(1)));
  EXPECT_EQ(2u, source.askTimes.size());
}

TEST_F(FeatureWatchTest, ListAnsweredMeanwhileIsNotAskedAgain) {
  watch->loaded(Unanswered());
  // A question of a handler got the answer before the first retry.
  source.up = true;
  source.hasList = true;
  source.kept = {48};
  clock.now += milliseconds(100);
  EXPECT_TRUE(watch->poll());
  EXPECT_TRUE(source.askTimes.empty());
}

TEST_F(FeatureWatchTest, NoBackEndTrafficWhileAnsweredAndConnected) {
  // The real capability source over a fake back end, on a connection that
  // stays up.
  zerva_test::BackendFixture fixture;
  const unsigned long long kFeaturesCmd = 59594907904ULL;
  std::string error;
  ASSERT_TRUE(CVEMXmlConfig::instance()->loadFromString(
      "<device><section name=\"COMMAND\"><item key=\"GET_SNMP_FEATURES\" value=\"59594907904\"/></section></device>",
      &error))
      << error;
  zerva_test::Answer answer;
  for (unsigned int f : {48u, 602u}) answer.records.push_back(zerva_test::Rec().u32(0, f));
  fixture.backend().on(kFeaturesCmd, answer);
  auto capabilities = std::make_shared<CBackendCapabilitySource>();
  BackendFeatureSource backend(capabilities, [] { return uint64_t{1}; });
  FeatureWatchSettings settings;
  settings.now = clock.source();
  FeatureWatch real(&backend, settings);

  // The module's questions: one query.
  EXPECT_TRUE(capabilities->supports(602));
  EXPECT_TRUE(capabilities->supports(48));
  EXPECT_FALSE(capabilities->supports(49));
  real.loaded(capabilities->asked());
  EXPECT_EQ("{48,602}", real.loadedText());
  for (int i = 0; i < 4 * 3600; ++i) {
    clock.now += milliseconds(250);
    ASSERT_FALSE(real.poll());
  }
  EXPECT_EQ(1u, fixture.backend().callCount());
  EXPECT_EQ(0u, real.asks());
}

TEST_F(FeatureWatchTest, ReopenedConnectionIsAskedOnceMoreAtOnce) {
  loadedWith({48, 49, 602});
  EXPECT_EQ(0, run(seconds(30)));
  EXPECT_TRUE(source.askTimes.empty());

  ++source.connects;  // the back end restarted; a request connected again
  const Clock::time_point reconnected = clock.now;
  EXPECT_FALSE(watch->poll());
  ASSERT_EQ(1u, source.askTimes.size());
  EXPECT_EQ(reconnected, source.askTimes[0]);
  EXPECT_EQ(0, run(std::chrono::minutes(10), seconds(1)));
  EXPECT_EQ(1u, source.askTimes.size());

  ++source.connects;
  EXPECT_FALSE(watch->poll());
  EXPECT_EQ(2u, source.askTimes.size());
}

TEST_F(FeatureWatchTest, FailedQuestionAfterAReconnectIsAskedAgainWithBackoff) {
  loadedWith({48});
  ++source.connects;
  source.up = false;  // connected, but no answer
  const Clock::time_point start = clock.now;
  EXPECT_FALSE(watch->poll());
  EXPECT_EQ(0, run(seconds(10), milliseconds(50)));
  EXPECT_EQ((std::vector<long long>{0, 1000, 2000, 4000}), gaps(start));
  source.up = true;
  EXPECT_EQ(0, run(seconds(60), milliseconds(50)));  // answered at 15 s, the same list
  EXPECT_EQ(5u, source.askTimes.size());
}

TEST_F(FeatureWatchTest, ConnectionTheWatchsOwnQuestionOpenedIsNoReasonToAskAgain) {
  watch->loaded(Unanswered());
  source.up = true;
  source.connectOnAsk = true;
  EXPECT_EQ(1, run(milliseconds(1000)));
  EXPECT_EQ(1u, source.connects);
  watch->loaded(Asked({{48, false}, {49, false}, {602, false}}));
  EXPECT_EQ(0, run(seconds(60)));
  EXPECT_EQ(1u, source.askTimes.size());
}

TEST_F(FeatureWatchTest, SameAnswersToTheAskedFeaturesNeedNoReload) {
  loadedWith({48});
  // The array now also lists a feature the module never asked.
  source.list = {48, 700};
  ++source.connects;
  EXPECT_EQ(0, run(seconds(5)));
  EXPECT_EQ(1u, source.askTimes.size());
  EXPECT_EQ("{48,700}", watch->currentText());
}

TEST_F(FeatureWatchTest, AnotherAnswerToAnAskedFeatureNeedsAReloadUntilLoaded) {
  loadedWith({48, 49, 602});
  source.list = {};
  ++source.connects;
  EXPECT_TRUE(watch->poll());
  EXPECT_EQ("{48,49,602}", watch->loadedText());
  EXPECT_EQ("{}", watch->currentText());
  clock.now += seconds(1);
  EXPECT_TRUE(watch->poll());  // still due: nothing was reloaded
  watch->loaded(Asked({{48, false}, {49, false}, {602, false}}));
  EXPECT_EQ("{}", watch->loadedText());
  EXPECT_EQ(0, run(seconds(5)));
  EXPECT_EQ(1u, source.askTimes.size());
}

TEST_F(FeatureWatchTest, ListUnansweredAtLoadDiffersFromAnyAnswerEvenNone) {
  watch->loaded(Unanswered());
  EXPECT_EQ("no answer", watch->loadedText());
  EXPECT_EQ("no answer", watch->currentText());
  source.up = true;
  source.list = {};
  EXPECT_EQ(1, run(seconds(1)));  // asked at 1 s
  EXPECT_EQ("{}", watch->currentText());
}

TEST_F(FeatureWatchTest, ModuleThatAskedNothingNeverNeedsAReload) {
  source.up = true;
  source.hasList = true;
  watch->loaded(Asked({}));
  source.list = {48, 49, 602};
  ++source.connects;
  EXPECT_EQ(0, run(seconds(5)));
  EXPECT_EQ(1u, source.askTimes.size());
}

TEST_F(FeatureWatchTest, FailedReloadIsTriedAgainWithBackoffWhateverTheList) {
  loadedWith({48});
  source.list = {49};
  ++source.connects;
  ASSERT_TRUE(watch->poll());
  std::vector<long long> waits;
  Clock::time_point failedAt = clock.now;
  for (int attempt = 0; attempt < 7; ++attempt) {
    watch->loadFailed();
    EXPECT_EQ("nothing, the last load failed", watch->loadedText());
    failedAt = clock.now;
    do {
      clock.now += milliseconds(100);
    } while (!watch->poll());
    waits.push_back(std::chrono::duration_cast<milliseconds>(clock.now - failedAt).count());
  }
  EXPECT_EQ((std::vector<long long>{1000, 2000, 4000, 8000, 16000, 30000, 30000}), waits);
  // Also when the list is back to what the module was built with: nothing
  // is served.
  source.list = {48};
  ++source.connects;
  watch->loadFailed();
  EXPECT_EQ(1, run(seconds(30)));
  watch->loaded(Asked({{48, true}}));
  EXPECT_EQ(0, run(seconds(60)));
}

TEST_F(FeatureWatchTest, SuccessfulLoadRestartsTheReloadBackoff) {
  loadedWith({48});
  source.list = {49};
  ++source.connects;
  ASSERT_TRUE(watch->poll());
  watch->loadFailed();
  EXPECT_EQ(milliseconds(1000), watch->reloadWait());
  watch->loadFailed();
  EXPECT_EQ(milliseconds(2000), watch->reloadWait());
  EXPECT_TRUE(watch->lastLoadFailed());
  watch->loaded(Asked({{48, false}}));
  EXPECT_FALSE(watch->lastLoadFailed());
  watch->loadFailed();
  EXPECT_EQ(milliseconds(1000), watch->reloadWait());
}

TEST(FeatureListTextTest, ListsTheNumbersInOrder) {
  EXPECT_EQ("{}", FeatureListText({}));
  EXPECT_EQ("{48,49,602}", FeatureListText({602, 48, 49}));
}

}  // namespace
}  // namespace zerva_agent
