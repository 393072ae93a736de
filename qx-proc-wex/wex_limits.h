// wex_limits: every tunable in one place, each with what it decides.
#pragma once

#include <sys/types.h>

#include <cstdint>

// An integrator may measure and choose the pauses of the two event loops, in microseconds.
#ifndef WEX_MONITOR_PAUSE_US
#define WEX_MONITOR_PAUSE_US 1000
#endif
#ifndef WEX_SERVER_PAUSE_US
#define WEX_SERVER_PAUSE_US 1000
#endif

// Descriptors.
inline constexpr int kOpenFileLimit = 2304;  // soft limit of the daemon: every client and room to spare
inline constexpr int kMaxClients = 2048;     // connected clients; one more ends the daemon
inline constexpr int kListenBacklog = 2048;
inline constexpr int kAcceptedAtOnce = 64;   // connections accepted in one cycle of the control server
inline constexpr int kServedAtOnce = 64;     // events served in one cycle; the next begins with the others
inline constexpr int kServerWaitMs = 10000;  // longest wait of the control server for its clients

// Strict mode: of each user but root. The first three are set by its file, up to the other three.
inline constexpr int32_t kUserConnections = 64;
inline constexpr int32_t kUserRegistrations = 256;  // processes, and as many threads
inline constexpr int32_t kUserDelaySec = 300;       // longest pause before a restart of his
inline constexpr int32_t kUserConnectionsMax = kMaxClients;
inline constexpr int32_t kUserRegistrationsMax = 65536;
inline constexpr int32_t kUserDelayMax = 86400;
inline constexpr int kWrongLinesKept = 4;  // wrong lines of that file that the running log names
inline constexpr int kUserLineSize = 512;  // of the list of users, a longer line is no user's
inline constexpr int kUserGroupsMax =
    64;                                   // supplementary groups of a process; with more it is not registered
inline constexpr int kUserSets = 512;     // different sets of ids among all registrations,
inline constexpr int kSetsOfUser = 64;    // those of one user, and those left over for root
inline constexpr int kExecutedTries = 3;  // looks at a listed program whose user changes meanwhile
inline constexpr int kRefusedUsers = 16;  // users of whose refused messages the running log tells,
inline constexpr int32_t kRefusedLogSec = 60;  // each once in this time
inline constexpr int kIgnoredNamesKept = 64;   // files that do not count: told once each, and no further ones

// Restart throttle and self-check.
inline constexpr int32_t kThrottleWindowSec = 120;  // restarts are counted inside such a window
inline constexpr int32_t kThrottleRestarts = 5;     // the restart that reaches this parks the program
inline constexpr int32_t kSelfCheckSec = 300;       // default wait of a parked program
inline constexpr int32_t kRebootWindowSec = 601;    // a second park sooner than this reboots the device
inline constexpr int32_t kLongDelaySec = 3600;      // a restart delay above this gets a running-log line
inline constexpr int kLongDelayNotes = 16;          // for so many programs at a time,
inline constexpr int32_t kLongDelayLogSec = 60;     // one line in this time for all of them
inline constexpr int kStrictTries = 5;              // to see whether there is a file for strict mode
inline constexpr int kStrictRetryMs = 20;
inline constexpr int kChildrenInARowMs = 10;      // started so soon after one another that more will follow
inline constexpr int kNewcomers = 16;             // registrations whose early end is remembered,
inline constexpr int32_t kNewcomerKeepSec = 600;  // in strict mode for so long when users ask for room

// Exit burst.
inline constexpr int32_t kBurstWindowSec = 900;
inline constexpr int32_t kBurstCount = 10;
// Kept: sixteen markers although there is no domain 16, and none for domain 0, see docs/decisions.md.
inline constexpr int kLastTakeDownDomain = 16;  // take-down markers of domains 1 to 16 are looked at

// Postponed restarts and repairs.
inline constexpr int32_t kForceRestartSec = 301;  // a postponed restart is forced after this
inline constexpr int32_t kSweepEverySec = 60;    // how often vanished processes and lost files are looked for
inline constexpr int32_t kNamesEverySec = 60;    // how often socket, lock file and directory are looked at
inline constexpr int32_t kSweepConfirmSec = 2;   // how long one must be gone before the exit counts as lost
inline constexpr int32_t kHandOverAgainSec = 5;  // until a hand-over to a pid that is kept is tried again
inline constexpr int32_t kReplacedKeepSec = 10;  // how long a replaced pid is remembered for late events
inline constexpr int kReplacedKept = 64;         // and how many of them

// Registry.
inline constexpr off_t kListRemembered = 262144;  // bytes; a larger third-part list is read at every look-up
inline constexpr int kListTries = 3;              // to read it at a look-up

