// wex_core: what start-up has of the threads' files: their entry points.
#pragma once

extern "C" {

// The threads. Each ignores its argument.
void* wex_process_netlink(void* unused);
void* wex_process_domain(void* unused);
void* wex_notifer_run(void* unused);
void* wex_inotify_fork_error(void* unused);
void* wex_delay_restart(void* unused);

// Compiles "/etc/wex/proc" into the third-part list.
void wex_third_part_proc_init(void);
}
