// FakeBackend: an in-process management back end for handler tests.
//
// Installed as the transport of CSNMP_Configuration, it records every request
// package (a deep copy, with the third configure argument) and answers from a
// script: rules chosen by record identifier (and, for listings, by the
// object type in cell 0), or a queue of answers taken in order.
#ifndef ZERVA_TESTS_SUPPORT_FAKE_BACKEND_H_
#define ZERVA_TESTS_SUPPORT_FAKE_BACKEND_H_

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "snmpcommon/snmp_capability.h"
#include "snmpcommon/snmp_configuration.h"
#include "tlv/backend_codes.h"
#include "tlv/vem_message_package.h"

namespace zerva_test {

// Builds a record cell by cell: answers of the fake back end, expected
// packages, and requests sent to the simulator.
class Rec {
 public:
  explicit Rec(unsigned long long id = CTLVRecordV3::RESPONSE_ID) : id_(id) {}
  // Text cell (type 2) with its terminating NUL.
  Rec& str(unsigned short tag, const std::string& text);
  // Text cell without a terminating NUL.
  Rec& rawstr(unsigned short tag, const std::string& bytes);
  // Type-3 cell of 4 bytes.
  Rec& u32(unsigned short tag, unsigned int value);
  // Type-3 cell of 8 bytes.
  Rec& u64(unsigned short tag, unsigned long long value);
  // Type-6 cell of 8 bytes.
  Rec& t6(unsigned short tag, unsigned long long value);
  // Type-4 cell of 4 bytes.
  Rec& i32(unsigned short tag, int value);
  // Any cell from raw fields.
  Rec& cell(unsigned short tag, unsigned type, const std::vector<unsigned char>& value);
  // A new record with these cells.
  CTLVRecordV3* build() const;
  // A new package holding that record alone.
  std::unique_ptr<CTLVPackage> package() const;
  // That package encoded: header and body, as sent on the wire.
  std::vector<unsigned char> frame() const;

 private:
  struct Cell {
    unsigned short tagWord;
    std::vector<unsigned char> value;
  };
  unsigned long long id_;
  std::vector<Cell> cells_;
};

// A full answer: result code and records.
struct Answer {
  int code = 0;
  std::vector<Rec> records;
  Answer() {}
  Answer(int c) : code(c) {}  // NOLINT: an error answer reads as its code
  Answer(std::initializer_list<Rec> recs) : records(recs) {}
};

// One recorded request.
struct Call {
  std::vector<unsigned char> bytes;  // the request as encoded
  bool listing = false;              // the third configure argument
  unsigned long long id() const;     // identifier of the first record
  // The request decoded again (a fresh package).
  std::unique_ptr<CTLVPackage> package() const;
};

class FakeBackend : public ISnmpBackendTransport {
 public:
  typedef std::function<Answer(const CTLVPackage& req, bool listing)> Responder;

  int exchange(CTLVPackage& req, CTLVPackage& rsp, bool listing) override;

  // Answers requests whose first record has this identifier.
  void on(unsigned long long id, Responder responder);
  void on(unsigned long long id, const Answer& answer);
  // Answers the listing 0xD0000C000 of this object type (cell 0).
  void onListing(unsigned long long objectType, const Answer& answer);
  // Answers GET_CUR_STATISTIC_DATA for this object key ("207:0A") with a
  // tag-9 values text, or with an error code.
  void onStats(const std::string& objectKey, const std::string& values);
  void onStatsError(const std::string& objectKey, int code);
  // Answers queued here come first, in order, whatever the request.
  void push(const Answer& answer);

  std::vector<Call> calls() const;
  size_t callCount() const;
  // Calls whose first record has this identifier.
  std::vector<Call> callsTo(unsigned long long id) const;
  void reset();

 private:
  Answer answerFor(const CTLVPackage& req, bool listing);
  mutable std::mutex mu_;
  std::vector<Call> calls_;
  std::deque<Answer> queue_;
  std::map<unsigned long long, Responder> byId_;
  std::map<unsigned long long, Answer> listings_;
  std::map<std::string, Answer> stats_;
};

// Command codes of the default device configuration used by the tests.
enum : unsigned long long {
  kGetSwitchCmd = 59594907649ULL,
  kSetSwitchCmd = 59594907650ULL,
  kGetStatsCmd = 59594907664ULL,
  kListingCmd = backend::kObjectListingCmd,
};

// Answers the object listing 0xD0000C000 (and the sorted listings) page by
// page, as a back end does: objects after the key in tag 1 (from the first
// without one), at most pageSize per reply, then a control record (tag 4095:
// 0 when more objects follow, 1 at the end). With wrap set the listing never
// ends: after the last object it starts again from the first.
class PagedListing {
 public:
  PagedListing(std::vector<std::string> keys, size_t pageSize, bool wrap = false)
      : keys_(std::move(keys)), pageSize_(pageSize), wrap_(wrap) {}
  Answer operator()(const CTLVPackage& req, bool listing) const;
  // Keys asked for, in order ("" for a listing without key).
  std::vector<std::string> keysAsked() const;

 private:
  std::vector<std::string> keys_;
  size_t pageSize_;
  bool wrap_;
  std::shared_ptr<std::vector<std::string>> asked_ = std::make_shared<std::vector<std::string>>();
};

// Installs a FakeBackend, the test device configuration and a capability
// set for the lifetime of the object.
class BackendFixture {
 public:
  explicit BackendFixture(std::set<int> features = {});
  ~BackendFixture();
  FakeBackend& backend() { return *backend_; }
  void setFeatures(std::set<int> features);
  // Answers the switch query with this state.
  void setSwitch(unsigned int state);

 private:
  std::shared_ptr<FakeBackend> backend_;
  std::shared_ptr<ISnmpBackendTransport> previousTransport_;
  std::shared_ptr<ISnmpCapabilitySource> previousSource_;
};

// The package encoded by CTLVPackage::encode(unsigned char*&).
std::vector<unsigned char> Encode(CTLVPackage& pkg);

// Text of one cell as the tests compare it: "tag/type/len/value" where the
// value is the ValueCast number for numeric cells of up to 4 bytes, the
// 64-bit number for 8-byte ones, and the quoted bytes for text ("\0" for NUL).
std::string CellText(const CTLVCell& cell);
// Every cell of a record, space-separated.
std::string RecordText(const CTLVRecordV3& record);
// Every record of a package, one per line ("id: cells").
std::vector<std::string> PackageText(const CTLVPackage& pkg);

}  // namespace zerva_test

#endif  // ZERVA_TESTS_SUPPORT_FAKE_BACKEND_H_
