#include "vempub/vem_debug_kit.h"

#include <sys/syscall.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <ctime>
#include <vector>

namespace {

std::atomic<int> g_instancesCreated{0};

std::string FormatV(const char* format, va_list args) {
  va_list copy;
  va_copy(copy, args);
  char small[512];
  int n = vsnprintf(small, sizeof small, format, copy);
  va_end(copy);
  if (n < 0) return std::string();
  if (static_cast<size_t>(n) < sizeof small) return std::string(small, n);
  std::vector<char> big(static_cast<size_t>(n) + 1);
  va_copy(copy, args);
  vsnprintf(big.data(), big.size(), format, copy);
  va_end(copy);
  return std::string(big.data(), n);
}

}  // namespace

const char* VEMLogLevelName(EVEMLogLevel level) {
  switch (level) {
    case VEM_LOG_TRACE:
      return "trace";
    case VEM_LOG_DEBUG:
      return "debug";
    case VEM_LOG_WARN:
      return "warn";
    case VEM_LOG_ERROR:
      return "error";
    case VEM_LOG_OFF:
      return "off";
  }
  return "?";
}

bool VEMParseLogLevel(const std::string& text, EVEMLogLevel* level) {
  std::string t;
  for (char c : text) t += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  static const EVEMLogLevel kAll[] = {VEM_LOG_TRACE, VEM_LOG_DEBUG, VEM_LOG_WARN, VEM_LOG_ERROR, VEM_LOG_OFF};
  for (EVEMLogLevel l : kAll) {
    if (t == VEMLogLevelName(l)) {
      *level = l;
      return true;
    }
  }
  return false;
}

std::string VEMFormatLogRecord(const CVEMLogRecord& record) {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  struct tm tmv;
  localtime_r(&tv.tv_sec, &tmv);
  char stamp[64];
  snprintf(stamp, sizeof stamp, "%04d-%02d-%02d %02d:%02d:%02d.%06ld", tmv.tm_year + 1900, tmv.tm_mon + 1, tmv.tm_mday,
           tmv.tm_hour, tmv.tm_min, tmv.tm_sec, static_cast<long>(tv.tv_usec));
  static const char* const kUpper[] = {"TRACE", "DEBUG", "WARN", "ERROR", "OFF"};
  std::string out = stamp;
  out += " [kit ";
  out += std::to_string(record.kitNo);
  out += "] ";
  out += kUpper[record.level];
  out += ' ';
  if (record.level != VEM_LOG_TRACE) {
    char code[32];
    snprintf(code, sizeof code, "0x%llX ", record.code);
    out += code;
    out += record.function;
    out += ':';
    out += std::to_string(record.line);
    out += ' ';
  }
  out += record.message;
  return out;
}

void CVEMStderrSink::write(const CVEMLogRecord& record) {
  std::string line = VEMFormatLogRecord(record);
  line += '\n';
  // One write per line keeps lines of concurrent threads whole.
  ssize_t ignored = ::write(2, line.data(), line.size());
  (void)ignored;
}

CVEMFileSink::CVEMFileSink(const std::string& path) : file_(fopen(path.c_str(), "ae")) {}

CVEMFileSink::~CVEMFileSink() {
  if (file_ != nullptr) fclose(file_);
}

void CVEMFileSink::write(const CVEMLogRecord& record) {
  if (file_ == nullptr) return;
  std::string line = VEMFormatLogRecord(record);
  std::lock_guard<std::mutex> lock(mu_);
  fputs(line.c_str(), file_);
  fputc('\n', file_);
  fflush(file_);
}

CVEMSyslogSink::CVEMSyslogSink(const std::string& ident) : ident_(ident) {
  openlog(ident_.c_str(), LOG_PID, LOG_DAEMON);
}

CVEMSyslogSink::~CVEMSyslogSink() { closelog(); }

void CVEMSyslogSink::write(const CVEMLogRecord& record) {
  static const int kPriority[] = {LOG_DEBUG, LOG_DEBUG, LOG_WARNING, LOG_ERR, LOG_DEBUG};
  std::string line = VEMFormatLogRecord(record);
  // syslog stamps the time itself: drop ours (date and time, 27 characters).
  const size_t stampLen = 27;
  syslog(kPriority[record.level], "%s", line.size() > stampLen ? line.c_str() + stampLen : line.c_str());
}

CVEMDebugKit::CVEMDebugKit(unsigned int kitNo, CVEMDebugKitMgr* mgr, EVEMLogLevel level)
    : kitNo_(kitNo), mgr_(mgr), level_(level) {}

void CVEMDebugKit::trace(const std::string& line) {
  if (!enabled(VEM_LOG_TRACE)) return;
  CVEMLogRecord record;
  record.kitNo = kitNo_;
  record.level = VEM_LOG_TRACE;
  record.message = line;
  mgr_->write(record);
}

