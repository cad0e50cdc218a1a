// Direct error logging through the ACE logger.
//
// The TLV codec reports its failures this way, not through a debug kit: the
// thread's ACE_Log_Msg gets the source file and line (conditional_set with
// operation status 0, keeping the current errno), then the message is logged
// at LM_ERROR priority. %D is ACE's time stamp, %M the priority name and %t
// the thread id.
#ifndef ZERVA_DIAG_VEM_ACE_LOG_H_
#define ZERVA_DIAG_VEM_ACE_LOG_H_

#include <ace/Log_Msg.h>
#include <ace/Log_Priority.h>

// Logs a fixed format (which must begin with "%D %M (%t) ") and its arguments.
#define VEM_ACE_ERROR_FMT(...)                                              \
  do {                                                                      \
    int const vem_ace_errno__ = ACE_Log_Msg::last_error_adapter();          \
    ACE_Log_Msg* vem_ace_log__ = ACE_Log_Msg::instance();                   \
    vem_ace_log__->conditional_set(__FILE__, __LINE__, 0, vem_ace_errno__); \
    vem_ace_log__->log(LM_ERROR, __VA_ARGS__);                              \
  } while (0)

// Logs one prepared text through "%D %M (%t) %s\n".
#define VEM_ACE_ERROR_TEXT(text) VEM_ACE_ERROR_FMT("%D %M (%t) %s\n", (text).c_str())

#endif  // ZERVA_DIAG_VEM_ACE_LOG_H_
