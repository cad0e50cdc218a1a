// zerva-sim-ctl: a command-line client of the simulator's control command
// (record 0x53494D0000000001) over the host's socket transport.
//
//   zerva-sim-ctl [--timeout MS] [--device-config FILE] ADDRESS ACTION [ARG]
//   zerva-sim-ctl --help | --version
//
// ADDRESS is unix:PATH or tcp:HOST:PORT (as zerva-array-sim's --listen).
// The answer is printed as plain text:
//   counts          "0xID NAME COUNT" per command, by identifier
//   clock           the model time in milliseconds
//   list-faults     one RULE per active fault
//   list-latency    one [CMD=]MS per latency set
//   fault RULE, clear-faults, latency [CMD=]MS, clear-latency,
//   freeze-clock MS, run-clock
//                   one line saying what was done
// Exit status: 0 done; 1 no answer, an unexpected answer or a refusal;
// 2 bad command line. Errors are one "zerva-sim-ctl: ..." line on stderr.
#include <chrono>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "sim/array_simulator.h"
#include "sim/fault.h"
#include "sim/latency.h"
#include "snmpcommon/snmp_backend_frame.h"
#include "snmpcommon/snmp_configuration.h"
#include "snmpcommon/snmp_socket_transport.h"
#include "tlv/coding.h"
#include "tlv/vem_message_package.h"
#include "vempub/vem_command_line.h"
#include "vempub/vem_debug_kit.h"
#include "vempub/vem_decimal.h"
#include "zerva_version.h"

namespace {

using zerva_sim::CommandCodes;

const char kProgram[] = "zerva-sim-ctl";
const uint64_t kDefaultTimeoutMs = 2000;

enum Exit { kOk = VEM_EXIT_OK, kFailed = 1, kBadUsage = VEM_EXIT_BAD_USAGE };

std::string Usage() {
  return std::string("usage: ") + kProgram +
         " [--timeout MS] [--device-config FILE] ADDRESS ACTION [ARG]\n"
         "       " +
         kProgram +
         " --help | --version\n"
         "  ADDRESS                unix:PATH or tcp:HOST:PORT of a zerva-array-sim\n"
         "  ACTION                 counts        requests received, \"0xID NAME COUNT\" per command\n"
         "                         clock         the model time (ms)\n"
         "                         list-faults   the active faults, one RULE a line\n"
         "                         clear-faults  remove every fault\n"
         "                         fault RULE    add a fault: KIND[=ARG][,cmd=CMD][,rate=P][,count=N]\n"
         "                         latency [CMD=]MS  answer every command (or CMD) MS ms late (0: remove)\n"
         "                         list-latency  the latencies set, [CMD=]MS a line\n"
         "                         clear-latency remove every latency\n"
         "                         freeze-clock MS  stop the model clock at MS\n"
         "                         run-clock     let the model clock run again\n"
         "  --timeout MS           connect and answer timeout (default 2000)\n"
         "  --device-config FILE   device configuration naming the command codes (for counts)\n"
         "  -h, --help             this text\n"
         "  --version              the program's version\n";
}

int Fail(int status, const std::string& text) {
  fprintf(stderr, "%s: %s\n", kProgram, text.c_str());
  return status;
}

VEMProgramTexts Texts() { return {kProgram, Usage(), std::string(kProgram) + " " + ZERVA_VERSION}; }

int BadUsage(const std::string& text) { return VEMRefuseCommandLine(Texts(), text); }

// Codes of the long options, in the order of kOptions.
enum Option { kOptTimeout = VEM_LONG_OPTION_BASE, kOptDeviceConfig };

const char kOptions[] = "timeout:,device-config:";

// The command line: options, then ADDRESS ACTION [ARG].
struct CtlCommandLine {
  uint64_t timeoutMs = kDefaultTimeoutMs;
  std::string deviceConfig;
  std::vector<std::string> args;
  bool help = false;
  bool version = false;
};

// Parses argv with getopt_long. False with *error naming the bad option or value.
bool ParseCtlCommandLine(int argc, char** argv, CtlCommandLine* out, std::string* error) {
  const VEMOptionHandler apply = [out](int code, const std::string& value, std::string* why) {
    switch (code) {
      case kOptTimeout:
        if (!ParseDecimal(value, 3600000, &out->timeoutMs) || out->timeoutMs == 0) {
          return *why = "--timeout: a number of milliseconds, 1 to 3600000", false;
        }
        break;
      case kOptDeviceConfig:
        out->deviceConfig = value;
        break;
    }
    return true;
  };
  VEMCommandLineSyntax syntax;
  syntax.shortOptions = "h";
  syntax.longOptions = kOptions;
  return VEMParseOptions(argc, argv, syntax, apply, &out->args, &out->help, &out->version, error);
}

// A numeric cell's value: up to 8 bytes, little-endian.
bool CellNumber(const CTLVRecordV3& record, unsigned short tag, unsigned long long* out) {
  if (!record.hasTag(tag)) return false;
  const CTLVCell* cell = record[tag];
  if (cell->type() < CTLVCell::TLV_TYPE_UINT || cell->length() > 8) return false;
  *out = tlv::DecodeFixedUpTo64(cell->value(), cell->length());
  return true;
}

std::string Hex(unsigned long long v) {
  char buf[32];
  snprintf(buf, sizeof buf, "0x%llX", v);
  return buf;
}

// Why the simulator refused, by its result code.
std::string RefusalText(uint32_t code) {
  switch (code) {
    case zerva_sim::kSimErrUnknownCommand:
      return "unknown command (is this a zerva-array-sim?)";
    case zerva_sim::kSimErrMalformed:
      return "malformed request";
    default:
      return "refused";
  }
}

}  // namespace

