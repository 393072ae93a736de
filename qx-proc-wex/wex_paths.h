// wex_paths: every path of the file-system interface, on one screen. Three stand in public headers, because
// others need them: WEX_SEM_KEY_FILE (wex.h), RAS_WEX_DBG_FILE (ras_comp_config.h) and
// WEX_STATUS_NAME (wex_status.h).
//
// "gone" and "kept" say whether the file is to outlive a reboot of the device.
#pragma once

#define WEX_RUN "/tmp/wex"
#define WEX_DOMAIN "/tmp/vsd/%d"
#define WEX_LOWMEM "/sys/kernel/qx_lowmem_killer"

// The table is laid out by hand.
// clang-format off
//                    name                  path                                   written by, after a reboot: arguments
inline constexpr char kRunDir[]           = WEX_RUN "/";                          // daemon, gone
inline constexpr char kLockFile[]         = WEX_RUN "/wex.pid";                   // daemon, gone
inline constexpr char kControlSocket[]    = WEX_RUN "/.wex";                      // daemon, gone
inline constexpr char kClientSocketFmt[]  = WEX_RUN "/.socket.%d";                // client, gone: pid
inline constexpr char kForkFile[]         = WEX_RUN "/forkfile";                  // daemon, gone: one "a" a failed fork
inline constexpr char kForkFileName[]     = "forkfile";                           // the same as the directory watch names it
inline constexpr char kEventLog1[]        = WEX_RUN "/wex.log1";                  // daemon, gone
inline constexpr char kEventLog2[]        = WEX_RUN "/wex.log2";                  // daemon, gone

inline constexpr char kDomainsDir[]       = "/tmp/vsd";                           // daemon, gone: a directory a domain
inline constexpr char kDomainDirFmt[]     = WEX_DOMAIN;                           // any, gone: domain
inline constexpr char kDomainDirSlashFmt[] = WEX_DOMAIN "/";                       // the same, as a directory to probe
inline constexpr char kFlagDirFmt[]       = WEX_DOMAIN "/wex/";                   // any, gone: domain; one empty file a process
inline constexpr char kFlagFileFmt[]      = WEX_DOMAIN "/wex/%d";                 // client or daemon, gone: domain, pid
inline constexpr char kDbDirFmt[]         = WEX_DOMAIN "/wex/db";                 // daemon, gone: domain
inline constexpr char kMainDbDir[]        = "/tmp/vsd/0/wex/db";                  // the main system's
inline constexpr char kDbFileFmt[]        = WEX_DOMAIN "/wex/db/%s.%d";           // client, gone: domain, program, pid
inline constexpr char kOldPidFileFmt[]    = WEX_DOMAIN "/wex/db/%d";              // nobody: domain, pid
inline constexpr char kTakeDownFmt[]      = WEX_DOMAIN "/delete_vsd";             // domain take-down, gone: domain
inline constexpr char kStartTimeFmt[]     = WEX_DOMAIN "/starttime";              // domain start, gone: domain
inline constexpr char kEtcDomainFmt[]     = "/etc/vsd/%d";                        // domain start: domain
inline constexpr char kConfigDomainFmt[]  = "/qx_cfg/vsd/%d";                     // domain start, kept: domain
inline constexpr char kOvixDomainFmt[]    = "/ovix/vsd/%d";                       // domain start, kept: domain
inline constexpr char kDataDomainFmt[]    = "/data/.ovix/vsd/%d";                 // domain start, kept: domain
inline constexpr char kRunDomainFmt[]     = "/data/var/run/vsd/%d";               // domain start, kept: domain
inline constexpr char kData2Dir[]         = "/data2/";                            // device: present with a second data disk
inline constexpr char kData2DomainFmt[]   = "/data2/.ovix/vsd/%d";                // domain start, kept: domain
inline constexpr char kData2RunFmt[]      = "/data2/var/run/vsd/%d";              // domain start, kept: domain

inline constexpr char kMemoryGroupFmt[]   = "/memory/vsd_%d/";                    // domain: domain
inline constexpr char kMemoryTasksFmt[]   = "/memory/vsd_%d/tasks";               // domain: domain
inline constexpr char kMemoryFileFmt[]    = "/memory/vsd_%d/%s";                  // domain: domain, control file
inline constexpr char kCpuGroupFmt[]      = "/cpu/vsd_%d/";                       // domain: domain
inline constexpr char kCpuTasksFmt[]      = "/cpu/vsd_%d/tasks";                  // domain: domain
inline constexpr char kCpuSharesFmt[]     = "/cpu/vsd_%d/cpu.shares";             // domain: domain

