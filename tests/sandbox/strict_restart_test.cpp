// Strict mode: a program is started again as who it was, and never with more.
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cstring>

#include "registry_files.h"
#include "strict_set_user_id.h"
#include "strict_world.h"

namespace {

using namespace strict_world;

struct StrictRestart : Strict {
  static pid_t kill_and_wait(pid_t old, const words& options) {
    send_signal(old, SIGKILL);
    return wait_for_actor(options, old, 20s);
  }
  // All ids of a process of the user's that was started with two groups more.
  static void expect_as_before(pid_t pid) {
    const std::string uid = text(kUser);
    const std::string gid = text(kUsersGroup);
    EXPECT_EQ(uid + " " + uid + " " + uid + " " + uid, ids_of(pid, "Uid"));
    EXPECT_EQ(gid + " " + gid + " " + gid + " " + gid, ids_of(pid, "Gid"));
    EXPECT_EQ("77 3001", ids_of(pid, "Groups"));
    EXPECT_EQ("0000000000000000", status_field(pid, "CapEff"));
    EXPECT_EQ("0000000000000000", status_field(pid, "CapPrm"));
  }
};

// The registration of a program that is not running, as its client would have left it.
std::string leave_file(const words& options, uid_t owner, mode_t mode, int action = RESPAWN) {
  const pid_t pid = child::reaped();
  make_dirs(kMainDbDir);
  const std::string path = std::string(kMainDbDir) + "/actor." + text(pid);
  write_file(path, text(pid) + "\n" + text(action) + "\n" + actor_command(options), mode);
  EXPECT_EQ(0, chmod(path.c_str(), mode));
  EXPECT_EQ(0, chown(path.c_str(), owner, owner));
  return path;
}

}  // namespace

TEST_F(StrictRestart, AProgramRunsAgainAsWhoItWasInEveryLifeOfTheDaemon) {
  start();
  Process& service = process();
  const words options = service_words({"--tag=lives"});
  ASSERT_TRUE(start_service(&service, {"--tag=lives"}));
  EXPECT_TRUE(eventually([&] { return mode_of(registry::db_file(0, "actor", service.pid())) == 0700; }, 20s));
  const pid_t second = kill_and_wait(service.pid(), options);
  ASSERT_GT(second, 0) << read_console();
  expect_as_before(second);
  for (const char* const output : {"1", "2"}) {
    const std::string flags = read_file("/proc/" + text(second) + "/fdinfo/" + output);
    const size_t digits = flags.find("flags:\t") + strlen("flags:\t");
    EXPECT_EQ(O_WRONLY, std::stoi(flags.substr(digits), nullptr, 8) & O_ACCMODE) << "he reads the console";
  }
  ASSERT_TRUE(eventually([&] { return exists(std::string(kUsersDir) + "/" + text(second)); }));
  EXPECT_FALSE(exists(std::string(kUsersDir) + "/" + text(service.pid())));
  EXPECT_EQ(0700U, mode_of(kUsersDir));
  // The next daemon finds it alive, the one after that dead.
  ASSERT_TRUE(eventually([&] { return exists(registry::db_file(0, "actor", second)); }, 20s));
  daemon.kill_now();
  start();
  const pid_t third = kill_and_wait(second, options);
  ASSERT_GT(third, 0) << read_console();
  expect_as_before(third);
  ASSERT_TRUE(eventually([&] { return exists(registry::db_file(0, "actor", third)); }, 20s));
  daemon.kill_now();
  send_signal(third, SIGKILL);
  ASSERT_TRUE(eventually([&] { return !is_alive(third); }));
  start();
  const pid_t fourth = wait_for_actor(options, third, 20s);
  ASSERT_GT(fourth, 0) << read_console();
  expect_as_before(fourth);
}

