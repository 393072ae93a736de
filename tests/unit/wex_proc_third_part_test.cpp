// Starting programs: those of the third-part list, whose process is looked for by its command line.
#include <dirent.h>
#include <sys/stat.h>

#include "dir_walk.h"
#include "failing_calls.h"
#include "proc_world.h"
#include "registry_files.h"
#include "wex_chain_list.h"
#include "wex_flag_file.h"

using namespace proc_world;

namespace {
int g_directories_refused = 0;   // the next ones to be read
bool g_pauses_left_out = false;  // of the search
std::vector<int> g_pauses_ms;    // those that were left out
}  // namespace

extern "C" DIR* __real_fdopendir(int fd);
extern "C" DIR* __wrap_fdopendir(int fd) {
  if (g_directories_refused > 0) {
    --g_directories_refused;
    errno = ENOENT;
    return nullptr;
  }
  return __real_fdopendir(fd);
}

extern "C" void __real_wex_sleep_ms(int milliseconds);
extern "C" void __wrap_wex_sleep_ms(int milliseconds) {
  if (g_pauses_left_out) {
    g_pauses_ms.push_back(milliseconds);
  } else {
    __real_wex_sleep_ms(milliseconds);
  }
}

namespace {

// The pauses of a search, which is spared them: how long they last in all must not depend on the machine.
std::vector<int> pauses_of(const std::function<void()>& search) {
  g_pauses_ms.clear();
  g_pauses_left_out = true;
  search();
  g_pauses_left_out = false;
  return g_pauses_ms;
}

TEST_F(ProcWorld, FurtherLooksComeAfterGrowingPauses) {
  char command[] = "/no/such/program";
  int32_t found = 0;
  EXPECT_EQ((std::vector<int>{100, 200, 300}), pauses_of([&] { wex_proc_to_pid(command, &found, 3); }));
  EXPECT_EQ(0, found);
}

TEST_F(ProcWorld, AThirdPartProgramInTheForegroundIsItsOwnPid) {
  Process probe;  // what /bin/sleep really is, as /proc will name it
  ASSERT_TRUE(probe.start({"/bin/sleep", "30"}));
  ASSERT_TRUE(eventually([&] { return command_line(probe.pid()) == "/bin/sleep 30"; }));
  const std::string sleep = program_of(probe.pid());
  probe.kill_now();
  write_file(kThirdPartList, sleep + " 4711.5 WEX_RESTART\n");
  const auto rec = record_of(sleep + " 4711.5");
  const spawned got = spawn(rec.get());
  EXPECT_GT(got.result, 0);
  EXPECT_EQ(got.result, got.out_pid);
  EXPECT_TRUE(eventually([&] { return command_line(got.result) == sleep + " 4711.5"; }))
      << "found while it was being executed, it has no command line for a moment: "
      << command_line(got.result);
  wex_test::send_signal(got.result, SIGKILL);
  ended(got.result);
}

TEST_F(ProcWorld, AThirdPartProgramThatIsNotFoundGivesNothing) {
  write_file("/tmp/wex/script", "#!/bin/sh\n", 0755);  // runs as the shell, so no look can meet it
  write_file(kThirdPartList, "/tmp/wex/script WEX_RESTART\n");
  const auto rec = record_of("/tmp/wex/script");
  spawned got = {};
  EXPECT_EQ((std::vector<int>{100, 200, 300, 400, 500, 600, 700, 800, 900, 1000}),
            pauses_of([&] { got = spawn(rec.get()); }));
  EXPECT_EQ(0, got.result);
  EXPECT_EQ(-1, got.out_pid);
  while (waitpid(-1, nullptr, 0) > 0) {
  }
}

// The spawn of a program that the list names, at a time when its fork fails; what it prints.
spawned spawn_without_fork(const std::string& program, std::string* printed) {
  const auto rec = record_of(program);
  const registry::captured_output output;
  const spawned got = spawn(rec.get());
  *printed = output.text();
  return got;
}

TEST_F(ProcWorld, AThirdPartProgramThatRunsAlreadyIsTakenWhenItCannotBeForked) {
  ASSERT_TRUE(exited_with(run({"cp", "/bin/cat", "/tmp/wex/cat"}), 0));
  ASSERT_EQ(0, mkfifo("/tmp/wex/fifo", 0600));
  write_file(kThirdPartList, "/tmp/wex/cat WEX_RESTART\n");
  Process running;
  ASSERT_TRUE(running.start({"sh", "-c", "exec /tmp/wex/cat <> /tmp/wex/fifo"}));
  ASSERT_TRUE(eventually([&] { return command_line(running.pid()) == "/tmp/wex/cat"; }));
  EXPECT_EQ(0, run_failing({"clone,fork,vfork:error=ENOMEM:when=1"}, [&] {
              std::string printed;
              const spawned got = spawn_without_fork("/tmp/wex/cat", &printed);
              EXPECT_EQ(running.pid(), got.result);
              EXPECT_EQ(running.pid(), got.out_pid);
              EXPECT_EQ("[wex_proc]wex_spawn--> third part Daemon[/tmp/wex/cat] new pid: " +
                            std::to_string(running.pid()) + "\n",
                        printed);
              return 0;
            }));
  EXPECT_FALSE(exists(kForkFile));
}

TEST_F(ProcWorld, AThirdPartProgramThatCannotBeForkedIsNotTriedAgain) {
  write_file(kThirdPartList, "/tmp/wex/none WEX_RESTART\n");
  EXPECT_EQ(0, run_failing({"clone,fork,vfork:error=ENOMEM:when=1"}, [] {
              std::string printed;
              const spawned got = spawn_without_fork("/tmp/wex/none", &printed);
              EXPECT_EQ(0, got.result);
              EXPECT_EQ(-1, got.out_pid);
              EXPECT_EQ("[wex_proc]wex_spawn--> third part[/tmp/wex/none] Not Found new pid!\n", printed);
              return 0;
            }));
  EXPECT_FALSE(exists(kForkFile)) << "counted as a failed fork";
}

// The looks of the search are followed by one more that is repeated until it is not cut short.
TEST_F(ProcWorld, AProgramOrScriptIsFoundThoughAllLooksOfTheSearchWereCutShort) {
  ASSERT_TRUE(exited_with(run({"cp", "/bin/cat", "/tmp/wex/cat"}), 0));
  ASSERT_EQ(0, mkfifo("/tmp/wex/fifo", 0600));
  write_file("/etc/cmdmap/cat.sh", "exit 0\n");
  write_file(kThirdPartList, "/tmp/wex/cat WEX_RESTART\n");
  Process running;
  ASSERT_TRUE(running.start({"sh", "-c", "exec /tmp/wex/cat <> /tmp/wex/fifo"}));
  ASSERT_TRUE(eventually([&] { return command_line(running.pid()) == "/tmp/wex/cat"; }));
  for (const auto spawner : {wex_spawn, wex_shell_spawn}) {
    g_directories_refused = kFindTries + 2;
    pauses_of([&] { EXPECT_GT(spawn(record_of("/tmp/wex/cat").get(), spawner).result, 0); });
    EXPECT_EQ(0, g_directories_refused);
  }
  running.kill_now();
  while (waitpid(-1, nullptr, 0) > 0) {
  }
}

// How many processes have a marker in a domain.
int markers_in(int32_t vsd) {
  int count = 0;
  dir_walk markers(domain_dir(vsd).c_str());
  while (const dirent* const entry = markers.next()) {
    count += entry->d_name[0] >= '1' && entry->d_name[0] <= '9' ? 1 : 0;
  }
  return count;
}

TEST_F(ProcWorld, ADetachedProcessOfADomainGetsAFlagFileAndItsNextStartFindsIt) {
  make_domain(2);
  write_file(domain_dir(2) + "/812", "");
  ASSERT_TRUE(exited_with(run({"cp", "/bin/cat", "/tmp/wex/cat"}), 0));
  ASSERT_EQ(0, mkfifo("/tmp/wex/fifo", 0600));
  write_file(kThirdPartList, "/tmp/wex/cat WEX_RESTART\n");
  Process detached;
  ASSERT_TRUE(detached.start({"sh", "-c", "exec /tmp/wex/cat <> /tmp/wex/fifo"}));
  ASSERT_TRUE(eventually([&] { return command_line(detached.pid()) == "/tmp/wex/cat"; }));
  ASSERT_EQ(0, chmod("/tmp/wex/cat", 0600));  // so the child ends at once
  EXPECT_EQ(detached.pid(), spawn(record_of("/tmp/wex/cat", 812).get()).result);
  EXPECT_EQ(2, find_app(detached.pid()));
  EXPECT_EQ(1, markers_in(2)) << "the marker of the child that has ended stays";
  detached.kill_now();
  while (waitpid(-1, nullptr, 0) > 0) {
  }
}

}  // namespace

