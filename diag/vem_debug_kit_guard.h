// CVEMDebugKitGuard: scoped entry/exit tracing of one operation.
//
// Construction traces "enter <funcName>..." on the debug kit with the given
// number; destruction (also while an exception unwinds) traces
// "leave <funcName>: OK", or ": NOK" once error() or warn() was called.
// error/warn/debug forward to the kit with their code, the caller's short
// function name and line, and a printf format.
#ifndef ZERVA_DIAG_VEM_DEBUG_KIT_GUARD_H_
#define ZERVA_DIAG_VEM_DEBUG_KIT_GUARD_H_

#include <string>

class CVEMDebugKit;

// Message codes passed with the guard's messages.
enum : unsigned long long {
  VEM_CODE_ERROR = 65582,  // 0x1002E, every failure line
  VEM_CODE_INFO = 65535,   // 0xFFFF, warning and debug lines
};

// Kit numbers in use.
enum : int {
  VEM_KIT_REGISTRY = 0,  // service-module registry
  VEM_KIT_HANDLER = 4,   // every handler operation
};

class CVEMDebugKitGuard {
 public:
  CVEMDebugKitGuard(int kitNo, const std::string& funcName);
  ~CVEMDebugKitGuard();
  CVEMDebugKitGuard(const CVEMDebugKitGuard&) = delete;
  CVEMDebugKitGuard& operator=(const CVEMDebugKitGuard&) = delete;

  // Logs at error level and marks the operation failed.
  void error(unsigned long long code, const char* function, unsigned int line, const char* format, ...)
      __attribute__((format(printf, 5, 6)));
  // Logs at warning level and marks the operation failed.
  void warn(unsigned long long code, const char* function, unsigned int line, const char* format, ...)
      __attribute__((format(printf, 5, 6)));
  // Logs at debug level; leaves the outcome alone.
  void debug(unsigned long long code, const char* function, unsigned int line, const char* format, ...)
      __attribute__((format(printf, 5, 6)));

  bool ok() const { return ok_; }

 private:
  CVEMDebugKit* kit_;
  std::string funcName_;
  bool ok_;
};

#endif  // ZERVA_DIAG_VEM_DEBUG_KIT_GUARD_H_
