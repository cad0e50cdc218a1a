#include "tests/support/ace_log_capture.h"

#include <ace/Log_Msg.h>
#include <ace/Log_Msg_Backend.h>
#include <ace/Log_Record.h>

#include <mutex>
#include <regex>

namespace zerva_test {

class AceLogCapture::Backend : public ACE_Log_Msg_Backend {
 public:
  int open(const ACE_TCHAR*) override { return 0; }
  int reset() override { return 0; }
  int close() override { return 0; }
  ssize_t log(ACE_Log_Record& record) override {
    std::lock_guard<std::mutex> lock(mu);
    lines.push_back(record.msg_data());
    priorities.push_back(ACE_Log_Record::priority_name(static_cast<ACE_Log_Priority>(record.type())));
    return 0;
  }
  std::mutex mu;
  std::vector<std::string> lines;
  std::vector<std::string> priorities;  // of each line, as ACE recorded it
};

AceLogCapture::AceLogCapture() : backend_(new Backend) {
  ACE_Log_Msg* log = ACE_Log_Msg::instance();
  previousFlags_ = log->flags();
  previousBackend_ = ACE_Log_Msg::msg_backend(backend_.get());
  log->clr_flags(ACE_Log_Msg::STDERR);
  log->set_flags(ACE_Log_Msg::CUSTOM);
}

AceLogCapture::~AceLogCapture() {
  ACE_Log_Msg* log = ACE_Log_Msg::instance();
  log->clr_flags(ACE_Log_Msg::CUSTOM);
  log->set_flags(previousFlags_);
  ACE_Log_Msg::msg_backend(static_cast<ACE_Log_Msg_Backend*>(previousBackend_));
}

std::vector<AceLine> AceLogCapture::lines() const {
  static const std::regex kPrefix("^(.*?) (LM_[A-Z]+) \\(\\d+\\) ([\\s\\S]*?)\\n?$");
  std::vector<std::string> raw;
  std::vector<std::string> priorities;
  {
    std::lock_guard<std::mutex> lock(backend_->mu);
    raw = backend_->lines;
    priorities = backend_->priorities;
  }
  std::vector<AceLine> out;
  for (size_t i = 0; i < raw.size(); ++i) {
    const std::string& r = raw[i];
    AceLine line;
    line.raw = r;
    line.recordPriority = priorities[i];
    std::smatch m;
    if (std::regex_match(r, m, kPrefix)) {
      line.priority = m[2];
      line.text = m[3];
    } else {
      line.text = r;
    }
    out.push_back(line);
  }
  return out;
}

std::vector<std::string> AceLogCapture::texts() const {
  std::vector<std::string> out;
  for (const AceLine& line : lines()) out.push_back(line.text);
  return out;
}

void AceLogCapture::clear() {
  std::lock_guard<std::mutex> lock(backend_->mu);
  backend_->lines.clear();
  backend_->priorities.clear();
}

void PrintTo(const AceLine& line, std::ostream* os) {
  *os << "{record priority " << line.recordPriority << ", text priority " << line.priority << ", text \"" << line.text
      << "\"}";
}

::testing::Matcher<const AceLine&> AceError(const ::testing::Matcher<std::string>& text) {
  return ::testing::AllOf(::testing::Field(&AceLine::recordPriority, "LM_ERROR"),
                          ::testing::Field(&AceLine::priority, "LM_ERROR"), ::testing::Field(&AceLine::text, text));
}

}  // namespace zerva_test
