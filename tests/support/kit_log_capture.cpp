#include "tests/support/kit_log_capture.h"

#include <mutex>

namespace zerva_test {

class KitLogCapture::Sink : public IVEMLogSink {
 public:
  void write(const CVEMLogRecord& record) override {
    std::lock_guard<std::mutex> lock(mu);
    records.push_back(record);
  }
  std::mutex mu;
  std::vector<CVEMLogRecord> records;
};

KitLogCapture::KitLogCapture() : sink_(std::make_shared<Sink>()) {
  CVEMDebugKitMgr* mgr = CVEMDebugKitMgrSingleton::instance();
  previousSink_ = mgr->sink();
  previousLevel_ = mgr->defaultLevel();
  mgr->setSink(sink_);
  mgr->setLevel(VEM_LOG_TRACE);
}

KitLogCapture::~KitLogCapture() {
  CVEMDebugKitMgr* mgr = CVEMDebugKitMgrSingleton::instance();
  mgr->setSink(previousSink_);
  mgr->setLevel(previousLevel_);
}

std::vector<CVEMLogRecord> KitLogCapture::records() const {
  std::lock_guard<std::mutex> lock(sink_->mu);
  return sink_->records;
}

std::vector<CVEMLogRecord> KitLogCapture::records(EVEMLogLevel level) const {
  std::vector<CVEMLogRecord> out;
  for (const CVEMLogRecord& r : records()) {
    if (r.level == level) out.push_back(r);
  }
  return out;
}

std::vector<std::string> KitLogCapture::traces() const {
  std::vector<std::string> out;
  for (const CVEMLogRecord& r : records(VEM_LOG_TRACE)) out.push_back(r.message);
  return out;
}

void KitLogCapture::clear() {
  std::lock_guard<std::mutex> lock(sink_->mu);
  sink_->records.clear();
}

}  // namespace zerva_test
