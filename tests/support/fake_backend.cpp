#include "tests/support/fake_backend.h"

#include <cstdio>

#include "tlv/coding.h"
#include "vempub/vem_xml_config.h"

namespace zerva_test {

Rec& Rec::str(unsigned short tag, const std::string& text) {
  std::vector<unsigned char> v(text.begin(), text.end());
  v.push_back(0);
  return cell(tag, 2, v);
}

Rec& Rec::rawstr(unsigned short tag, const std::string& bytes) {
  return cell(tag, 2, std::vector<unsigned char>(bytes.begin(), bytes.end()));
}

Rec& Rec::u32(unsigned short tag, unsigned int value) {
  std::vector<unsigned char> v(4);
  tlv::EncodeFixed32(v.data(), value);
  return cell(tag, 3, v);
}

Rec& Rec::u64(unsigned short tag, unsigned long long value) {
  std::vector<unsigned char> v(8);
  tlv::EncodeFixed64(v.data(), value);
  return cell(tag, 3, v);
}

Rec& Rec::t6(unsigned short tag, unsigned long long value) {
  std::vector<unsigned char> v(8);
  tlv::EncodeFixed64(v.data(), value);
  return cell(tag, 6, v);
}

Rec& Rec::i32(unsigned short tag, int value) {
  std::vector<unsigned char> v(4);
  tlv::EncodeFixed32(v.data(), static_cast<uint32_t>(value));
  return cell(tag, 4, v);
}

Rec& Rec::cell(unsigned short tag, unsigned type, const std::vector<unsigned char>& value) {
  cells_.push_back({static_cast<unsigned short>((tag << 4) | (type & 0xF)), value});
  return *this;
}

CTLVRecordV3* Rec::build() const {
  std::unique_ptr<CTLVRecordV3> record(new CTLVRecordV3(id_, 32));
  for (const Cell& c : cells_) {
    std::unique_ptr<CTLVCell> cell(new CTLVCell());
    cell->setCell(c.tagWord, reinterpret_cast<const char*>(c.value.data()), c.value.size());
    record->append(cell.release());
  }
  return record.release();
}

std::unique_ptr<CTLVPackage> Rec::package() const {
  std::unique_ptr<CTLVPackage> pkg(new CTLVPackage());
  pkg->push_back(build());
  return pkg;
}

std::vector<unsigned char> Rec::frame() const {
  std::unique_ptr<CTLVPackage> pkg = package();
  std::vector<unsigned char> out(TLVMsgHeadV3::SIZE + pkg->bodyLength());
  pkg->encode(out.data(), static_cast<unsigned>(out.size()));
  return out;
}

unsigned long long Call::id() const { return bytes.size() >= 36 ? tlv::DecodeFixed64(bytes.data() + 28) : 0; }

std::unique_ptr<CTLVPackage> Call::package() const {
  std::unique_ptr<CTLVPackage> pkg(new CTLVPackage());
  std::vector<unsigned char> copy = bytes;
  pkg->decode(copy.data(), static_cast<unsigned int>(copy.size()));
  return pkg;
}

int FakeBackend::exchange(CTLVPackage& req, CTLVPackage& rsp, bool listing) {
  Call call;
  call.bytes = Encode(req);
  call.listing = listing;
  Answer answer;
  {
    std::lock_guard<std::mutex> lock(mu_);
    calls_.push_back(call);
  }
  answer = answerFor(req, listing);
  if (answer.code != 0) return answer.code;
  for (const Rec& r : answer.records) rsp.push_back(r.build());
  return 0;
}

Answer FakeBackend::answerFor(const CTLVPackage& req, bool listing) {
  Responder responder;
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (!queue_.empty()) {
      Answer a = queue_.front();
      queue_.pop_front();
      return a;
    }
    if (req.empty()) return Answer(-99);
    const CTLVRecordV3& first = *req[0];
    if (first.id() == kListingCmd && first.hasTag(backend::kTagListingType)) {
      const CTLVCell* type = first[backend::kTagListingType];
      const unsigned long long objectType = tlv::DecodeFixedUpTo64(type->value(), type->length());
      auto it = listings_.find(objectType);
      if (it != listings_.end()) return it->second;
    }
    if (first.id() == kGetStatsCmd && first.hasTag(backend::kTagStatsObjectKey)) {
      auto it = stats_.find(first[backend::kTagStatsObjectKey]->toString());
      if (it != stats_.end()) return it->second;
    }
    auto it = byId_.find(first.id());
    if (it != byId_.end()) responder = it->second;
  }
  if (responder) return responder(req, listing);
  // Nothing scripted: an error the tests will notice.
  return Answer(-98);
}

void FakeBackend::on(unsigned long long id, Responder responder) {
  std::lock_guard<std::mutex> lock(mu_);
  byId_[id] = std::move(responder);
}

void FakeBackend::on(unsigned long long id, const Answer& answer) {
  on(id, [answer](const CTLVPackage&, bool) { return answer; });
}

void FakeBackend::onListing(unsigned long long objectType, const Answer& answer) {
  std::lock_guard<std::mutex> lock(mu_);
  listings_[objectType] = answer;
}

void FakeBackend::onStats(const std::string& objectKey, const std::string& values) {
  std::lock_guard<std::mutex> lock(mu_);
  stats_[objectKey] = Answer{Rec().str(backend::kTagStatsValues, values)};
}