// A pause of root's program is slept with the registry locked.
TEST_F(StrictRestart, AUsersPauseIsCutAndHoldsNobodyUp) {
  write_file(kStrictFile, "restart_delay 4\n");
  start();
  Process& slow = process();
  Process& roots = process();
  const words options = {"--time-set=2147483647", "--tag=slow"};
  ASSERT_TRUE(start_service(&slow, options));
  ASSERT_TRUE(start_service(&roots, {"--tag=roots"}, 0));
  EXPECT_EQ(4, StatusReader().slot_of(slow.pid())->restart_delay);
  const auto begun = std::chrono::steady_clock::now();
  send_signal(slow.pid(), SIGKILL);
  ASSERT_TRUE(
      eventually([&] { return StatusReader().slot_of(slow.pid())->state == WEX_STATUS_RESTARTING; }, 20s));
  EXPECT_GT(kill_and_wait(roots.pid(), service_words({"--tag=roots"})), 0) << read_console();
  EXPECT_EQ(WEX_STATUS_RESTARTING, StatusReader().slot_of(slow.pid())->state) << "it still waits";
  const pid_t next = wait_for_actor(service_words(options), slow.pid(), 60s);
  ASSERT_GT(next, 0) << read_console();
  EXPECT_GE(std::chrono::steady_clock::now() - begun, 4s);
  expect_as_before(next);
  ASSERT_TRUE(eventually([&] { return is_registered(next); }, 20s));
  EXPECT_EQ(4, StatusReader().slot_of(next)->restart_delay);
}

// Without a database file the next daemon would not know the program.
TEST_F(StrictRestart, ADaemonThatEndsInTheMiddleOfAUsersPauseCutsItShort) {
  // The second one has the other threads end before the restart is made.
  ASSERT_TRUE(daemon.start_traced(
      {"inject=accept4:error=ECONNABORTED:when=40", "inject=unlinkat:delay_enter=700000"}));
  ASSERT_TRUE(daemon.wait_ready(30s));
  Process& slow = process();
  const words options = {"--time-set=300", "--confirm", "--tag=slow", "--hold"};
  ASSERT_TRUE(slow.start(users_words(options)));
  ASSERT_TRUE(eventually([&] { return is_registered(slow.pid()); }, 20s));
  send_signal(slow.pid(), SIGKILL);
  ASSERT_TRUE(
      eventually([&] { return StatusReader().slot_of(slow.pid())->state == WEX_STATUS_RESTARTING; }, 20s));
  ASSERT_TRUE(end_through_server());
  EXPECT_TRUE(exited_with(daemon.wait(30s), 0)) << read_console();
  const pid_t next = wait_for_actor(options, slow.pid(), 20s);
  ASSERT_GT(next, 0) << read_console();
  EXPECT_TRUE(exists(std::string(kUsersDir) + "/" + text(next))) << "for the next daemon";
}

// A domain's child is waited for until it is a program, but a user chooses where his program lies.
TEST_F(StrictRestart, AUsersProgramThatIsSlowlyReadHoldsNobodyUp) {
  make_dirs("/tmp/vsd/5/wex");
  make_dirs("/data/var/run/vsd/5");
  ASSERT_TRUE(daemon.start_traced({"inject=execve:delay_enter=120000000", "trace=execve"}));
  ASSERT_TRUE(daemon.wait_ready(30s));
  Process& own = process();
  Process& roots = process();
  ASSERT_TRUE(start_service(&own, {"--tag=slow"}));
  const std::string flag = "/tmp/vsd/5/wex/" + text(own.pid());
  write_file(flag, "");
  ASSERT_EQ(0, chown(flag.c_str(), kUser, kUser));
  send_signal(own.pid(), SIGKILL);
  const auto next = [&] {
    for (const wex_status_slot& slot : StatusReader().slots()) {
      if (slot.uid == kUser && slot.pid != own.pid()) {
        return pid_t{slot.pid};
      }
    }
    return pid_t{0};
  };
  ASSERT_TRUE(eventually([&] { return next() > 0; }, 30s)) << read_console();
  EXPECT_TRUE(start_service(&roots, {"--tag=roots"}, 0));
  EXPECT_EQ(0, wait_for_actor(service_words({"--tag=slow"}), own.pid(), 0ms)) << "it is no program yet";
  EXPECT_EQ(std::string::npos, read_console().find("did not get to its program"));
  const pid_t child = next();
  const pid_t tracer = std::stoi(status_field(child, "TracerPid"));
  daemon.kill_now();
  ASSERT_GT(child, 0);
  ASSERT_GT(tracer, 0);
  send_signal(child, SIGKILL);
  send_signal(tracer, SIGKILL);  // it sleeps, and the child is its zombie until it ends
}

