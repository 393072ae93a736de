// What control messages do to the registry, with living processes and the real files.
#include "wex_msg.h"

#include <atomic>
#include <functional>
#include <thread>

#include "chain_lock.h"
#include "injection.h"
#include "msg_world.h"
#include "running_thread.h"
#include "wex_chain.h"
#include "wex_core_early_end.h"
#include "wex_core_event.h"
#include "wex_core_long_delay.h"
#include "wex_core_process_event.h"
#include "wex_limits.h"
#include "wex_status_image.h"
#include "wex_utils.h"

using namespace msg_world;

namespace {

// Of the looks at a process.
injection g_open;
injection g_readlink;

std::atomic<int> g_commands_read{0};
bool g_commands_gone = false;  // as those of a process that has begun to end

int32_t g_clock_ahead_sec = 0;

bool is_in_proc(const char* path) {
  return strncmp(path, "/proc/", 6) == 0;
}

}  // namespace

extern "C" {
int __real_open64(const char* path, int flags, mode_t mode);
int __wrap_open64(const char* path, int flags, mode_t mode);
int __wrap_open64(const char* path, int flags, mode_t mode) {
  if (!is_in_proc(path) || strstr(path, "cmdline") == nullptr) {
    return __real_open64(path, flags, mode);
  }
  ++g_commands_read;
  return g_open.now() ? -1 : __real_open64(g_commands_gone ? "/dev/null" : path, flags, mode);
}
ssize_t __real_readlink(const char* path, char* buffer, size_t size);
ssize_t __wrap_readlink(const char* path, char* buffer, size_t size);
ssize_t __wrap_readlink(const char* path, char* buffer, size_t size) {
  return is_in_proc(path) && g_readlink.now() ? -1 : __real_readlink(path, buffer, size);
}
int32_t __real_wex_clock_now(void);
int32_t __wrap_wex_clock_now(void);
int32_t __wrap_wex_clock_now(void) {
  return __real_wex_clock_now() + g_clock_ahead_sec;
}
}

// ---- Processes --------------------------------------------------------------------------------------------

TEST_F(Registry, ARestartMessageMakesARespawnRecordFromTheLivingProcess) {
  const sleeper process;
  wex_reg_info body = body_of(process.pid(), 3, 9);
  body.ppid = 77;
  strcpy(body.process, "what the client says");
  strcpy(body.tag, "test-1");
  EXPECT_EQ(0, wex_process_restart(&body));
  const wex_pid* const rec = find(wex_chains, process.pid());
  ASSERT_NE(nullptr, rec);
  EXPECT_EQ(1, wex_chains.count);
  EXPECT_EQ(3, rec->vsd);
  EXPECT_EQ(0, rec->ppid);
  EXPECT_EQ(0, rec->alarm_wait_flag);
  EXPECT_EQ(9, rec->restart_delay);
  EXPECT_EQ(RESPAWN, rec->action);
  EXPECT_EQ(process.command(), rec->process);
  EXPECT_STREQ("", rec->script);
  EXPECT_EQ(0U, rec->flags);
  EXPECT_EQ(0, rec->gone_since);
  EXPECT_TRUE(wex_record_lives(rec)) << "its identity must be known";
}

