#include "tests/support/handler_test_support.h"

#include <cctype>
#include <cstdio>

#include "diag/vem_exception.h"

namespace zerva_test {

namespace {

// The level's name as the kit library spells it, in capitals ("TRACE").
std::string LevelName(EVEMLogLevel level) {
  std::string name = VEMLogLevelName(level);
  for (char& c : name) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
  return name;
}

// "<LEVEL> 0x<code> <function>: <text>"
std::string MessageText(const CVEMLogRecord& r) {
  char code[32];
  snprintf(code, sizeof code, "0x%llX", r.code);
  return LevelName(r.level) + " " + code + " " + r.function + ": " + r.message;
}

}  // namespace

std::vector<std::string> Requests(const FakeBackend& backend, ListingLabel label) {
  std::vector<std::string> out;
  for (const Call& call : backend.calls()) {
    std::string text;
    if (label == ListingLabel::kFlag) {
      text = call.listing ? "listing=1 " : "listing=0 ";
    } else {
      text = call.listing ? "listing " : "query ";
    }
    std::vector<std::string> records = PackageText(*call.package());
    for (size_t i = 0; i < records.size(); ++i) text += (i == 0 ? "" : " | ") + records[i];
    out.push_back(text);
  }
  return out;
}

std::vector<std::string> KitLines(const KitLogCapture& log, int kit) {
  std::vector<std::string> out;
  for (const CVEMLogRecord& r : log.records()) {
    if (kit >= 0 && r.kitNo != static_cast<unsigned int>(kit)) continue;
    const std::string text = std::to_string(r.kitNo) + " ";
    out.push_back(text + (r.level == VEM_LOG_TRACE ? "TRACE " + r.message : MessageText(r)));
  }
  return out;
}

std::vector<std::string> KitMessages(const KitLogCapture& log) {
  std::vector<std::string> out;
  for (const CVEMLogRecord& r : log.records()) {
    if (r.level != VEM_LOG_TRACE) out.push_back("kit" + std::to_string(r.kitNo) + " " + MessageText(r));
  }
  return out;
}

void ExpectMessagesCarrySourceLines(const KitLogCapture& log) {
  for (const CVEMLogRecord& r : log.records()) {
    if (r.level != VEM_LOG_TRACE) {
      EXPECT_GT(r.line, 0u) << r.message;
    }
  }
}

std::string Enter(const std::string& sig, const std::string& prefix) { return prefix + "enter " + sig + "..."; }

std::string Leave(const std::string& sig, bool ok, const std::string& prefix) {
  return prefix + "leave " + sig + (ok ? ": OK" : ": NOK");
}

std::vector<std::string> CallTraces(const std::string& outerSig, const std::string& innerSig,
                                    const std::vector<bool>& inner, bool ok, const std::string& prefix) {
  std::vector<std::string> out{Enter(outerSig, prefix)};
  for (bool b : inner) {
    out.push_back(Enter(innerSig, prefix));
    out.push_back(Leave(innerSig, b, prefix));
  }
  out.push_back(Leave(outerSig, ok, prefix));
  return out;
}

TableSigs::TableSigs(const std::string& cls)
    : queryTable("virtual int " + cls +
                 "::OnQueryTable(const CVEM_SnmpContext&, const CTLVPackageV3<TLVMsgHeadV3>&, "
                 "CTLVPackageV3<TLVMsgHeadV3>&)"),
      indexOfRecord("virtual std::string " + cls + "::getIndexOfRecord(const CTLVRecordV3&)"),
      preGetRspCell("virtual int " + cls + "::preGetRspCell(const CTLVRecordV3&)"),
      postGetRspCell("virtual void " + cls + "::postGetRspCell(const CTLVRecordV3&)"),
      fillRspRecord("virtual void " + cls + "::fillRspRecord(const CTLVRecordV3&, CTLVRecordV3*)") {}

const std::string kSimpleQueryTableSig = TableSigs("CPerformanceSimpleHandler").queryTable;

std::string StrCell(unsigned int tag, const std::string& text) {
  return std::to_string(tag) + "/2/" + std::to_string(text.size() + 1) + "/\"" + text + "\\0\"";
}

void ExpectReadStoppedAtTheSwitch(const FakeBackend& backend, const CTLVPackage& rsp, const KitLogCapture& log) {
  EXPECT_THAT(Requests(backend, ListingLabel::kWord), ElementsAre(kSwitchQuery));
  EXPECT_EQ(rsp.size(), 0u);
  EXPECT_THAT(KitMessages(log), IsEmpty());
  EXPECT_EQ(log.traces(), CallTraces(kSimpleQueryTableSig, kGetBatchPerfDataSig, {}, true, kBareTrace));
}

void ExpectReadStoppedAtTheSwitch(const FakeBackend& backend, const CTLVPackage& rsp, const KitLogCapture& log,
                                  const std::string& querySig) {
  EXPECT_THAT(rsp.records(), IsEmpty());
  EXPECT_THAT(Requests(backend), ElementsAre(kSwitchRequest));
  EXPECT_THAT(KitLines(log), ElementsAre(Enter(querySig), Leave(querySig, true)));
}

void ExpectNoRowAfterTheListing(const FakeBackend& backend, const CTLVPackage& rsp, const std::string& listingRequest) {
  EXPECT_THAT(Requests(backend, ListingLabel::kWord), ElementsAre(kSwitchQuery, listingRequest));
  EXPECT_EQ(rsp.size(), 0u);
}

std::vector<std::string> Repeat(const std::vector<std::string>& lines, int times) {
  std::vector<std::string> out;
  for (int i = 0; i < times; ++i) out.insert(out.end(), lines.begin(), lines.end());
  return out;
}

std::string Error(const std::string& function, const std::string& text) {
  return "4 ERROR 0x1002E " + function + ": " + text;
}

std::string Warn(const std::string& function, const std::string& text) {
  return "4 WARN 0xFFFF " + function + ": " + text;
}

std::string Debug(const std::string& function, const std::string& text) {
  return "4 DEBUG 0xFFFF " + function + ": " + text;
}

std::string ThrownText(const std::function<void()>& f) {
  try {
    f();
  } catch (const CVEM_Exception& e) {
    return e.what();
  } catch (...) {
    return "an exception other than CVEM_Exception";
  }
  return "no exception";
}

}  // namespace zerva_test