namespace {

// The daemon's child that has become a user's but is no program yet.
pid_t users_child_of(pid_t daemon) {
  for (const pid_t pid : processes_inside()) {
    if (status_field(pid, "PPid") == text(daemon) && ids_of(pid, "Uid") == "1234 1234 1234 1234" &&
        program_of(pid) == program_of(daemon)) {
      return pid;
    }
  }
  return 0;
}

}  // namespace

// From the moment on that it is his, and it may be long until that is a program.
TEST_F(StrictRestart, AUserWhoStopsTheStartOfHisProgramHoldsNobodyUp) {
  make_dirs("/tmp/vsd/5/wex");
  make_dirs("/data/var/run/vsd/5");
  ASSERT_TRUE(daemon.start_traced({"inject=setresuid:delay_exit=4000000", "trace=setresuid"}));
  ASSERT_TRUE(daemon.wait_ready(30s));
  Process& own = process();
  Process& roots = process();
  const words options = service_words({"--tag=stopped"});
  ASSERT_TRUE(start_service(&own, {"--tag=stopped"}));
  ASSERT_TRUE(start_service(&roots, {"--tag=roots"}, 0));
  const std::string flag = "/tmp/vsd/5/wex/" + text(own.pid());
  write_file(flag, "");
  ASSERT_EQ(0, chown(flag.c_str(), kUser, kUser));
  send_signal(own.pid(), SIGKILL);
  pid_t child = 0;
  ASSERT_TRUE(eventually([&] { return (child = users_child_of(daemon.pid())) > 0; }, 30s)) << read_console();
  ASSERT_TRUE(as_user([&] { return send_signal(child, SIGSTOP); }));
  const std::string stopped = "(^|\\n)" + text(child) + " +--- stopped by SIGSTOP ---";
  ASSERT_TRUE(eventually([&] { return contains_match(Daemon::trace(), stopped); }, 20s)) << Daemon::trace();
  EXPECT_GT(kill_and_wait(roots.pid(), service_words({"--tag=roots"})), 0) << read_console();
  EXPECT_EQ(child, users_child_of(daemon.pid())) << "it still stands where he stopped it";
  EXPECT_EQ(std::string::npos, read_console().find("did not get to its program")) << read_console();
  ASSERT_TRUE(as_user([&] { return send_signal(child, SIGCONT); }));
  EXPECT_EQ(child, wait_for_actor(options, own.pid(), 30s)) << read_console();
}

namespace {

// "soft hard" of a limit, as /proc/PID/limits has it.
std::string limit_of(pid_t pid, const std::string& name) {
  const std::vector<std::string> found =
      groups_of(read_file("/proc/" + text(pid) + "/limits"), "Max " + name + " +([a-z0-9]+) +([a-z0-9]+)");
  return found.size() == 3 ? found[1] + " " + found[2] : "";
}

// Rights to priorities, which the daemon of this case inherits: those of no unit, but of a shell may be.
struct more_priority {
  more_priority() {
    for (const auto limit : {RLIMIT_RTPRIO, RLIMIT_NICE}) {
      struct rlimit now = {};
      EXPECT_EQ(0, getrlimit(limit, &now));
      before.push_back({limit, now});
      now.rlim_cur = now.rlim_max = 20;
      setrlimit(limit, &now);
    }
  }
  ~more_priority() {
    for (const auto& [limit, value] : before) {
      EXPECT_EQ(0, setrlimit(limit, &value));
    }
  }
  more_priority(const more_priority&) = delete;
  more_priority& operator=(const more_priority&) = delete;
  std::vector<std::pair<decltype(RLIMIT_NICE), struct rlimit>> before;
};

}  // namespace

