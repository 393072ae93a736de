/* wex_platform: what wex needs from the device's own libraries.
 *
 * A device builds wex with its port of these three functions, as sources (WEX_PLATFORM) or as libraries
 * (WEX_PLATFORM_LIBS); platform/generic is what runs on a plain Linux box. wex calls them and offers them to
 * nobody: a program that links libwex.so and the device's library gets the device's. */
#ifndef WEX_PLATFORM_H
#define WEX_PLATFORM_H

#ifdef __cplusplus
extern "C" {
#endif

/* One line for the device's system log. wex always calls it with severity 5, facility "HA" and flag 1. */
void printk_syslog_ext(int severity, const char* facility, const char* mnemonic, int flag, const char* format,
                       ...) __attribute__((format(printf, 5, 6)));

/* One line for the system log at a syslog(3) priority; used for dumps of the registry. */
void qx_syslog(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));

/* Prepares the file-system environment of domain `vsd` for the calling process, which is about to execute a
 * program of that domain in place of process `old_pid` (0 when the domain starts). Runs between fork and
 * exec, so it must not take locks. Negative is failure. */
int fs_set_vsd_envs(int vsd, int old_pid);

#ifdef __cplusplus
}
#endif

#endif