void CVEMDebugKit::emit(EVEMLogLevel level, unsigned long long code, const char* function, unsigned int line,
                        const char* format, va_list args) {
  if (!enabled(level)) return;
  CVEMLogRecord record;
  record.kitNo = kitNo_;
  record.level = level;
  record.code = code;
  record.function = function != nullptr ? function : "";
  record.line = line;
  record.message = format != nullptr ? FormatV(format, args) : std::string();
  mgr_->write(record);
}

void CVEMDebugKit::error(unsigned long long code, const char* function, unsigned int line, const char* format,
                         va_list args) {
  emit(VEM_LOG_ERROR, code, function, line, format, args);
}

void CVEMDebugKit::warn(unsigned long long code, const char* function, unsigned int line, const char* format,
                        va_list args) {
  emit(VEM_LOG_WARN, code, function, line, format, args);
}

void CVEMDebugKit::debug(unsigned long long code, const char* function, unsigned int line, const char* format,
                         va_list args) {
  emit(VEM_LOG_DEBUG, code, function, line, format, args);
}

CVEMDebugKitMgr::CVEMDebugKitMgr() : defaultLevel_(VEM_LOG_WARN), sink_(std::make_shared<CVEMStderrSink>()) {
  g_instancesCreated.fetch_add(1);
}

CVEMDebugKitMgr::~CVEMDebugKitMgr() {}

int CVEMDebugKitMgr::instancesCreated() { return g_instancesCreated.load(); }

CVEMDebugKit* CVEMDebugKitMgr::find(unsigned int kitNo) {
  std::lock_guard<std::mutex> lock(mu_);
  std::unique_ptr<CVEMDebugKit>& slot = kits_[kitNo];
  if (!slot) slot.reset(new CVEMDebugKit(kitNo, this, defaultLevel_));
  return slot.get();
}

void CVEMDebugKitMgr::setLevel(EVEMLogLevel level) {
  std::lock_guard<std::mutex> lock(mu_);
  defaultLevel_ = level;
  for (auto& kit : kits_) kit.second->setLevel(level);
}

void CVEMDebugKitMgr::setLevel(unsigned int kitNo, EVEMLogLevel level) {
  CVEMDebugKit* kit = find(kitNo);
  kit->setLevel(level);
}

EVEMLogLevel CVEMDebugKitMgr::defaultLevel() const {
  std::lock_guard<std::mutex> lock(mu_);
  return defaultLevel_;
}

void CVEMDebugKitMgr::setSink(std::shared_ptr<IVEMLogSink> sink) {
  if (!sink) sink = std::make_shared<CVEMStderrSink>();
  std::lock_guard<std::mutex> lock(mu_);
  sink_ = std::move(sink);
}

std::shared_ptr<IVEMLogSink> CVEMDebugKitMgr::sink() const {
  std::lock_guard<std::mutex> lock(mu_);
  return sink_;
}

bool CVEMDebugKitMgr::setDestination(const std::string& destination, std::string* error) {
  if (destination == "stderr") {
    setSink(std::make_shared<CVEMStderrSink>());
    return true;
  }
  if (destination == "syslog" || destination.compare(0, 7, "syslog:") == 0) {
    std::string ident = destination.size() > 7 ? destination.substr(7) : "zerva-snmp";
    setSink(std::make_shared<CVEMSyslogSink>(ident));
    return true;
  }
  if (destination.compare(0, 5, "file:") == 0 && destination.size() > 5) {
    auto sink = std::make_shared<CVEMFileSink>(destination.substr(5));
    if (!sink->ok()) {
      if (error != nullptr) *error = "cannot open log file " + destination.substr(5);
      return false;
    }
    setSink(sink);
    return true;
  }
  if (error != nullptr) {
    *error = "unknown log destination '" + destination + "' (expected stderr, syslog, syslog:IDENT or file:PATH)";
  }
  return false;
}

void CVEMDebugKitMgr::write(const CVEMLogRecord& record) {
  std::shared_ptr<IVEMLogSink> sink = this->sink();
  sink->write(record);
}

void VEMLog(unsigned int kitNo, EVEMLogLevel level, const char* function, unsigned int line, const char* format, ...) {
  CVEMDebugKit* kit = CVEMDebugKitMgrSingleton::instance()->find(kitNo);
  va_list args;
  va_start(args, format);
  switch (level) {
    case VEM_LOG_ERROR:
      kit->error(0x1002E, function, line, format, args);
      break;
    case VEM_LOG_WARN:
      kit->warn(0xFFFF, function, line, format, args);
      break;
    default:
      kit->debug(0xFFFF, function, line, format, args);
      break;
  }
  va_end(args);
}

// The one instantiation of the manager singleton, exported to every binary.
template class ACE_Unmanaged_Singleton<CVEMDebugKitMgr, ACE_Thread_Mutex>;