inline constexpr int kPendingExits = 64;  // exits that wait for a second look; more are handled at once
// Further looks at an exit whose process still has threads; the first one is taken at once. Looks that are
// made because a thread ended do not count.
inline constexpr int kExitLooks = 4;
inline constexpr int kExitLookMs = 5;
inline constexpr int kExitSlowLookMs = 1000;  // pause between looks when /proc stays unreadable
inline constexpr uint64_t kStartTickSlack =
    2;  // ticks; the clocks are read one after the other, by hundredths

// From Linux 3.15 on a process is dead a moment before its end is reported with its time.
inline constexpr int64_t kReportSlackNs = 20000000;

inline constexpr int64_t kFileClockSlackMs = 50;  // times of files and of starts are of coarse clocks

inline constexpr int32_t kDelayPassMs = 1000;  // pause between two looks at the postponed restarts
inline constexpr int kLostAtOnce = 64;         // lost exits handed over in one sweep; the next takes the rest

// Process events.
inline constexpr int kEventBuffer = 0x200000;    // receive buffer asked for; the kernel reports twice that
inline constexpr int kListLookMs = 60000;        // how often the list of third-part programs is looked at
inline constexpr int kUnseenLookMs = 100;        // least time between two looks for programs that detached,
inline constexpr int kUnseenLookShare = 50;      // and in how many times its own length one of them may begin
inline constexpr int kLookPutOffMs = 1000;       // by events that do not end
inline constexpr int kSubscriptionWaitMs = 100;  // how long the kernel may take to answer the subscription

// The end of the daemon. A restart that is under way may take 5.5 s of searching and the platform's time
// limit.
inline constexpr int kDelayEndLookMs = 10;
inline constexpr int kDelayEndLooks = 2500;

// Spawning.
inline constexpr int kEnvironmentMax = 8192;  // variables of a domain's program; further ones are left out
inline constexpr int kWaysGiven = 100;      // children that give way to other registrations, for one restart
inline constexpr unsigned kWaysKept = 128;  // of those, remembered until their ends are reported
inline constexpr int kMaxWords = 14;        // program and 13 arguments
inline constexpr unsigned kForkRetrySec = 5;
inline constexpr int kForkRetryAtEndMs = 100;  // the same while the daemon ends
inline constexpr int kForkFailuresFatal = 7;   // failed forks in a row that end the daemon
inline constexpr int kFindTries = 10;          // extra looks for a program that detaches
inline constexpr int kFindStepMs = 100;        // the k-th look waits k times this
inline constexpr int kRunningLooks = 2;        // through /proc, while processes end meanwhile
inline constexpr unsigned kStartsKept = 128;   // started third-part children remembered until they end
inline constexpr unsigned kEndsKept = 1024;    // children that have ended, remembered for lost exits
inline constexpr int kConsoleTries = 5;
inline constexpr int kConsoleRetryMs = 10;
inline constexpr int kKilledChildMs = 10;    // pause before a look whether a child was killed on its way,
inline constexpr int kKilledChildLooks = 5;  // and how many such looks
inline constexpr int kPlatformTimeLimitMs = 10000;  // a domain child that has not executed by then is killed
inline constexpr int kPlatformLookMs = 10;          // how often it is looked at until then

// Repetitions while memory, descriptors or keys are short.
inline constexpr unsigned kMemoryRetrySec = 5;
inline constexpr unsigned kSemRetrySec = 1;
inline constexpr int kSemKeyTries = 64;  // keys tried for the system semaphore while others hold their sets
inline constexpr int kMovedLogged = 4;   // names moved aside before the running log can be written
inline constexpr int kLockTries = 5;     // the lock file may be replaced between open and lock

// Reaping ended children.
inline constexpr int kReapDelayMs = 20;  // they are left alone so long,
inline constexpr int kReapsPutOff = 50;  // at most so many times while programs are being started

// Process facts.
inline constexpr int kLifeTries = 3;
inline constexpr int kLifeRetryMs = 10;
inline constexpr int kCommandTries =
    5;  // looks at the command line of a registration, while something is short
inline constexpr int kCommandRetryMs = 10;

// Client transport.
inline constexpr int kConnectTries = 6;  // one second apart
inline constexpr int kAckTries = 5;
inline constexpr int kAckWaitMs = 1000;
inline constexpr int kRequestTries = 30;  // one second apart, for calls that must get through
inline constexpr int kFdWatchStrikes = 4;
inline constexpr int kSendQuickTries = 100;  // sends repeated at once while the kernel is short of memory
inline constexpr int kSendRetryMs = 5;       // pause between the tries behind those
inline constexpr int kOwnerWaitMs = 1;       // between looks while another thread takes over after a fork

// Hang detection.
inline constexpr unsigned kScanSec = 60;
inline constexpr int32_t kShortPeriodSec = 120;
inline constexpr int32_t kShortPeriodMisses = 5;
inline constexpr int32_t kLongPeriodSec = 180;
inline constexpr int32_t kLongPeriodMisses = 4;
inline constexpr int32_t kFewMisses = 6;  // registrations that allow fewer misses than this ...
inline constexpr int32_t kWarnFew = 3;    // ... are warned about from here on,
inline constexpr int32_t kWarnMany = 5;   // the others from here
inline constexpr int kHungUsers = 16;     // strict mode: users of whom one process each is aborted in a scan
inline constexpr uint32_t kAliveTableSize = 184356;

