#include "diag/vem_debug_kit_guard.h"

#include <cstdarg>

#include "vempub/vem_debug_kit.h"

CVEMDebugKitGuard::CVEMDebugKitGuard(int kitNo, const std::string& funcName)
    : kit_(nullptr), funcName_(funcName), ok_(true) {
  kit_ = CVEMDebugKitMgrSingleton::instance()->find(static_cast<unsigned int>(kitNo));
  kit_->trace("enter " + funcName_ + "...");
}

CVEMDebugKitGuard::~CVEMDebugKitGuard() { kit_->trace("leave " + funcName_ + ": " + (ok_ ? "OK" : "NOK")); }

void CVEMDebugKitGuard::error(unsigned long long code, const char* function, unsigned int line, const char* format,
                              ...) {
  ok_ = false;
  va_list args;
  va_start(args, format);
  kit_->error(code, function, line, format, args);
  va_end(args);
}

void CVEMDebugKitGuard::warn(unsigned long long code, const char* function, unsigned int line, const char* format,
                             ...) {
  ok_ = false;
  va_list args;
  va_start(args, format);
  kit_->warn(code, function, line, format, args);
  va_end(args);
}

void CVEMDebugKitGuard::debug(unsigned long long code, const char* function, unsigned int line, const char* format,
                              ...) {
  va_list args;
  va_start(args, format);
  kit_->debug(code, function, line, format, args);
  va_end(args);
}
