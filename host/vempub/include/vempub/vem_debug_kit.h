// Levelled logging and tracing of the host platform: debug kits by number.
//
// A kit is a numbered log channel (0: service-module registry, 4: the
// performance handlers, ...). Every kit writes records through one process
// wide sink chosen by configuration: stderr by default, a file, syslog, or a
// sink of the caller's (tests capture records this way). Each kit filters by
// its own level; a kit number nobody configured gets the manager's default.
//
// The manager is one object per process, reached through
//   ACE_Unmanaged_Singleton<CVEMDebugKitMgr, ACE_Thread_Mutex>::instance()
// whose template is instantiated and exported by libvempub only, so that the
// host and every plug-in (built with hidden visibility) share it.
#ifndef ZERVA_VEMPUB_VEM_DEBUG_KIT_H_
#define ZERVA_VEMPUB_VEM_DEBUG_KIT_H_

#include <ace/Singleton.h>
#include <ace/Thread_Mutex.h>

#include <atomic>
#include <cstdarg>
#include <map>
#include <memory>
#include <mutex>
#include <string>

enum EVEMLogLevel {
  VEM_LOG_TRACE = 0,
  VEM_LOG_DEBUG = 1,
  VEM_LOG_WARN = 2,
  VEM_LOG_ERROR = 3,
  VEM_LOG_OFF = 4,
};

// Name of a level as written in log lines and configuration ("trace", ...).
const char* VEMLogLevelName(EVEMLogLevel level);
// Parses "trace", "debug", "warn", "error" or "off" (any case).
// Returns false and leaves *level alone for anything else.
bool VEMParseLogLevel(const std::string& text, EVEMLogLevel* level);

// One log line before formatting.
struct CVEMLogRecord {
  unsigned int kitNo = 0;
  EVEMLogLevel level = VEM_LOG_TRACE;
  unsigned long long code = 0;  // message code; 0 for trace lines
  std::string function;         // short name of the calling function; empty for trace lines
  unsigned int line = 0;        // source line; 0 for trace lines
  std::string message;          // the formatted text
};

// "2026-11-22 06:10:33.123456 [kit 4] ERROR 0x1002E GetBatchPerfData:123 text"
// (trace lines: "... [kit 4] TRACE enter ...").
std::string VEMFormatLogRecord(const CVEMLogRecord& record);

// Where formatted records go. Implementations must be thread-safe.
class IVEMLogSink {
 public:
  virtual ~IVEMLogSink() {}
  virtual void write(const CVEMLogRecord& record) = 0;
};

// Writes one formatted line per record to stderr.
class CVEMStderrSink : public IVEMLogSink {
 public:
  void write(const CVEMLogRecord& record) override;
};

// Appends one formatted line per record to a file, flushed per line.
class CVEMFileSink : public IVEMLogSink {
 public:
  // REQUIRES: path names a file that can be opened for appending (see ok()).
  explicit CVEMFileSink(const std::string& path);
  ~CVEMFileSink() override;
  bool ok() const { return file_ != nullptr; }
  void write(const CVEMLogRecord& record) override;

 private:
  std::mutex mu_;
  FILE* file_;
};

// Sends records to syslog(3) with the matching priority.
class CVEMSyslogSink : public IVEMLogSink {
 public:
  explicit CVEMSyslogSink(const std::string& ident);
  ~CVEMSyslogSink() override;
  void write(const CVEMLogRecord& record) override;

 private:
  std::string ident_;
};

class CVEMDebugKitMgr;

// One numbered log channel.
class CVEMDebugKit {
 public:
  CVEMDebugKit(unsigned int kitNo, CVEMDebugKitMgr* mgr, EVEMLogLevel level);

  unsigned int number() const { return kitNo_; }
  EVEMLogLevel level() const { return level_.load(std::memory_order_relaxed); }
  void setLevel(EVEMLogLevel level) { level_.store(level, std::memory_order_relaxed); }
  bool enabled(EVEMLogLevel level) const { return level >= this->level() && level != VEM_LOG_OFF; }

  // Writes an entry/exit line at trace level.
  void trace(const std::string& line);
  // Format and write a message at their level.
  void error(unsigned long long code, const char* function, unsigned int line, const char* format, va_list args);
  void warn(unsigned long long code, const char* function, unsigned int line, const char* format, va_list args);
  void debug(unsigned long long code, const char* function, unsigned int line, const char* format, va_list args);

 private:
  void emit(EVEMLogLevel level, unsigned long long code, const char* function, unsigned int line, const char* format,
            va_list args);

  const unsigned int kitNo_;
  CVEMDebugKitMgr* const mgr_;
  std::atomic<EVEMLogLevel> level_;
};

class CVEMDebugKitMgr {
 public:
  CVEMDebugKitMgr();
  ~CVEMDebugKitMgr();
  CVEMDebugKitMgr(const CVEMDebugKitMgr&) = delete;
  CVEMDebugKitMgr& operator=(const CVEMDebugKitMgr&) = delete;

  // The kit with that number, created with the default level on first use.
  // Never null; kits live as long as the manager.
  CVEMDebugKit* find(unsigned int kitNo);

  // Sets the level of every kit, present and future.
  void setLevel(EVEMLogLevel level);
  // Sets the level of one kit.
  void setLevel(unsigned int kitNo, EVEMLogLevel level);
  EVEMLogLevel defaultLevel() const;

  // Replaces the sink; null restores stderr.
  void setSink(std::shared_ptr<IVEMLogSink> sink);
  std::shared_ptr<IVEMLogSink> sink() const;

  // Sets the destination from its configuration text: "stderr", "syslog",
  // "syslog:IDENT" or "file:PATH". On failure returns false, fills *error and
  // keeps the current sink.
  bool setDestination(const std::string& destination, std::string* error);

  // Hands one record to the sink.
  void write(const CVEMLogRecord& record);

  // How many managers this process has constructed (one, normally).
  static int instancesCreated();

 private:
  mutable std::mutex mu_;
  std::map<unsigned int, std::unique_ptr<CVEMDebugKit>> kits_;
  EVEMLogLevel defaultLevel_;
  std::shared_ptr<IVEMLogSink> sink_;
};

typedef ACE_Unmanaged_Singleton<CVEMDebugKitMgr, ACE_Thread_Mutex> CVEMDebugKitMgrSingleton;

// Kits of the host platform's own code.
enum : unsigned int {
  VEM_KIT_HOST = 1,   // platform libraries: device configuration, back-end transport, capabilities
  VEM_KIT_AGENT = 2,  // the SNMP agent program
  VEM_KIT_ACE = 3,    // what ACE's logger carries once routed to the kits: the TLV codec's errors
};

// Writes one message on a kit: errors with code 0x1002E, the rest with 0xFFFF.
void VEMLog(unsigned int kitNo, EVEMLogLevel level, const char* function, unsigned int line, const char* format, ...)
    __attribute__((format(printf, 5, 6)));

// libvempub holds the only instantiation of the singleton template.
ACE_EXPORT_SINGLETON_DECLARE(ACE_Unmanaged_Singleton, CVEMDebugKitMgr, ACE_Thread_Mutex)

#endif  // ZERVA_VEMPUB_VEM_DEBUG_KIT_H_