// Logs.
inline constexpr off_t kRunningLogMax = 102400;  // bytes; then the other file is taken
inline constexpr int kNotifyRing = 10;           // hang reports kept
inline constexpr int64_t kRebootLineMs = 2000;   // wait for the running log's line of a reboot
inline constexpr int kBoundedWorkPauseMs = 2;    // between two looks whether a thread of bounded_work is done

// Stack of a thread of bounded_work: what they do was measured to need 14 KiB, on x86-64.
inline constexpr size_t kBoundedWorkStack = size_t{128} * 1024;

// The status table.
inline constexpr int kStatusPassMs = 100;         // pause after showing what has happened
inline constexpr int kStatusIdleMs = 10000;       // how often heartbeats are shown while nothing happens
inline constexpr int64_t kPauseToldMs = 10000;    // a pause before a restart is told so much longer
inline constexpr int32_t kWatchedEverySec = 5;    // how often watched threads are counted
inline constexpr int64_t kStatusRetryMs = 60000;  // between tries to make a table that could not be made

// The black box.
inline constexpr off_t kBlackBoxMax = 32768;       // bytes of one file; there are two of each kind
inline constexpr int64_t kBlackBoxFree = 262144;   // bytes of the disk that are left to the reboot record
inline constexpr mode_t kBlackBoxMode = 0600;      // what a process was doing is not for everybody
inline constexpr int64_t kBlackBoxWriteMs = 2000;  // wait for the disk; the writing goes on behind it
inline constexpr uint32_t kHistoryEvents = 64;     // before a reboot
inline constexpr int kHistoryParked = 64;          // told one by one; of more the number
inline constexpr int kHungThreads = 64;            // of one process
inline constexpr int64_t kHungLookMs = 100;        // until the process is aborted, whatever has been seen

// System log of a plain Linux box.
inline constexpr int kSystemLogWaitMs = 100;  // for one line; then the back-off begins
inline constexpr int32_t kSystemLogBackoffSec =
    10;  // lines that cannot be sent at once are dropped meanwhile

// Domains.
inline constexpr int kDomainNamesMax = 256;        // names looked at in the directory of all domains
inline constexpr int kFlagNamesMax = 1024;         // names looked at in a domain's directory of flag files
inline constexpr int32_t kDomainGroupBase = 3000;  // supplementary group of domain n: base + 100 n
inline constexpr int32_t kDomainGroupStep = 100;
inline constexpr unsigned kTermGraceSec = 5;
inline constexpr unsigned kKillGraceSec = 10;
inline constexpr int kMeasurePauseMs = 100;  // between two processes: measuring must not fill the processor

// Files.
inline constexpr int kBegunNamesMax = 4096;    // names looked at for what a killed daemon has left
inline constexpr int kLinksFollowed = 8;       // trusted symbolic links along one path
inline constexpr uint32_t kAsideTries = 8;     // names tried for what is moved aside
inline constexpr off_t kOwnCopyMax = 1 << 20;  // bytes; a larger record with a second name is moved aside
inline constexpr unsigned kLinkRestSec = 2;    // age at which a link is read where it cannot be opened
inline constexpr mode_t kOpenDirMode = 0777;
inline constexpr mode_t kClientDirMode = 01777;  // strict mode: directories in which clients make files,
inline constexpr mode_t kOwnDirMode = 0755;      // and all others
inline constexpr mode_t kClosedDirMode = 03755;  // of the former for a moment; no other has this bit
inline constexpr mode_t kUsersDirMode = 0700;
inline constexpr mode_t kUserFileMode = 0600;
inline constexpr mode_t kSocketMode = 0777;  // processes of any user may connect
inline constexpr mode_t kDbMode = 0777;      // narrowed by the owner's umask
inline constexpr mode_t kStrictDbMode = 0700;
inline constexpr mode_t kClientFlagFileMode = 0777;
inline constexpr mode_t kDomainFileMode = 0754;  // flag files of the daemon, take-down markers, start times
inline constexpr mode_t kForkFileMode = 0755;
inline constexpr mode_t kLockMode = 0700;
inline constexpr mode_t kSemKeyMode = 0754;
inline constexpr mode_t kSemMode = 0777;
inline constexpr mode_t kRecordMemoryMode = 0777;  // narrowed by the umask
inline constexpr mode_t kAliveTableMode = 0777;
inline constexpr mode_t kStrictAliveTableMode = 0744;
inline constexpr int kAliveTableTries = 10;  // to make one of root's while a user makes his
inline constexpr mode_t kStatusTableMode = 0644;
inline constexpr mode_t kLogMode = 0666;  // narrowed by the umask; strict mode: nobody but root writes

inline constexpr int kMonitorPriority = 99;  // SCHED_FIFO, for the threads that must not starve