inline constexpr char kThirdPartDir[]     = "/etc/wex/proc";                      // device: one file a third-part program
inline constexpr char kThirdPartListDir[] = "/etc/wex";                           // device: holds the list
inline constexpr char kSettingsDir[]      = "/etc";                               // device: holds that directory
inline constexpr char kThirdPartList[]    = "/etc/wex/third_part_proc";           // daemon at start: one line a program
inline constexpr char kStrictFile[]       = "/etc/wex/strict";                    // operator: users are trusted with their own alone
inline constexpr char kUsersParent[]      = "/run";                               // device
inline constexpr char kUserList[]         = "/etc/passwd";                        // device, stays
inline constexpr char kUsersDir[]         = "/run/wex";                           // daemon, gone: only in strict mode
inline constexpr char kUserFileFmt[]      = "/run/wex/%d";                        // daemon, gone: pid; as whom it is started again
inline constexpr char kUserFileBegun[]    = "/run/wex/begun";                     // daemon, gone: the next one of these
inline constexpr char kBurstConfig[]      = "/etc/wex_config";                    // device: "window count"
inline constexpr char kCommandMap[]       = "/etc/cmdmap";                        // device: restart scripts
inline constexpr char kDeviceMonitor[]    = "/etc/dev_mon";                       // device monitor: a quiet restart is under way
inline constexpr char kDebugLog[]         = "/etc/debug_log";                     // operator: event-log files are wanted
inline constexpr char kDebugTime[]        = "/debug_time";                        // operator: self-check wait in seconds
inline constexpr char kStartScripts[]     = "/etc/rc.d/rc.vsd/";                  // device: scripts of a domain's start
inline constexpr char kRunParts[]         = "/bin/run-parts";                     // device
inline constexpr char kShell[]            = "/bin/sh";                            // device
inline constexpr char kSearchPath[]       = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"; // device: programs of wexrun without a path
inline constexpr char kSbinDir[]          = "/sbin/";                             // device
inline constexpr char kSbinFmt[]          = "/sbin/%s";                           // device: program

inline constexpr char kRunningLog1[]      = "/ovix/vsd/0/utils/wex/running_log1"; // daemon, kept (synced)
inline constexpr char kRunningLog2[]      = "/ovix/vsd/0/utils/wex/running_log2"; // daemon, kept (synced)
inline constexpr char kRunningLogDir[]    = "/ovix/vsd/0/utils/wex";              // daemon, kept: holds both
inline constexpr char kNotifyLog[]        = "/data/.wex_notify";                  // daemon, kept (synced)
inline constexpr char kNotifyCount[]      = "/data/.wex_notify_count";            // daemon, kept (synced)
inline constexpr char kRebootLog[]        = "/data/.wex_reboot";                  // daemon, kept (synced after each line)
inline constexpr char kHistory[]          = "/data/.wex_history";                 // daemon, kept (synced): what led to a reboot
inline constexpr char kHistoryOld[]       = "/data/.wex_history.old";             // the one before, when it was full
inline constexpr char kHung[]             = "/data/.wex_hang";                    // daemon, kept (synced): what hung processes did
inline constexpr char kHungOld[]          = "/data/.wex_hang.old";                // the one before, when it was full
inline constexpr char kNoReboot[]         = "/wex_no_reboot";                     // operator: never reboot
inline constexpr char kRebootSwitch[]     = "/tmp/wex_reboot_avail";              // operator: 0 refuses a reboot
inline constexpr char kKillDebug[]        = "/data/.kill_debug";                  // operator: hang countdowns stand still
inline constexpr char kDumpToConsole[]    = "/wex_dump_msg_console";              // operator: chain dumps to the console
inline constexpr char kExemptThreads[]    = "/data/.wex_debug_pid";               // operator: thread ids not to be reported

