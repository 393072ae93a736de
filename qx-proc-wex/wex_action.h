// wex_action: what can happen when a supervised program exits. All differences between RESPAWN and
// SHELL_RESTART stand in this one table.
//
// Numbers, message types and keywords are fixed by clients, files and the device's lists. Two mnemonics may
// be the same text in one row and differ in the other, so each has a column of its own: operators' tools look
// for these texts.
#pragma once

#include "wex.h"

struct wex_action {
  int32_t number;            // the record's `action`; stands in database files
  uint32_t message;          // type of the message that registers it
  const char* name;          // in diagnostics
  const char* keyword;       // in the third-part list, and in calls of clients
  bool through_shell;        // runs the restart script, else the program itself
  const char* spawner;       // the function that starts it, as diagnostics have it
  const char* handler;       // the same of the function that registers it,
  const char* handler_end;   // and the end of its failure line
  const char* rebuilt;       // the restart in the rebuild's diagnostic
  const char* parked;        // system log and diagnostic
  const char* announced;     // system log, for an exit code other than 0
  const char* announcement;  // diagnostic
  const char* done;          // system log, the alarm's diagnostic
  const char* done_print;    // diagnostic after an exit
  const char* begun_entry;   // event log, and the diagnostic when the program cannot be executed
  const char* done_entry;    // event log
  int bare_begun;            // event-log file in which this entry has no brackets, 0 = neither
  int bare_done;
};

inline constexpr wex_action kRespawn = {RESPAWN,
                                        WEX_RESTART,
                                        "RESPAWN",
                                        "WEX_RESTART",
                                        false,
                                        "wex_spawn",
                                        "wex_process_restart",
                                        "",
                                        "restart",
                                        "HA_WAIT_SELF_CHECK",
                                        "HA_SELF_CHECK",
                                        "HA_RESTART",
                                        "HA_SELF_CHECK_INFO",
                                        "HA_SELF_CHECK_INFO",
                                        "HA_RESTART",
                                        "HA_RESTART_INFO",
                                        2,
                                        1};
inline constexpr wex_action kShellRestart = {SHELL_RESTART,
                                             WEX_SHELL_RESTART,
                                             "SHELL_RESTART",
                                             "WEX_SHELL_RESTART",
                                             true,
                                             "wex_shell_spawn",
                                             "wex_process_shell_restart",
                                             "\n",
                                             "shell restart",
                                             "HA_WAIT_SCRIPT_SELF_CHECK",
                                             "HA_SCRIPT_SELF_CHECK",
                                             "HA_SCRIPT_SELF_CHECK",
                                             "HA_SCRIPT_SELF_CHECK_INFO",
                                             "HA_SCRIPT_RESTART_INFO",
                                             "HA_SCRIPT_RESTART",
                                             "HA_SCRIPT_RESTART_INFO",
                                             0,
                                             0};

// What a record's `action` stands for; null for any other number: such an exit is not acted on.
inline const wex_action* wex_find_action(int32_t number) {
  return number == kRespawn.number ? &kRespawn : number == kShellRestart.number ? &kShellRestart : nullptr;
}

// The number that a registration with a message of this type gets: every type but the one is SHELL_RESTART.
constexpr int32_t wex_action_number(uint32_t message) {
  return message == kRespawn.message ? kRespawn.number : kShellRestart.number;
}