void FakeBackend::onStatsError(const std::string& objectKey, int code) {
  std::lock_guard<std::mutex> lock(mu_);
  stats_[objectKey] = Answer(code);
}

void FakeBackend::push(const Answer& answer) {
  std::lock_guard<std::mutex> lock(mu_);
  queue_.push_back(answer);
}

std::vector<Call> FakeBackend::calls() const {
  std::lock_guard<std::mutex> lock(mu_);
  return calls_;
}

size_t FakeBackend::callCount() const {
  std::lock_guard<std::mutex> lock(mu_);
  return calls_.size();
}

std::vector<Call> FakeBackend::callsTo(unsigned long long id) const {
  std::vector<Call> out;
  for (const Call& c : calls()) {
    if (c.id() == id) out.push_back(c);
  }
  return out;
}

void FakeBackend::reset() {
  std::lock_guard<std::mutex> lock(mu_);
  calls_.clear();
  queue_.clear();
  byId_.clear();
  listings_.clear();
  stats_.clear();
}

Answer PagedListing::operator()(const CTLVPackage& req, bool) const {
  const CTLVRecordV3& first = *req[0];
  const std::string key =
      first.hasTag(backend::kTagListingKey) ? first[backend::kTagListingKey]->toString() : std::string();
  asked_->push_back(key);
  size_t start = 0;
  if (!key.empty()) {
    size_t i = 0;
    while (i < keys_.size() && keys_[i] != key) ++i;
    start = i < keys_.size() ? i + 1 : keys_.size();
  }
  Answer answer;
  size_t pos = start;
  for (size_t n = 0; n < pageSize_; ++n) {
    if (pos >= keys_.size()) {
      if (!wrap_ || keys_.empty()) break;
      pos = 0;
    }
    answer.records.push_back(
        Rec(kListingCmd).t6(backend::kTagListingType, backend::kObjTypeLun).str(backend::kTagObjectId, keys_[pos]));
    ++pos;
  }
  const bool more = wrap_ ? !keys_.empty() : pos < keys_.size();
  answer.records.push_back(Rec(kListingCmd).u32(backend::kTagControl, more ? 0 : 1));
  return answer;
}

std::vector<std::string> PagedListing::keysAsked() const { return *asked_; }

namespace {

const char kTestDeviceConfig[] =
    "<device><section name=\"COMMAND\">"
    "<item key=\"GET_PERFORMANCE_SWITCH\" value=\"59594907649\"/>"
    "<item key=\"SET_PERFORMANCE_SWITCH\" value=\"59594907650\"/>"
    "<item key=\"GET_CUR_STATISTIC_DATA\" value=\"59594907664\"/>"
    "</section></device>";

}  // namespace

BackendFixture::BackendFixture(std::set<int> features) : backend_(std::make_shared<FakeBackend>()) {
  std::string error;
  if (!CVEMXmlConfig::instance()->loadFromString(kTestDeviceConfig, &error)) {
    fprintf(stderr, "test device configuration: %s\n", error.c_str());
  }
  previousTransport_ = CSNMP_Configuration::instance()->setTransport(backend_);
  previousSource_ = SetSnmpCapabilitySource(std::make_shared<CStaticCapabilitySource>(std::move(features)));
}

BackendFixture::~BackendFixture() {
  CSNMP_Configuration::instance()->setTransport(previousTransport_);
  SetSnmpCapabilitySource(previousSource_);
}

void BackendFixture::setFeatures(std::set<int> features) {
  SetSnmpCapabilitySource(std::make_shared<CStaticCapabilitySource>(std::move(features)));
}

void BackendFixture::setSwitch(unsigned int state) {
  backend_->on(kGetSwitchCmd, Answer{Rec().u32(backend::kTagSwitchState, state)});
}

std::vector<unsigned char> Encode(CTLVPackage& pkg) {
  unsigned char* out = nullptr;
  unsigned int n = pkg.encode(out);
  std::vector<unsigned char> bytes(out, out + n);
  delete[] out;
  return bytes;
}

std::string CellText(const CTLVCell& cell) {
  std::string out =
      std::to_string(cell.tag()) + "/" + std::to_string(cell.type()) + "/" + std::to_string(cell.length()) + "/";
  if (cell.type() == CTLVCell::TLV_TYPE_STRING) {
    out += '"';
    for (unsigned i = 0; i < cell.length(); ++i) {
      unsigned char c = cell.value()[i];
      if (c == 0) {
        out += "\\0";
      } else {
        out += static_cast<char>(c);
      }
    }
    out += '"';
  } else if (cell.length() == 8) {
    out += std::to_string(tlv::DecodeFixed64(cell.value()));
  } else {
    out += std::to_string(CTLVCell::ValueCast<unsigned int>()(&cell));
  }
  return out;
}

std::string RecordText(const CTLVRecordV3& record) {
  std::string out;
  for (const CTLVCell* cell : record.cells()) {
    if (!out.empty()) out += ' ';
    out += CellText(*cell);
  }
  return out;
}

std::vector<std::string> PackageText(const CTLVPackage& pkg) {
  std::vector<std::string> out;
  for (const CTLVRecordV3* r : pkg.records()) {
    char id[32];
    snprintf(id, sizeof id, "0x%llX: ", r->id());
    out.push_back(id + RecordText(*r));
  }
  return out;
}

}  // namespace zerva_test