// The machine may let nobody raise these limits; then only the calls tell.
TEST_F(StrictRestart, AUsersProgramMayNotRaiseItsPriorityWhateverTheDaemonMay) {
  const more_priority more;
  ASSERT_TRUE(daemon.start_traced({"trace=prlimit64,setrlimit"}));
  ASSERT_TRUE(daemon.wait_ready(30s));
  for (const uid_t user : {uid_t{0}, kUser}) {
    Process& service = process();
    const words tag = {"--tag=limits-" + text(user)};
    ASSERT_TRUE(start_service(&service, tag, user));
    const pid_t next = kill_and_wait(service.pid(), service_words(tag));
    ASSERT_GT(next, 0) << read_console();
    for (const char* const limit : {"realtime priority", "nice priority"}) {
      EXPECT_EQ(user == 0 ? limit_of(daemon.pid(), limit) : "0 0", limit_of(next, limit));
    }
    for (const char* const limit : {"RLIMIT_RTPRIO", "RLIMIT_NICE"}) {
      const std::string call = "(^|\n)" + text(next) + " +(prlimit64\\(0, |setrlimit\\()" + limit +
                               ", \\{rlim_cur=0, rlim_max=0\\}[^\n]* = 0\n";
      EXPECT_EQ(user != 0, contains_match(Daemon::trace(), call)) << limit << "\n" << Daemon::trace();
    }
  }
}

TEST_F(StrictRestart, AScriptRunsAsWhoItWas) {
  write_file("/etc/cmdmap/actor.sh", "exec " + std::string(actor_binary()) + " \"$@\"\n");
  start();
  Process& service = process();
  const words options = {"--tag=script", "--register=SHELL", "--confirm", "--hold"};
  ASSERT_TRUE(service.start(users_words(options)));
  ASSERT_TRUE(eventually([&] { return is_registered(service.pid()); }, 20s));
  const pid_t next = kill_and_wait(service.pid(), options);
  ASSERT_GT(next, 0) << read_console();
  expect_as_before(next);
}

TEST_F(StrictRestart, RootsProgramIsRootAgainWithItsOwnGroups) {
  start();
  Process& service = process();
  const words options = service_words({"--tag=root", "--group=4711"});
  ASSERT_TRUE(service.start(actor_words(options)));
  ASSERT_TRUE(eventually([&] { return is_registered(service.pid()); }, 20s));
  const pid_t next = kill_and_wait(service.pid(), options);
  ASSERT_GT(next, 0) << read_console();
  EXPECT_EQ("0 0 0 0", ids_of(next, "Uid"));
  EXPECT_EQ("4711", ids_of(next, "Groups"));
}

// The child of a domain is forked, the other one has the daemon's memory.
TEST_F(StrictRestart, NothingIsExecutedWhenTheUserCannotBeBecome) {
  ASSERT_TRUE(daemon.start_traced({"inject=setresuid:error=EAGAIN", "trace=setresuid,execve"}));
  ASSERT_TRUE(daemon.wait_ready(30s));
  Process& service = process();
  ASSERT_TRUE(start_service(&service, {"--tag=refused"}));
  send_signal(service.pid(), SIGKILL);
  EXPECT_TRUE(console_says("]wex_spawn--> cannot become the user of the program: ", 20s)) << read_console();
  EXPECT_EQ(0, wait_for_actor(service_words({"--tag=refused"}), service.pid(), 500ms));
  EXPECT_EQ(std::string::npos, Daemon::trace().find(std::string("execve(\"") + actor_binary()));
}

struct file_row {
  const char* what;
  uid_t owner;
  mode_t mode;
  const char* started_as;  // null: it does not count
};

