// Answer reading shared by the simulator's tests (requests are built with
// zerva_test::Rec, tests/support/fake_backend.h).
#ifndef ZERVA_SIM_SIM_TEST_UTIL_H_
#define ZERVA_SIM_SIM_TEST_UTIL_H_

#include <memory>
#include <string>
#include <vector>

#include "tlv/coding.h"
#include "tlv/vem_message_package.h"

namespace zerva_sim {
namespace testing {

// A decoded answer frame.
struct Decoded {
  unsigned int code = 0;
  bool ok = false;  // the frame decoded
  CTLVPackage pkg;
};

inline std::unique_ptr<Decoded> DecodeAnswer(std::vector<unsigned char> bytes) {
  std::unique_ptr<Decoded> d(new Decoded());
  if (bytes.size() < TLVMsgHeadV3::SIZE) return d;
  d->code = tlv::DecodeFixed32(bytes.data() + 8);
  d->ok = d->pkg.decode(bytes.data(), static_cast<unsigned>(bytes.size())) != CTLVPackage::FAILED;
  return d;
}

// Text of a record's cell, "" when absent.
inline std::string Text(const CTLVRecordV3& r, unsigned short tag) {
  return r.hasTag(tag) ? r[tag]->toString() : std::string();
}

// Number of a record's cell (first four bytes).
inline unsigned int Num(const CTLVRecordV3& r, unsigned short tag) {
  return CTLVCell::ValueCast<unsigned int>()(r[tag]);
}

}  // namespace testing
}  // namespace zerva_sim

#endif  // ZERVA_SIM_SIM_TEST_UTIL_H_