// Empty last words show as blanks in /proc; two command lines that differ in them are one program's.
TEST_F(Registry, TrailingBlanksOfTheCommandLineAreNotKept) {
  const pid_t pid = fork();
  if (pid == 0) {
    execl("/bin/sh", "sh", "-c", "while :; do read -r line < /dev/zero; done", "", "",
          static_cast<char*>(nullptr));
    _exit(127);
  }
  char whole[4095] = {};
  // With "sh" in it: in the middle of the exec our own name may stand before the new words.
  EXPECT_TRUE(eventually([&] {
    const char* const command = pid_to_cmdline(pid, whole, sizeof whole);
    return command != nullptr && strstr(whole, "sh -c") != nullptr && strstr(whole, "done") != nullptr &&
           whole[strlen(whole) - 1] == ' ';
  })) << whole;
  std::string expected = whole;
  expected.erase(expected.find_last_not_of(' ') + 1);
  const wex_reg_info process = body_of(pid);
  const wex_reg_info thread = thread_body(pid, 5, 5, 120, 0);
  EXPECT_EQ(0, wex_process_restart(&process));
  EXPECT_EQ(0, wex_notifier_start(&thread));
  for (wex_chains_t* const chain : {&wex_chains, &wex_alive_chains}) {
    const wex_pid* const rec = find(*chain, pid);
    EXPECT_TRUE(rec != nullptr && rec->process == expected) << (rec != nullptr ? rec->process : "none");
  }
  send_signal(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
}

TEST_F(Registry, AShellMessageKeepsTheScript) {
  const sleeper process;
  const wex_reg_info body = body_of(process.pid());
  const std::string script(400, 's');
  EXPECT_EQ(0, wex_process_shell_restart(&body, script.c_str()));
  const wex_pid* const rec = find(wex_chains, process.pid());
  ASSERT_NE(nullptr, rec);
  EXPECT_EQ(SHELL_RESTART, rec->action);
  EXPECT_EQ(script.substr(0, 255), rec->script);
}

TEST_F(Registry, ASecondRegistrationChangesNothing) {
  const sleeper process;
  const wex_reg_info first = body_of(process.pid());
  const wex_reg_info second = body_of(process.pid(), 2, 40);
  EXPECT_EQ(0, wex_process_shell_restart(&first, "S"));
  const wex_pid* const rec = find(wex_chains, process.pid());
  EXPECT_EQ(0, wex_process_restart(&second));
  EXPECT_EQ(1, wex_chains.count);
  EXPECT_EQ(rec, find(wex_chains, process.pid()));
  EXPECT_EQ(SHELL_RESTART, rec->action);
  EXPECT_STREQ("S", rec->script);
  EXPECT_EQ(0, rec->restart_delay);
  EXPECT_EQ(0, rec->vsd);
}

TEST_F(Registry, AProcessWithoutACommandLineIsRefused) {
  const int32_t gone = end_of_a_pid();
  for (const int32_t pid : {gone, 0, -1, INT32_MIN, INT32_MAX}) {
    wex_reg_info body = body_of(pid);
    body.ppid = 5;
    const control::printed out;
    EXPECT_EQ(-1, wex_process_restart(&body));
    EXPECT_EQ(-1, wex_process_shell_restart(&body, "x"));
    const std::string text = out.text();
    EXPECT_NE(std::string::npos,
              text.find(text_of("]wex_process_restart: fail to get pid %d's cmdline, ppid = 5\n[WEX:wex_msg:",
                                pid)));
    EXPECT_EQ(
        text.size(),
        text.find(text_of("]wex_process_shell_restart: fail to get pid %d's cmdline, ppid = 5\n\n", pid)) +
            text_of("]wex_process_shell_restart: fail to get pid %d's cmdline, ppid = 5\n\n", pid).size());
  }
  EXPECT_EQ(0, wex_chains.count);
}

TEST_F(Registry, OddDomainsAreKeptAsNumbersAndReachNoIndex) {
  for (const int32_t vsd : {-5, 16, 1000000, INT32_MIN, INT32_MAX}) {
    const sleeper process;
    const wex_reg_info body = body_of(process.pid(), vsd);
    EXPECT_EQ(0, wex_process_restart(&body));
    EXPECT_EQ(vsd, find(wex_chains, process.pid())->vsd);
    const wex_cons_info cancel = {WEX_CANCEL_PROC, process.pid()};
    EXPECT_EQ(0, wex_process_cons_msg(&cancel));
    EXPECT_EQ(0, wex_chains.count);
  }
}

// A service restarted without its arguments would be another service.
TEST_F(Registry, KeepsTheArgumentsOfAProcessThatCannotBeReadForAMoment) {
  for (const int cause : {ENOMEM, EMFILE, ENFILE, EIO}) {
    const sleeper process;
    const wex_reg_info body = body_of(process.pid());
    g_open.fail(2, cause);
    g_readlink.fail(2, cause);
    EXPECT_EQ(0, wex_process_restart(&body)) << strerror(cause);
    ASSERT_NE(nullptr, find(wex_chains, process.pid())) << strerror(cause);
    EXPECT_EQ(process.command(), find(wex_chains, process.pid())->process);
    EXPECT_EQ(0, g_open.calls) << "nothing failed";
    EXPECT_EQ(0, g_readlink.calls) << "nothing failed";
  }
}

TEST_F(Registry, KeepsTheArgumentsOfAWatchedProcessThatCannotBeReadForAMoment) {
  const sleeper process;
  const wex_reg_info body = body_of(process.pid());
  g_open.fail(2, EMFILE);
  g_readlink.fail(2, ENOMEM);
  EXPECT_EQ(0, wex_notifier_start(&body));
  ASSERT_NE(nullptr, find(wex_alive_chains, process.pid()));
  EXPECT_EQ(process.command(), find(wex_alive_chains, process.pid())->process);
  EXPECT_EQ(0, g_open.calls) << "nothing failed";
}

TEST_F(Registry, TakesTheArgumentsThatTheMessageTellsWhereTheProcessCannotBeRead) {
  const sleeper truthful;
  const sleeper silent;
  const sleeper lying;
  wex_reg_info body = body_of(truthful.pid());
  strcpy(body.process, truthful.command().c_str());
  wex_reg_info nothing = body_of(silent.pid());
  wex_reg_info other = body_of(lying.pid());
  strcpy(other.process, "/bin/other with arguments");
  const std::string program = truthful.command().substr(0, truthful.command().find(' '));
  g_open.fail(1000, EMFILE);
  EXPECT_EQ(0, wex_process_restart(&body));
  EXPECT_EQ(0, wex_process_restart(&nothing));
  EXPECT_EQ(0, wex_process_restart(&other));
  g_open.fail(0, 0);
  EXPECT_EQ(truthful.command(), find(wex_chains, truthful.pid())->process);
  EXPECT_EQ(program, find(wex_chains, silent.pid())->process);
  EXPECT_EQ(program, find(wex_chains, lying.pid())->process);
}

TEST_F(Registry, TakesTheArgumentsThatTheMessageTellsWhenTheProcessEndsAsItIsRead) {
  const sleeper process;
  wex_reg_info body = body_of(process.pid());
  strcpy(body.process, process.command().c_str());
  g_commands_gone = true;
  EXPECT_EQ(0, wex_process_restart(&body));
  g_commands_gone = false;
  ASSERT_NE(nullptr, find(wex_chains, process.pid()));
  EXPECT_EQ(process.command(), find(wex_chains, process.pid())->process);
}

TEST_F(Registry, ALongDelayIsReportedInTheRunningLogOnce) {
  const sleeper patient;
  const sleeper quick;
  const wex_reg_info long_delay = body_of(patient.pid(), 0, 3601);
  const wex_reg_info short_delay = body_of(quick.pid(), 0, 3600);
  EXPECT_EQ(0, wex_process_restart(&short_delay));
  EXPECT_EQ(0, wex_process_restart(&long_delay));
  EXPECT_EQ(0, wex_process_restart(&long_delay));
  EXPECT_FALSE(exists("/ovix/vsd/0/utils/wex/running_log1")) << "the server's thread must not write it";
  wex_log_long_delays();
  const std::string log = read_file("/ovix/vsd/0/utils/wex/running_log1");
  EXPECT_EQ(1U,
            occurrences(log, text_of("Process %d wants its restarts delayed by 3601 s.\r\n", patient.pid())));
  EXPECT_EQ(0U, occurrences(log, text_of("Process %d ", quick.pid())));
}

// Whatever command lines a user chooses, one line a minute is written.
TEST_F(Registry, LongDelaysOfManyProgramsAreReportedInOneLineAMinute) {
  g_clock_ahead_sec += 60;  // an earlier case may have been told of within this minute
  for (int at = 0; at < kLongDelayNotes + 4; ++at) {
    wex_note_long_delay(text_of("/bin/p%d x", at % 2 == 0 ? at : 1).c_str(), 1000 + at, 7200);
  }
  for (int minute = 1; minute <= 3; ++minute) {
    wex_log_long_delays();
    wex_log_long_delays();
    const std::string log = read_file("/ovix/vsd/0/utils/wex/running_log1");
    EXPECT_EQ(static_cast<size_t>(minute), occurrences(log, " wants its restarts delayed by 7200 s.\r\n"))
        << log;
    g_clock_ahead_sec += 60;
  }
  const std::string log = read_file("/ovix/vsd/0/utils/wex/running_log1");
  EXPECT_LT(log.find("Process 1000 "), log.find("Process 1019 "))
      << "the note of program p1 has its last pid";
  EXPECT_LT(log.find("Process 1019 "), log.find("Process 1002 "));
}

namespace {

// Whether the last thing told before the registration of `pid` is that it took the place of `old_pid`.
bool told_to_replace(int32_t old_pid, int32_t pid) {
  status_words words;
  wex_status_copy_words(&words);
  wex_status_event event = {};
  return wex_status_copy_event(words.event_next - 2, &event) && event.kind == WEX_STATUS_EV_REPLACED &&
         event.pid == old_pid && event.new_pid == pid;
}

uint32_t registrations_refused() {
  status_words words;
  wex_status_copy_words(&words);
  return words.counters[WEX_STATUS_NOT_REGISTERED];
}

}  // namespace

TEST_F(Registry, ALivingProcessReplacesTheDeadRecordOfItsProgram) {
  const sleeper process;
  wex_pid* const dead = add(wex_chains, end_of_a_pid(), process.command().c_str());
  dead->restart_failed = 1;
  wex_pid* const elsewhere = add(wex_chains, end_of_a_pid(), process.command().c_str());
  elsewhere->restart_failed = 1;
  elsewhere->vsd = 4;
  const std::string file = text_of(kDbFileFmt, 0, program_of(process.command()).c_str(), dead->pid);
  std::ofstream(file) << "x";
  const int32_t dead_pid = dead->pid;
  const wex_reg_info body = body_of(process.pid());
  EXPECT_EQ(0, wex_process_restart(&body));
  EXPECT_TRUE(told_to_replace(dead_pid, process.pid()));
  EXPECT_EQ(2, wex_chains.count);
  EXPECT_EQ(elsewhere, find(wex_chains, elsewhere->pid));
  EXPECT_NE(nullptr, find(wex_chains, process.pid()));
  EXPECT_FALSE(exists(file));
}

TEST_F(Registry, APidLeftOverFromAFailedRestartCanBeRegisteredByItsNewOwner) {
  const sleeper process;
  wex_pid* const dead = add(wex_chains, process.pid(), "/bin/other");
  dead->restart_failed = 1;
  dead->start_time = 1;
  const wex_reg_info body = body_of(process.pid());
  EXPECT_EQ(0, wex_process_restart(&body));
  EXPECT_EQ(process.command(), find(wex_chains, process.pid())->process);
}

TEST_F(Registry, TheIdOfAnEndedThreadCanBeRegisteredByTheProcessThatHasIt) {
  const sleeper process;
  for (const std::string& command : {process.command(), std::string("/bin/other")}) {
    wex_pid* const thread = add(wex_chains, process.pid(), command.c_str());
    thread->thread_of = 1;
    thread->start_time = 1;
    const std::string old_file = text_of(kDbFileFmt, 0, program_of(command).c_str(), process.pid());
    std::ofstream(old_file) << "x";
    const wex_reg_info body = body_of(process.pid());
    EXPECT_EQ(0, wex_process_restart(&body));
    EXPECT_TRUE(told_to_replace(process.pid(), process.pid()));
    ASSERT_EQ(1, wex_chains.count) << command;
    EXPECT_EQ(0, find(wex_chains, process.pid())->thread_of);
    EXPECT_EQ(command == process.command(), exists(old_file)) << "the process may have made it";
    const wex_cons_info cancel = {WEX_CANCEL_PROC, process.pid()};
    EXPECT_EQ(0, wex_process_cons_msg(&cancel));
  }
}

TEST_F(Registry, AThreadIsRegisteredOnce) {
  const running_thread thread;
  const wex_reg_info body = body_of(thread.tid());
  EXPECT_EQ(0, wex_process_restart(&body));
  wex_pid* const rec = find(wex_chains, thread.tid());
  ASSERT_NE(nullptr, rec);
  EXPECT_EQ(getpid(), rec->thread_of);
  rec->check_count = 3;
  EXPECT_EQ(0, wex_process_restart(&body));
  ASSERT_EQ(1, wex_chains.count);
  EXPECT_EQ(3, find(wex_chains, thread.tid())->check_count);
}

namespace {

// Registers a process while the registry is held, as an exit that is being handled may hold it for seconds.
// Once the registration waits for it, `meanwhile` happens.
void register_while_held(const wex_reg_info& body, const std::function<void()>& meanwhile) {
  std::atomic<int32_t> server{0};
  std::thread worker;
  {
    const chain_lock hold(wex_chains);
    g_commands_read = 0;
    worker = std::thread([&] {
      server = wex_thread_id();
      wex_process_restart(&body);
    });
    EXPECT_TRUE(wex_test::eventually([&] {
      return g_commands_read > 0 && wex_look_at(server).state == 'S' && wex_look_at(server).state == 'S';
    }));
    meanwhile();
  }
  worker.join();
}

}  // namespace

TEST_F(Registry, AProcessThatEndsWhileItsRegistrationWaitsHasTheCodeThatWasReported) {
  wex_test::child service("/bin/sleep", {"sleep", "1000"});
  ASSERT_TRUE(service.ready());
  const wex_reg_info body = body_of(service.pid());
  wex_expect_newcomer(body.pid, 0);
  register_while_held(body, [&] {
    service.end();
    wex_take_exit_event({kEventExit, body.pid, body.pid, SIGTERM, 0});
  });
  const wex_pid* const rec = find(wex_chains, body.pid);
  ASSERT_NE(nullptr, rec);
  EXPECT_EQ(static_cast<uint32_t>(SIGTERM), rec->known_code);
}

TEST_F(Registry, AProcessThatIsReplacedWhileItsRegistrationWaitsGetsNoRecordBesideItsSuccessors) {
  wex_test::child service("/bin/sleep", {"sleep", "1000"});
  wex_test::child successor("/bin/sleep", {"sleep", "1000"});
  ASSERT_TRUE(service.ready() && successor.ready());
  const wex_reg_info body = body_of(service.pid());
  ASSERT_EQ(0, wex_process_restart(&body));
  const uint32_t refused = registrations_refused();
  register_while_held(body, [&] {
    service.end();
    const chain_lock again(wex_chains);
    __wex_adopt_pid(&wex_chains, __wex_find_pid(&wex_chains, body.pid), successor.pid());
  });
  EXPECT_EQ(nullptr, find(wex_chains, body.pid))
      << "it would be started again when its successor is cancelled";
  EXPECT_NE(nullptr, find(wex_chains, successor.pid()));
  EXPECT_EQ(refused + 1, registrations_refused());
}

TEST_F(Registry, AThreadThatEndsWhileItsRegistrationWaitsIsKnownAsOne) {
  running_thread thread;
  const wex_reg_info body = body_of(thread.tid());
  register_while_held(body, [&] { thread.end(); });
  const wex_pid* const rec = find(wex_chains, body.pid);
  ASSERT_NE(nullptr, rec);
  EXPECT_EQ(getpid(), rec->thread_of) << "its end would be taken for a lost exit";
}

// ---- Third-part programs ----------------------------------------------------------------------------------

TEST_F(Registry, AThirdPartProgramIsRegisteredInProcessWithItsFile) {
  const sleeper process;
  EXPECT_EQ(0, wex_register_third_part(process.pid(), "WEX_RESTART\n", nullptr));
  const wex_pid* const rec = find(wex_chains, process.pid());
  ASSERT_NE(nullptr, rec);
  EXPECT_EQ(RESPAWN, rec->action);
  EXPECT_EQ(process.command(), rec->process);
  const std::string file = db_file(0, process);
  EXPECT_EQ(text_of("%d\n2\n%s", process.pid(), process.command().c_str()), read_file(file));
  const wex_cons_info cancel = {WEX_CANCEL_PROC, process.pid()};
  EXPECT_EQ(0, wex_process_cons_msg(&cancel));
  EXPECT_FALSE(exists(file));
}

TEST_F(Registry, AThirdPartProgramMayHaveTheShellAction) {
  const sleeper process;
  EXPECT_EQ(0, wex_register_third_part(process.pid(), "WEX_SHELL_RESTART", nullptr));
  const wex_pid* const rec = find(wex_chains, process.pid());
  ASSERT_NE(nullptr, rec);
  EXPECT_EQ(SHELL_RESTART, rec->action);
  EXPECT_STREQ("", rec->script);
  EXPECT_EQ(text_of("%d\n3\n%s", process.pid(), process.command().c_str()), read_file(db_file(0, process)));
}

TEST_F(Registry, AThirdPartProgramCanBeRegisteredWithTheRegistryHeld) {
  const sleeper process;
  {
    const chain_lock hold(wex_chains);
    EXPECT_EQ(0, wex_register_third_part(process.pid(), "WEX_RESTART", nullptr));
    EXPECT_NE(nullptr, __wex_find_pid(&wex_chains, process.pid()));
  }
  std::thread([] {
    EXPECT_EQ(0, pthread_mutex_trylock(&wex_chains.mutex)) << "the lock was kept";
    pthread_mutex_unlock(&wex_chains.mutex);
  }).join();
}

TEST_F(Registry, AThirdPartProgramIsRefusedWithoutAKeywordOrACommandLine) {
  const sleeper process;
  const int32_t gone = end_of_a_pid();
  EXPECT_EQ(-1, wex_register_third_part(process.pid(), "\n", wex_new_record()));  // which are freed
  EXPECT_EQ(-1, wex_register_third_part(gone, "WEX_RESTART", wex_new_record()));
  EXPECT_EQ(-1, wex_register_third_part(0, "WEX_RESTART", nullptr));
  EXPECT_EQ(-1, wex_register_third_part(-1, "WEX_RESTART", nullptr));
  EXPECT_EQ(0, wex_chains.count);
  EXPECT_EQ(0, system("test -z \"$(ls /tmp/vsd/0/wex/db)\""));
}

// Whoever holds the registry must not wait for memory: until it comes nobody could register and no exit could
// be handled.
TEST_F(Registry, AThirdPartProgramIsMadeOfTheMemoryItIsGiven) {
  const sleeper process;
  wex_pid* const old = add(wex_chains, 77, "/bin/old");
  memset(old->script, 's', sizeof old->script);
  old->restart_delay = old->alarm_wait_flag = 1;
  old->flags = WEX_FLAG_SELF_CHECKING;
  const chain_lock hold(wex_chains);
  ASSERT_EQ(old, __wex_recycle_pid(&wex_chains, 77));
  EXPECT_EQ(0, wex_register_third_part(process.pid(), "WEX_RESTART", old));
  const wex_pid* const rec = __wex_find_pid(&wex_chains, process.pid());
  ASSERT_EQ(old, rec);
  EXPECT_EQ(process.command(), rec->process);
  EXPECT_STREQ("", rec->script);
  EXPECT_EQ(0, rec->restart_delay);
  EXPECT_EQ(0, rec->alarm_wait_flag);
  EXPECT_EQ(0U, rec->flags);
}

TEST_F(Registry, AThirdPartProgramIsToldInTheWordsOfAClientsRegistration) {
  const sleeper process;
  const int32_t gone = end_of_a_pid();
  ASSERT_EQ(0, system("rm -rf /tmp/vsd/0"));  // no database file can be made
  const control::printed out;
  EXPECT_EQ(0, wex_register_third_part(process.pid(), "WEX_SHELL_RESTART", nullptr));
  EXPECT_EQ(-1, wex_register_third_part(gone, "WEX_RESTART", nullptr));
  const std::string text = replace_matches(out.text(), "\\[WEX:([a-z_]+):[0-9]+\\]", "[$1]");
  for (const std::string& line :
       {text_of("[wex_xtach]reg_process_exit_action: pid %d type 2 vsd 0\n", process.pid()),
        text_of("[wex_xtach]wex_mk_pidfile fail. vsd 0 pid %d name %s \n", process.pid(),
                process.command().c_str()),
        text_of("[wex_xtach]reg_process_exit_action: pid %d type 1 vsd 0\n", gone),
        text_of("[wex_xtach]reg_process_exit_action: fail to get pid %d's cmdline\n", gone)}) {
    EXPECT_EQ(1U, occurrences(text, line)) << line << "in\n" << text;
  }
}