int main(int argc, char** argv) {
  // The transport's own log lines would repeat what the one error line says.
  CVEMDebugKitMgrSingleton::instance()->setLevel(VEM_LOG_OFF);

  CtlCommandLine cmd;
  std::string error;
  const bool parsed = ParseCtlCommandLine(argc, argv, &cmd, &error);
  int status = kOk;
  if (VEMAnswerCommandLine(parsed, error, cmd.help, cmd.version, Texts(), &status)) return status;
  const std::vector<std::string>& args = cmd.args;
  if (args.size() < 2) return BadUsage("an address and an action are needed");

  const std::string& addressText = args[0];
  const std::string& action = args[1];
  const bool needsArg = action == "fault" || action == "freeze-clock" || action == "latency";
  const bool known = needsArg || action == "counts" || action == "clock" || action == "list-faults" ||
                     action == "clear-faults" || action == "run-clock" || action == "list-latency" ||
                     action == "clear-latency";
  if (!known) return BadUsage("unknown action '" + action + "'");
  if (args.size() != (needsArg ? 3u : 2u)) {
    return BadUsage(needsArg ? action + " needs one argument" : action + " takes no argument");
  }

  CSnmpSocketTransportOptions options;
  if (!CSnmpBackendAddress::parse(addressText, options.address, &error)) {
    return BadUsage("bad address '" + addressText + "': " + error);
  }
  CommandCodes codes;
  if (!zerva_sim::LoadCommandCodes(cmd.deviceConfig, &codes, &error)) return Fail(kBadUsage, error);
  const auto names = zerva_sim::CommandNames(codes);

  // The control request: tag 0 the action, tag 1 its argument.
  std::unique_ptr<CTLVRecordV3> record(new CTLVRecordV3(zerva_sim::kSimControlCmd, CTLVRecordV3::DEFAULT_BUCKETS));
  record->append(tlv::NewStringCell(0, action));
  uint64_t frozenMs = 0;
  // Faults and latencies are checked here first, for a precise message; the
  // simulator checks them again.
  const zerva_sim::CommandResolver resolve = [&names](const std::string& name, unsigned long long* id) {
    for (const auto& n : names) {
      if (n.first != name) continue;
      *id = n.second;
      return true;
    }
    return false;
  };
  if (action == "fault") {
    zerva_sim::FaultRule rule;
    if (!zerva_sim::ParseFault(args[2], resolve, &rule, &error)) return BadUsage("fault '" + args[2] + "': " + error);
    record->append(tlv::NewStringCell(1, args[2]));
  } else if (action == "latency") {
    zerva_sim::LatencySetting setting;
    if (!zerva_sim::ParseLatency(args[2], resolve, &setting, &error)) {
      return BadUsage("latency '" + args[2] + "': " + error);
    }
    record->append(tlv::NewStringCell(1, args[2]));
  } else if (action == "freeze-clock") {
    if (!ParseDecimal(args[2], (1ULL << 50) - 1, &frozenMs)) {
      return BadUsage("freeze-clock: a model time in milliseconds below 2^50");
    }
    record->append(tlv::NewUintCell(1, CTLVCell::TLV_TYPE_UINT64, frozenMs, 8));
  }
  CTLVPackage req;
  req.push_back(record.release());

  options.connectTimeout = std::chrono::milliseconds(cmd.timeoutMs);
  options.callTimeout = std::chrono::milliseconds(cmd.timeoutMs);
  options.listingTimeout = std::chrono::milliseconds(cmd.timeoutMs);
  CSnmpSocketTransport transport(options);
  CTLVPackage rsp;
  const int rc = transport.exchange(req, rsp, false);
  if (IsSnmpTransportError(rc)) {
    return Fail(kFailed, addressText + ": " + SnmpTransportErrorText(rc) + " (" + Hex(static_cast<uint32_t>(rc)) + ")");
  }
  if (rc != 0) {
    return Fail(kFailed, addressText + ": " + action + ": " + RefusalText(static_cast<uint32_t>(rc)) + " (" +
                             Hex(static_cast<uint32_t>(rc)) + ")");
  }

  std::string out;
  if (action == "counts") {
    for (const CTLVRecordV3* r : rsp.records()) {
      unsigned long long id = 0;
      unsigned long long count = 0;
      if (!CellNumber(*r, 0, &id) || !CellNumber(*r, 1, &count)) {
        return Fail(kFailed, addressText + ": counts: a record without identifier or count in the answer");
      }
      std::string name = "UNKNOWN";
      for (const auto& n : names) {
        if (n.second == id) name = n.first;
      }
      out += Hex(id) + " " + name + " " + std::to_string(count) + "\n";
    }
  } else if (action == "clock") {
    unsigned long long ms = 0;
    if (rsp.size() != 1 || !CellNumber(*rsp[0], 0, &ms)) {
      return Fail(kFailed, addressText + ": clock: the answer holds no model time");
    }
    out = std::to_string(ms) + "\n";
  } else if (action == "list-faults" || action == "list-latency") {
    for (const CTLVRecordV3* r : rsp.records()) {
      if (!r->hasTag(1) || (*r)[1]->type() != CTLVCell::TLV_TYPE_STRING) {
        return Fail(kFailed, addressText + ": " + action + ": a record without its text in the answer");
      }
      out += (*r)[1]->toString() + "\n";
    }
  } else if (action == "fault") {
    out = "fault added: " + args[2] + "\n";
  } else if (action == "clear-faults") {
    out = "faults cleared\n";
  } else if (action == "latency") {
    out = "latency set: " + args[2] + "\n";
  } else if (action == "clear-latency") {
    out = "latency cleared\n";
  } else if (action == "freeze-clock") {
    out = "clock frozen at " + std::to_string(frozenMs) + "\n";
  } else {
    out = "clock running\n";
  }
  fputs(out.c_str(), stdout);
  return kOk;
}
