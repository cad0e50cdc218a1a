// ACE's logger routed into the debug kits.
//
// The TLV codec reports its failures through ACE_Log_Msg, not through a
// kit; by default ACE writes them to stderr. Once routed, every ACE log
// record of the process (ACE's backend and flags are process wide) becomes
// a kit record instead: level from the ACE priority, code 0x1002E for
// errors and 0xFFFF for the rest, function the base name of the source file
// and line the source line that ACE was given (conditional_set), message
// the text after the "%D %M (%t) " prefix. It then follows the kits'
// level, destination and folding, and nothing goes to stderr.
//
// The backend object lives in libvempub, so a library built with hidden
// visibility (the dlmod module) routes the one process-wide logger without
// an ACE singleton of its own, and never needs ACE::init()/ACE::fini().
#ifndef ZERVA_VEMPUB_VEM_ACE_LOG_ROUTE_H_
#define ZERVA_VEMPUB_VEM_ACE_LOG_ROUTE_H_

#include <string>

#include "vempub/vem_debug_kit.h"

// Routes ACE's log into kit kitNo (again: only the kit changes). The
// previous backend and flags are kept for VEMUnrouteAceLog.
void VEMRouteAceLog(unsigned int kitNo = VEM_KIT_ACE);
// Gives ACE back its previous backend and flags (before the code that
// routed it is unloaded). Nothing when not routed.
void VEMUnrouteAceLog();
bool VEMAceLogRouted();

// The text of one formatted ACE line: a leading "%D %M (%t) " removed when
// present, trailing line ends removed.
std::string VEMAceLogText(const std::string& formatted);
// The kit level of an ACE priority (LM_ERROR and worse: error; LM_WARNING:
// warn; LM_TRACE: trace; the rest: debug).
EVEMLogLevel VEMAceLogLevel(unsigned long priority);

#endif  // ZERVA_VEMPUB_VEM_ACE_LOG_ROUTE_H_
