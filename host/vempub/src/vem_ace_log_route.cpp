#include "vempub/vem_ace_log_route.h"

#include <ace/Log_Msg.h>
#include <ace/Log_Msg_Backend.h>
#include <ace/Log_Priority.h>
#include <ace/Log_Record.h>

#include <atomic>
#include <cctype>
#include <cstring>
#include <mutex>

namespace {

// Hands every ACE record to a debug kit.
class CKitBackend : public ACE_Log_Msg_Backend {
 public:
  int open(const ACE_TCHAR*) override { return 0; }
  int reset() override { return 0; }
  int close() override { return 0; }
  ssize_t log(ACE_Log_Record& record) override;

  std::atomic<unsigned int> kitNo{VEM_KIT_ACE};
};

ssize_t CKitBackend::log(ACE_Log_Record& record) {
  CVEMDebugKitMgr* mgr = CVEMDebugKitMgrSingleton::instance();
  CVEMDebugKit* kit = mgr->find(kitNo.load());
  const EVEMLogLevel level = VEMAceLogLevel(record.type());
  if (!kit->enabled(level)) return 0;
  CVEMLogRecord out;
  out.kitNo = kit->number();
  out.level = level;
  out.message = VEMAceLogText(record.msg_data() != nullptr ? record.msg_data() : "");
  if (level != VEM_LOG_TRACE) {
    out.code = level == VEM_LOG_ERROR ? 0x1002E : 0xFFFF;
    // The source position the logging code gave ACE (conditional_set).
    ACE_Log_Msg* msg = ACE_Log_Msg::instance();
    const char* file = msg->file();
    if (file != nullptr && *file != '\0' && msg->linenum() > 0) {
      const char* slash = std::strrchr(file, '/');
      out.function = slash != nullptr ? slash + 1 : file;
      out.line = static_cast<unsigned int>(msg->linenum());
    } else {
      out.function = "ace";
    }
  }
  mgr->write(out);
  return 0;
}

std::mutex g_mu;
// Never destroyed: ACE may still log while the process exits.
CKitBackend& g_backend = *new CKitBackend;
bool g_routed = false;
ACE_Log_Msg_Backend* g_previousBackend = nullptr;
unsigned long g_previousFlags = 0;

}  // namespace

void VEMRouteAceLog(unsigned int kitNo) {
  std::lock_guard<std::mutex> lock(g_mu);
  g_backend.kitNo.store(kitNo);
  if (g_routed) return;
  ACE_Log_Msg* log = ACE_Log_Msg::instance();
  g_previousFlags = log->flags();
  g_previousBackend = ACE_Log_Msg::msg_backend(&g_backend);
  log->clr_flags(ACE_Log_Msg::STDERR | ACE_Log_Msg::OSTREAM);
  log->set_flags(ACE_Log_Msg::CUSTOM);
  g_routed = true;
}

void VEMUnrouteAceLog() {
  std::lock_guard<std::mutex> lock(g_mu);
  if (!g_routed) return;
  ACE_Log_Msg* log = ACE_Log_Msg::instance();
  log->clr_flags(ACE_Log_Msg::CUSTOM);
  log->set_flags(g_previousFlags);
  ACE_Log_Msg::msg_backend(g_previousBackend);
  g_previousBackend = nullptr;
  g_routed = false;
}

bool VEMAceLogRouted() {
  std::lock_guard<std::mutex> lock(g_mu);
  return g_routed;
}

std::string VEMAceLogText(const std::string& formatted) {
  std::string text = formatted;
  // "2026-11-22 06:10:33.123456 LM_ERROR (140213) text": a prefix is only
  // what has a time stamp (digits, '-', ':', '.', blanks) before the
  // priority name, so a text that merely mentions a priority stays whole.
  const size_t name = text.find(" LM_");
  bool stamp = name != std::string::npos;
  for (size_t i = 0; stamp && i < name; ++i) stamp = std::strchr("0123456789-:./ ", text[i]) != nullptr;
  if (stamp) {
    const size_t open = text.find(' ', name + 1);
    if (open != std::string::npos && open + 1 < text.size() && text[open + 1] == '(') {
      const size_t close = text.find(')', open + 2);
      bool digits = close != std::string::npos && close > open + 2;
      for (size_t i = open + 2; digits && i < close; ++i) {
        digits = std::isdigit(static_cast<unsigned char>(text[i])) != 0;
      }
      if (digits) text.erase(0, close + 1 < text.size() && text[close + 1] == ' ' ? close + 2 : close + 1);
    }
  }
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  return text;
}

EVEMLogLevel VEMAceLogLevel(unsigned long priority) {
  if (priority >= LM_ERROR) return VEM_LOG_ERROR;
  if (priority == LM_WARNING) return VEM_LOG_WARN;
  if (priority == LM_TRACE) return VEM_LOG_TRACE;
  return VEM_LOG_DEBUG;
}
