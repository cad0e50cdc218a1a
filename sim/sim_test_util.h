// Request building and answer reading shared by the simulator's tests.
#ifndef ZERVA_SIM_SIM_TEST_UTIL_H_
#define ZERVA_SIM_SIM_TEST_UTIL_H_

#include <memory>
#include <string>
#include <vector>

#include "tlv/coding.h"
#include "tlv/vem_message_package.h"

namespace zerva_sim {
namespace testing {

// One request record, built cell by cell.
class Req {
 public:
  explicit Req(unsigned long long id) : record_(new CTLVRecordV3(id, 32)) {}
  Req& str(unsigned short tag, const std::string& text) {
    record_->append(tlv::NewStringCell(tag, text));
    return *this;
  }
  Req& u32(unsigned short tag, unsigned int v) {
    record_->append(tlv::NewUintCell(tag, CTLVCell::TLV_TYPE_UINT, v, 4));
    return *this;
  }
  Req& t6(unsigned short tag, unsigned long long v) {
    record_->append(tlv::NewUintCell(tag, CTLVCell::TLV_TYPE_UINT64, v, 8));
    return *this;
  }
  // A package holding this record (the record moves into it).
  std::unique_ptr<CTLVPackage> package() {
    std::unique_ptr<CTLVPackage> pkg(new CTLVPackage());
    pkg->push_back(record_.release());
    return pkg;
  }
  // The encoded frame.
  std::vector<unsigned char> frame() {
    std::unique_ptr<CTLVPackage> pkg = package();
    std::vector<unsigned char> out(TLVMsgHeadV3::SIZE + pkg->bodyLength());
    pkg->encode(out.data(), static_cast<unsigned>(out.size()));
    return out;
  }

 private:
  std::unique_ptr<CTLVRecordV3> record_;
};

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
