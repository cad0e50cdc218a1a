#include "snmpcommon/snmp_read_failures.h"

#include <atomic>

namespace {

std::atomic<uint64_t> g_failedCalls{0};
std::atomic<uint64_t> g_refusedTexts{0};
std::atomic<int> g_lastFailedResult{0};

}  // namespace

uint64_t CSnmpReadFailures::count() { return g_failedCalls.load() + g_refusedTexts.load(); }

uint64_t CSnmpReadFailures::failedCalls() { return g_failedCalls.load(); }

uint64_t CSnmpReadFailures::refusedTexts() { return g_refusedTexts.load(); }

int CSnmpReadFailures::lastFailedResult() { return g_lastFailedResult.load(); }

void CSnmpReadFailures::noteFailedCall(int result) {
  g_lastFailedResult.store(result);
  g_failedCalls.fetch_add(1);
}

void CSnmpReadFailures::noteRefusedText() { g_refusedTexts.fetch_add(1); }