// What a file says that nobody kept: its owner's ids at the most, and nothing when others may have written
// it.
TEST_F(StrictRestart, ALostRegistrationIsItsFilesOwnersAtTheMost) {
  write_file("/etc/passwd", "root:x:0:0::/:/bin/sh\nsomebody:x:1234:4321::/:/bin/sh\n");
  const file_row rows[] = {
      {"root", 0, 0755, "0"},
      {"user", kUser, 0755, "1234"},
      {"open", 0, 0757, nullptr},
      {"group", 0, 0775, nullptr},
      {"users-open", kUser, 0777, nullptr},
      {"data", 0, 0644, nullptr},
      {"unlisted", kOther, 0755, nullptr},
  };
  std::vector<std::string> ignored;
  for (const file_row& row : rows) {
    const std::string path = leave_file({std::string("--tag=") + row.what, "--hold"}, row.owner, row.mode);
    if (row.started_as == nullptr) {
      ignored.push_back(path);
    }
  }
  const std::string linked = leave_file({"--tag=linked", "--hold"}, 0, 0755);
  ASSERT_EQ(0, link(linked.c_str(), "/tmp/second-name"));
  ignored.push_back(linked);
  start();
  for (const file_row& row : rows) {
    SCOPED_TRACE(row.what);
    const words options = {std::string("--tag=") + row.what, "--hold"};
    const pid_t pid = wait_for_actor(options, 0, row.started_as != nullptr ? 20s : 100ms);
    ASSERT_EQ(row.started_as != nullptr, pid > 0) << read_console();
    if (pid > 0) {
      EXPECT_EQ(row.started_as, uid_of(pid));
      EXPECT_EQ("", ids_of(pid, "Groups"));
      const std::string group = row.owner == 0 ? "0" : "4321";
      EXPECT_EQ(group + " " + group + " " + group + " " + group, ids_of(pid, "Gid")) << "not the file's";
    }
  }
  for (const std::string& path : ignored) {
    EXPECT_TRUE(log_says(path + " does not count: its owner may not say what it says."));
    EXPECT_TRUE(exists(path)) << "left alone";
  }
}

// The user's file for root's living process, and his change of root's own one.
TEST_F(StrictRestart, AFileIsBelievedForAProcessOfItsOwner) {
  Process& roots = process();
  Process& own = process();
  const words options = {"--tag=roots", "--hold"};
  ASSERT_TRUE(roots.start(actor_words(options)));
  ASSERT_TRUE(own.start(users_words({"--tag=own", "--hold"})));
  ASSERT_TRUE(eventually(
      [&] {
        return command_line(own.pid()) == actor_command({"--tag=own", "--hold"});
      },
      20s));
  const auto leave = [](pid_t pid, uid_t owner, const words& said) {
    const std::string path = registry::db_file(0, "actor", pid);
    write_file(path, text(pid) + "\n2\n" + actor_command(said));
    EXPECT_EQ(0, chmod(path.c_str(), 0777));
    EXPECT_EQ(0, chown(path.c_str(), owner, owner));
    return path;
  };
  make_dirs(kMainDbDir);
  const std::string planted = leave(roots.pid(), kUser, options);
  leave(own.pid(), kUser, {"--tag=own", "--hold"});
  start();
  EXPECT_TRUE(log_says(planted + " does not count"));
  EXPECT_FALSE(is_registered(roots.pid()));
  EXPECT_TRUE(is_registered(own.pid())) << "writable by others, but it says what the process says";
  daemon.kill_now();
  leave(roots.pid(), 0, {"--tag=evil", "--hold"});
  start();
  EXPECT_FALSE(is_registered(roots.pid())) << "anybody may have written it, and the process says otherwise";
  EXPECT_TRUE(is_registered(own.pid()));
}

