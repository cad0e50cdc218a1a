// Helpers shared by the handler tests: the requests the fake back end saw and
// the debug-kit lines as text, the trace lines the kits write on entering and
// leaving a function, and a fixture holding the environment of a handler.
#ifndef ZERVA_TESTS_SUPPORT_HANDLER_TEST_SUPPORT_H_
#define ZERVA_TESTS_SUPPORT_HANDLER_TEST_SUPPORT_H_

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "snmpcommon/snmp_context.h"
#include "snmpcommon/snmp_table_base.h"
#include "tests/support/fake_backend.h"
#include "tests/support/kit_log_capture.h"
#include "tlv/vem_message_package.h"

namespace zerva_test {

// The matchers every handler test uses.
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

// How Requests names the third configure argument of a request.
enum class ListingLabel {
  kFlag,  // "listing=1 " for a listing, "listing=0 " otherwise
  kWord,  // "listing " for a listing, "query " otherwise
};

// Every request the back end received, in order: the label of the third
// configure argument followed by the records as "0x<id>: <cells>", records
// joined by " | ".
std::vector<std::string> Requests(const FakeBackend& backend, ListingLabel label = ListingLabel::kFlag);

// Every debug-kit record of kit (all kits when kit < 0), in order:
// "<kit> TRACE <text>" for the enter and leave lines,
// "<kit> <LEVEL> 0x<code> <function>: <text>" for messages.
std::vector<std::string> KitLines(const KitLogCapture& log, int kit = -1);

// Every record but the trace lines: "kit<kit> <LEVEL> 0x<code> <function>: <text>".
std::vector<std::string> KitMessages(const KitLogCapture& log);

// Every message (not the trace lines) names the source line it was written from.
void ExpectMessagesCarrySourceLines(const KitLogCapture& log);

// Prefixes of a trace line: as KitLines writes those of kit 4 (the module's
// kit), and as KitLogCapture::traces() gives them (none).
inline constexpr char kKit4Trace[] = "4 TRACE ";
inline constexpr char kBareTrace[] = "";

// The trace line written on entering the function of signature sig.
std::string Enter(const std::string& sig, const std::string& prefix = kKit4Trace);
// The trace line written on leaving it, with its result.
std::string Leave(const std::string& sig, bool ok, const std::string& prefix = kKit4Trace);
// The trace lines of outerSig calling innerSig once per entry of inner (true:
// that call succeeded), outerSig ending with ok.
std::vector<std::string> CallTraces(const std::string& outerSig, const std::string& innerSig,
                                    const std::vector<bool>& inner, bool ok, const std::string& prefix = kKit4Trace);

// The trace signatures of the table hooks of handler class cls.
struct TableSigs {
  explicit TableSigs(const std::string& cls);
  std::string queryTable;     // OnQueryTable
  std::string indexOfRecord;  // getIndexOfRecord
  std::string preGetRspCell;
  std::string postGetRspCell;
  std::string fillRspRecord;  // the two-argument one
};

// Trace signatures shared by several handlers.
extern const std::string kSimpleQueryTableSig;  // CPerformanceSimpleHandler::OnQueryTable
inline constexpr char kGetBatchPerfDataSig[] =
    "int CSnmpPerformanceCommon::GetBatchPerfData(u_int, const string&, const string&, std::vector<unsigned int>&)";

// The switch query as Requests writes it with each label.
inline constexpr char kSwitchRequest[] = "listing=0 0xDE0222001: ";
inline constexpr char kSwitchQuery[] = "query 0xDE0222001: ";

// The identifier of a response record as PackageText writes it.
inline constexpr char kResponseId[] = "0xFFFFFFFFFFFFFFFF: ";

// A type-2 cell holding text and its NUL, as CellText writes it.
std::string StrCell(unsigned int tag, const std::string& text);

// The lines, repeated times times in a row.
std::vector<std::string> Repeat(const std::vector<std::string>& lines, int times);

// Kit-4 message lines as KitLines writes them: an error (code 0x1002E), a
// warning and a debug line (code 0xFFFF).
std::string Error(const std::string& function, const std::string& text);
std::string Warn(const std::string& function, const std::string& text);
std::string Debug(const std::string& function, const std::string& text);

// what() of the CVEM_Exception that f throws ("no exception", or "an
// exception other than CVEM_Exception").
std::string ThrownText(const std::function<void()>& f);

// A table handler with the walk state of CSnmpTableBase in reach.
template <class Handler>
class WithTableState : public Handler {
 public:
  using CSnmpTableBase::m_bWholeTable;
  using CSnmpTableBase::m_iRetCode;
  using CSnmpTableBase::m_strCurKey;
  using CSnmpTableBase::m_usBatchSize;
};

// preGetRspCell for a listed record (expected to succeed), then fillRspRecord
// into a new row: the row's cells as text.
template <class Handler>
std::string FilledRowText(Handler& handler, const CTLVRecordV3& listed) {
  EXPECT_EQ(handler.preGetRspCell(listed), 0);
  CTLVRecordV3 row(CTLVRecordV3::RESPONSE_ID, 32);
  handler.fillRspRecord(listed, &row);
  return RecordText(row);
}

// preGetRspCell and fillRspRecord as above for the listed record, the back end
// answering the statistics of objectKey with values.
template <class Handler>
std::string FilledRowText(Handler& handler, FakeBackend& backend, const std::string& objectKey,
                          const std::string& values, const Rec& listed) {
  backend.onStats(objectKey, values);
  std::unique_ptr<CTLVRecordV3> record(listed.build());
  return FilledRowText(handler, *record);
}

// A read of a CPerformanceSimpleHandler table that stopped at the switch: the
// switch query alone was sent ("query" label), no row was answered, no message
// was written and the traces are the entry to and the exit (OK) from
// OnQueryTable only.
void ExpectReadStoppedAtTheSwitch(const FakeBackend& backend, const CTLVPackage& rsp, const KitLogCapture& log);
// The same for a table handler with its own OnQueryTable (querySig), which
// traces through kit 4: the switch query ("listing=0" label) alone, no row,
// and the kit lines are the entry to and the exit (OK) from querySig only.
void ExpectReadStoppedAtTheSwitch(const FakeBackend& backend, const CTLVPackage& rsp, const KitLogCapture& log,
                                  const std::string& querySig);
// A read of a CPerformanceSimpleHandler table that got no object to query:
// the switch query and listingRequest alone were sent ("query" and "listing"
// labels) and no row was answered.
void ExpectNoRowAfterTheListing(const FakeBackend& backend, const CTLVPackage& rsp, const std::string& listingRequest);

// The environment of a handler test: the fake back end with the test device
// configuration (built first, so that the command codes are loaded before any
// handler of the derived fixture), the kit log capture, and the context and
// packages of a query. Base is ::testing::Test or a ::testing::TestWithParam.
template <class Base = ::testing::Test>
class HandlerTest : public Base {
 protected:
  FakeBackend& backend() { return env_.backend(); }

  BackendFixture env_;
  KitLogCapture log_;
  CVEM_SnmpContext ctx_;
  CTLVPackage req_;
  CTLVPackage rsp_;
};

}  // namespace zerva_test

#endif  // ZERVA_TESTS_SUPPORT_HANDLER_TEST_SUPPORT_H_
