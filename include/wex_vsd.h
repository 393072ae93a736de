/* wex_vsd: virtual system domains: their directories, control groups and life.
 *
 * Domains are numbered 0 to 15, 0 being the main system. Unless said otherwise a result is 0 or the negated
 * errno. None of these takes a lock; the take-down calls block for 15 seconds. */
#ifndef WEX_VSD_H
#define WEX_VSD_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Control groups -------------------------------------------------------------------------------- */

/* Domain of a process, from its first supplementary group g: (g - 3000) / 100, truncating. Negative for a
 * process of no domain, -errno when it cannot be read. Any thread. */
int32_t get_vsdid(int32_t pid);

/* Creates both control groups of a domain and moves its processes into them. Always 0. Changes the working
 * directory. */
int set_cgroups_all(int32_t vsd);

/* Hard and soft memory limit of a domain in KiB. */
int set_mem_group(int32_t vsd, uint64_t kib);

/* CPU weight in tenths of the default: 10 is 1024 shares. */
int set_cpu_group(int32_t vsd, int32_t tenths);

/* Hard memory limit in KiB, at most 2097151; 0 for domain 0 or when it cannot be read. */
int64_t get_maxmem_set(int32_t vsd);

/* Measures the memory of every domain, kills the largest process of each domain above its limit, and
 * publishes the result for vsd_use_mem(). Takes a tenth of a second per process; one caller at a time.
 * Always 0. */
int set_vsd_mem(void);

/* Memory of a domain in KiB as last published; 0 for a number outside 0 to 15. */
uint64_t vsd_use_mem(int32_t vsd);

/* Adds the resident size (KiB) in a smaps file, library mappings left out, to counters[vsd]. Negative
 * domains count as 0, domains above 15 not at all. */
int get_vsd_mem(const char* path, int32_t vsd, uint64_t counters[16]);

/* Kills the largest process of a domain. Only for a domain that has supervised processes. */
void find_max_rss(int32_t vsd);

/* ---- Life of a domain ------------------------------------------------------------------------------ */

/* Creates a domain, runs its start scripts to their end and records its processes. 0. */
int create_vsd(int32_t vsd);

/* Starts the program "/sbin/<name>" in a domain, without waiting for it. 0. */
int create_proc_to_vsd(const char* name, int32_t vsd);

/* Take-downs: TERM, 5 s, KILL, 10 s, removal. stop keeps the persistent data, delete does not, reload
 * creates the domain again. */
int delete_vsd(int32_t vsd);
int stop_vsd(int32_t vsd);
int reload_vsd(int32_t vsd);

/* Prints every domain and its processes to standard output. 16. */
int show_vsd(void);

/* Sends `sig` to every process whose group list contains the digits of `gid`. */
int kill_proc_by_groups(int sig, int32_t gid);

/* 1 when "/sbin/" has an entry `name`, 0 when not, -errno when it cannot be read. */
int check_sbin(const char* name);

/* Removes a domain's run-time directories. 0. */
int delete_vsd_file(int32_t vsd);

/* ---- Marker files ---------------------------------------------------------------------------------- */

int dev_mon_restart(void);     /* creates "/etc/dev_mon" */
int del_dev_mon_log(void);     /* 0 when "/etc/dev_mon" exists; deletes nothing */
int del_dev_mon_restart(void); /* consumes "/etc/dev_mon": 0 when it was there */

/* 0 when "/etc/debug_log" exists: event-log files are wanted. */
int debug_log(void);

#ifdef __cplusplus
}
#endif

#endif
