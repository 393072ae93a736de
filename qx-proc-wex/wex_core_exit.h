// wex_core_exit: what happens to a registered process that has exited.
#pragma once

#include <cstdint>

#include "wex_core_delay.h"
#include "wex_lock_order.h"

extern "C" {

// Decides what happens to the registered process `pid` that has exited with `exit_signal` (kernel wait
// status). Called with no chain held.
void wex_handle_netlink_exit(int32_t pid, uint32_t exit_signal, int32_t force_restart)
    WEX_TSA(locks_excluded(wex_chains, wex_alive_chains, wex_chains_delay));

// The same for a start of a third-part program that found no process and whose child has ended since with
// this wait status. Does nothing when the program has got another process meanwhile. Without a child (not
// `forked`) the status is that of the exit before, whose crash has been counted. Called with no chain held.
void wex_handle_missed_exit(uint32_t start, uint32_t status, bool forked)
    WEX_TSA(locks_excluded(wex_chains, wex_alive_chains, wex_chains_delay));

// Restart events written to the event-log files; drives their alternation.
extern int32_t wex_event_log_count WEX_TSA(guarded_by(wex_chains));
}

// Does so for every such start that has ended. May start programs and search for them: alarm thread only,
// with nothing held.
void wex_handle_missed_exits() WEX_TSA(locks_excluded(wex_chains, wex_alive_chains, wex_chains_delay));

// wex_handle_netlink_exit() for a restart that was postponed until now. Delay thread only, with nothing held.
void wex_hand_back_restart(const ready_restart& ready)
    WEX_TSA(locks_excluded(wex_chains, wex_alive_chains, wex_chains_delay));

// Restarts the programs whose pause without the registry is over. Delay thread only, with nothing held.
void wex_restart_paused() WEX_TSA(locks_excluded(wex_chains, wex_alive_chains, wex_chains_delay));

// wex_handle_netlink_exit() right after a look at `pid` has shown that the process which started at this time
// has ended, so that it is not looked at again. 0: no such look.
void wex_handle_judged_exit(int32_t pid, uint32_t exit_signal, uint64_t ended_start)
    WEX_TSA(locks_excluded(wex_chains, wex_alive_chains, wex_chains_delay));

// wex_handle_netlink_exit() for an exit that the kernel did not report: of the process that started at this
// time. `status` 0: what the record knows of it. Nothing happens, and nothing is told, when its exit was
// handled meanwhile or it runs after all.
void wex_handle_lost_exit(int32_t pid, uint32_t status, uint64_t start_time)
    WEX_TSA(locks_excluded(wex_chains, wex_alive_chains, wex_chains_delay));