inline constexpr char kAliveTable[]       = "/UTILS-wex-shm-001";                 // daemon: shared-memory object
inline constexpr char kAliveTableFile[]   = "/dev/shm/UTILS-wex-shm-001";         // the same as a file
inline constexpr char kStatusTable[]      = "/dev/shm/wex-status";                // daemon, gone: what it does, for readers
inline constexpr char kBootId[]           = "/proc/sys/kernel/random/boot_id";
inline constexpr char kConsole[]          = "/dev/console";
inline constexpr char kSystemLog[]        = "/dev/log";                           // log daemon: a datagram socket
inline constexpr char kNullDevice[]       = "/dev/null";
inline constexpr char kRandomDevice[]     = "/dev/urandom";
inline constexpr char kLsmDevice[]        = "/dev/lsm";                           // device, opened to every domain
inline constexpr char kMapIpcDevice[]     = "/dev/mmapipc";                       // device, opened to every domain

inline constexpr char kFlushTlb[]         = WEX_LOWMEM "/flush_tlb";              // low-memory killer
inline constexpr char kWexStatus[]        = WEX_LOWMEM "/wex_status";             // low-memory killer: 0 = no daemon
inline constexpr char kRebootSeconds[]    = WEX_LOWMEM "/rbtsecs";                // daemon before a reboot

inline constexpr char kProcDir[]          = "/proc";
inline constexpr char kProcDirSlash[]     = "/proc/";
inline constexpr char kOwnFiles[]         = "/proc/self/fd";                      // the calling process's open descriptors
inline constexpr char kProcExeFmt[]       = "/proc/%d/exe";                       // pid
inline constexpr char kProcCmdlineFmt[]   = "/proc/%d/cmdline";                   // pid
inline constexpr char kProcTasksFmt[]     = "/proc/%d/task";                      // pid
inline constexpr char kProcTaskFileFmt[]  = "/proc/%d/task/%d/%s";                // pid, thread, file
inline constexpr char kProcStatFmt[]      = "/proc/%d/stat";                      // pid
inline constexpr char kProcStatusFmt[]    = "/proc/%d/status";                    // pid
inline constexpr char kProcStatusNameFmt[] = "/proc/%s/status";                    // pid as text
inline constexpr char kProcOomScoreFmt[]  = "/proc/%d/oom_score_adj";             // pid
inline constexpr char kProcSmapsFmt[]     = "%s/%d/smaps";                        // "/proc", pid
inline constexpr char kProcFdGlobFmt[]    = "/proc/%d/fd/[0-9]*";                 // pid
inline constexpr char kUptime[]           = "/proc/uptime";
inline constexpr char kRootDir[]          = "/";
inline constexpr char kLibraryMark[]     = "/lib";                        // in the path of every library's mapping

// Directories of the main system, in the order in which they are made. Rows of characters: pointers to texts would cost
// a relocation each, and the client library would carry the texts without using them.
inline constexpr char kMainDirs[][24] = {
    "/qx_cfg/",      "/qx_cfg/vsd_common/",      "/qx_cfg/vsd/",      "/qx_cfg/vsd/0",
    "/ovix/",        "/ovix/vsd_common/",        "/ovix/vsd/",        "/ovix/vsd/0",
    "/ovix/vsd/0/utils", "/ovix/vsd/0/utils/wex",
    "/data/.ovix/",  "/data/.ovix/vsd_common/",  "/data/.ovix/vsd/",  "/data/.ovix/vsd/0"};

// Only on a device with a second data disk.
inline constexpr char kData2Dirs[][20] = {"/data2/.ovix/", "/data2/.ovix/vsd/", "/data2/.ovix/vsd/0",
                                          "/data2/var/",   "/data2/var/run/",   "/data2/var/run/vsd/"};

// Kept: the last entry is the bare format; making it normally fails without harm, see docs/decisions.md.
inline constexpr char kRunDirs[][20] = {"/tmp/vsd_common/", "/tmp/vsd",           "/tmp/vsd/0",
                                        "/etc/vsd",         "/etc/vsd/0",         "/data/var/",
                                        "/data/var/run/",   "/data/var/run/vsd/",
                                        WEX_DOMAIN "/wex/db"};  // NOLINT(bugprone-suspicious-missing-comma)

inline constexpr char kDataDir[]          = "/data/";                             // device, opened to everybody
// clang-format on

enum { kPathSize = 512 };  // room for every path above with its arguments filled in