// While the daemon runs: found by the minute's look, which a lost exit brings on; here the start is enough,
// and what is planted later waits for a registration.
TEST_F(StrictRestart, WhatAUserPutsAtTheNameOfRootsFileIsReplaced) {
  start();
  Process& roots = process();
  ASSERT_TRUE(roots.start(
      actor_words({"--tag=victim", "--wait-for=/tmp/go", "--register=RESTART", "--confirm", "--hold"})));
  const std::string path = registry::db_file(0, "actor", roots.pid());
  write_file(path, "planted");
  ASSERT_EQ(0, chmod(path.c_str(), 0777));
  ASSERT_EQ(0, chown(path.c_str(), kUser, kUser));
  write_file("/tmp/go", "");
  ASSERT_TRUE(eventually([&] { return is_registered(roots.pid()); }, 20s));
  struct stat facts = {};
  EXPECT_TRUE(eventually([&] { return stat(path.c_str(), &facts) == 0 && facts.st_uid == 0; }, 20s));
  unlink("/tmp/go");
}

// ---- Programs that have their owner's rights, whoever runs them -------------------------------------------

TEST_F(StrictSetUserId, WhatAUserEndsBeforeItsMessageIsNotStartedAsRoot) {
  start();
  daemon.kill_now();  // the message has nobody to go to
  Process& program = process();
  ASSERT_TRUE(program.start(users_program()));
  const pid_t pid = program.pid();
  ASSERT_TRUE(eventually([&] { return facts_of(file_of(pid)).st_size > 0; }, 20s));
  ASSERT_EQ("1234 0 0 0", ids_of(pid, "Uid"));
  ASSERT_TRUE(as_user([&] { return send_signal(pid, SIGKILL); }));
  program.wait(20s);
  const uid_t owner = facts_of(file_of(pid)).st_uid;
  start();
  pid_t next = 0;
  ASSERT_TRUE(eventually(
      [&] {
        for (const pid_t found : running_programs("users")) {
          next = found;
        }
        return next > 0;
      },
      20s))
      << read_console();
  EXPECT_EQ(text(kUser), uid_of(next)) << ids_of(next, "Uid");
  EXPECT_EQ(kUser, owner);
}

// He may end it at any moment.
TEST_F(StrictSetUserId, ItsFileIsTheUsersBeforeItSaysAnything) {
  start();
  daemon.kill_now();
  Process& program = process();
  const std::string traced =
      "exec strace -D -f -q -o /dev/null -e trace=write -e inject=write:signal=KILL -P " +
      registry::db_dir(0) + "/suid.$$ \"$@\"";
  ASSERT_TRUE(program.start(users_program({"/bin/sh", "-c", traced, "sh"}), {"ASAN_OPTIONS=detect_leaks=0"}));
  EXPECT_TRUE(ended_by(program.wait(20s), SIGKILL)) << "when it would have written";
  struct stat facts = {};
  ASSERT_EQ(0, lstat(file_of(program.pid()).c_str(), &facts));
  EXPECT_EQ(0, facts.st_size);
  EXPECT_EQ(kUser, facts.st_uid);
}

// He chooses how it is called, and has the pid of root's program that died while no daemon ran.
TEST_F(StrictSetUserId, ItDoesNotWriteOverAFileOfRoots) {
  start();
  daemon.kill_now();
  Process& program = process();
  words all = users_program({"/bin/sh", "-c", "exec \"$@\" > /tmp/said 2>&1", "sh"});
  all.insert(all.end() - 2, "--wait-for=/tmp/go");
  ASSERT_TRUE(program.start(all));
  const std::string name = file_of(program.pid());
  write_file(name, "root's", 0700);
  write_file("/tmp/go", "");
  ASSERT_TRUE(eventually([] { return contains_match(read_file("/tmp/said"), "connect refused"); }, 20s))
      << "the message comes after the file";
  EXPECT_EQ("root's", read_file(name));
  EXPECT_EQ(0U, facts_of(name).st_uid);
  unlink("/tmp/go");
  unlink("/tmp/said");
}