// Taken for one that does not run, or is not listed, it would be started beside itself.
TEST_F(ProcWorld, AThirdPartProgramIsFoundThoughOneCallOfTheSearchFails) {
  Process running;
  ASSERT_TRUE(running.start({"/bin/sleep", "4711.7"}));
  ASSERT_TRUE(eventually([&] { return command_line(running.pid()).find(" 4711.7") != std::string::npos; }));
  const std::string command = program_of(running.pid()) + " 4711.7";
  for (const char* const call :
       {"getdents64:error=EIO", "readlink,readlinkat:error=ENOMEM", "open,openat:error=EMFILE"}) {
    for (int at = 1; at <= 10; ++at) {
      SCOPED_TRACE(testing::Message() << call << " " << at);
      write_file(kThirdPartList, command + " WEX_RESTART\n");  // anew: it is read, not remembered
      EXPECT_EQ(0, run_failing({std::string(call) + ":when=" + std::to_string(at)}, [&] {
                  char text[256] = "";
                  char word[256] = "";
                  int32_t found = 0;
                  snprintf(text, sizeof text, "%s", command.c_str());
                  const bool runs = wex_find_running(text, &found, record_of(command).get());
                  const bool listed = wex_proc_in_wexdb(kThirdPartList, text, word, sizeof word) == 1;
                  EXPECT_EQ(running.pid(), found);
                  return runs && listed ? 0 : 1;
                }));
    }
  }
}
