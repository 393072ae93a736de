// wex_chain: the dumps of a chain, to the console and to the system log.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstdarg>
#include <thread>

#include "chain_lock.h"
#include "failing_allocator.h"
#include "registry_files.h"
#include "wex_chain.h"
#include "wex_platform.h"

using namespace registry;

namespace {

constexpr size_t kSystemLogged = 512;

// Kept without asking for memory, for one case has none.
char system_log[kSystemLogged][256];
size_t system_logged = 0;

}  // namespace

extern "C" void qx_syslog(int priority, const char* format, ...) {
  if (system_logged == kSystemLogged) {
    return;
  }
  char* const line = system_log[system_logged++];
  const int used = snprintf(line, sizeof system_log[0], "%d:", priority);
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(line + used, sizeof system_log[0] - static_cast<size_t>(used), format, arguments);
  va_end(arguments);
}

namespace {

class Dump : public RegistryWorld {
 protected:
  void SetUp() override {
    RegistryWorld::SetUp();
    for (wex_chains_t* chain : {&wex_chains, &wex_chains_delay}) {
      ASSERT_EQ(0, wex_init_chains(chain));
    }
    system_logged = 0;
  }
  void TearDown() override {
    for (wex_chains_t* chain : {&wex_chains, &wex_chains_delay}) {
      EXPECT_EQ(0, wex_destroy_chains(chain));
    }
    RegistryWorld::TearDown();
  }
  static wex_pid* add(int pid, const char* process, int vsd = 0) {
    wex_pid* const rec = wex_new_record();
    rec->pid = pid;
    rec->vsd = vsd;
    rec->action = RESPAWN;
    snprintf(rec->process, sizeof rec->process, "%s", process);
    chain_lock hold(wex_chains);
    __wex_add_record(&wex_chains, rec);
    return rec;
  }
  static void fill(int records, size_t length) {
    for (int pid = 1; pid <= records; ++pid) {
      add(pid, std::string(length, 'x').c_str());
    }
  }
};

// What `work` leaves on the console in a process that gets no more memory than it has.
std::string printed_without_memory(const std::function<void()>& work) {
  const captured_output output;
  const pid_t child = fork();
  if (child == 0) {
    const rlimit limit = {1 << 20, 1 << 20};
    const bool limited = setrlimit(RLIMIT_AS, &limit) == 0;
    for (int block = 0; block < 2048 && malloc(65536) != nullptr; ++block) {  // what other cases left behind
    }
    work();
    _exit(limited ? 0 : 1);
  }
  int status = -1;
  EXPECT_EQ(child, waitpid(child, &status, 0));
  EXPECT_EQ(0, status);
  return output.text();
}

// The number of lines that a dump in `text` says it lost; -1 unless it says so once, at the end.
int lost_in(const std::string& text, const std::string& dump) {
  const std::vector<std::string> found =
      wex_test::groups_of(text, "\\[wex_chain\\]" + dump + ": no memory for ([0-9]+) lines\n$");
  const size_t first = text.find("no memory");
  return first != std::string::npos && first == text.rfind("no memory") && !found.empty()
             ? std::stoi(found[1])
             : -1;
}

}  // namespace

TEST_F(Dump, HasAHeadingByKindACountAndALineARecord) {
  wex_pid* const rec = add(812, "/usr/sbin/foo -d", 3);
  snprintf(rec->script, sizeof rec->script, "myrestart a b");
  wex_pid* const wide = add(1234567, "%s%n", 15);
  wide->action = -7;
  const std::string body = wex_hash_pid(812) < wex_hash_pid(1234567)
                               ? "pid: 812   , vsd: 3 , regact: 2, pname:  /usr/sbin/foo -d, myrestart a b\n"
                                 "pid: 1234567, vsd: 15, regact: -7, pname:  %s%n, \n"
                               : "pid: 1234567, vsd: 15, regact: -7, pname:  %s%n, \n"
                                 "pid: 812   , vsd: 3 , regact: 2, pname:  /usr/sbin/foo -d, myrestart a b\n";
  const struct {
    int kind;
    const char* heading;
  } rows[] = {{0, "register restart in wex:\n"},
              {1, "register hang in wex:\n"},
              {2, "delay restart in wex:\n"},
              {3, ""},
              {-1, ""}};
  for (const auto& row : rows) {
    captured_output output;
    EXPECT_EQ(0, wex_print_chains(row.kind, &wex_chains));
    EXPECT_EQ(row.heading + std::string("node num:2\n") + body, output.raw()) << row.kind;
  }
}

TEST_F(Dump, OfAnEmptyChainHasNoRecordLines) {
  captured_output output;
  EXPECT_EQ(0, wex_print_chains(2, &wex_chains_delay));
  EXPECT_EQ("delay restart in wex:\nnode num:0\n", output.raw());
}

TEST_F(Dump, PrintsAtEveryDiagnosticLevel) {
  captured_output output;
  g_wex_dbg_level[WEX_DBG_PUB] = WEX_DBG_SILENT;
  EXPECT_EQ(0, wex_print_chains(0, &wex_chains));
  EXPECT_EQ("register restart in wex:\nnode num:0\n", output.raw());
}

TEST_F(Dump, SystemLogGetsOneEntryALineAtPriority6) {
  add(812, "/a/%s")->vsd = 1;
  EXPECT_EQ(0, wex_syslog_chains(1, &wex_chains));
  ASSERT_EQ(3U, system_logged);
  EXPECT_STREQ("6:register hang in wex:\n", system_log[0]);
  EXPECT_STREQ("6:node num:1\n", system_log[1]);
  EXPECT_STREQ("6:pid: 812   , vsd: 1 , regact: 2, pname:  /a/%s, \n", system_log[2]);
}

TEST_F(Dump, LongestTextsAreDumpedWhole) {
  wex_pid* const rec = add(1, std::string(WEX_PROCESS_SIZE - 1, 'p').c_str());
  memset(rec->script, 's', sizeof rec->script - 1);
  captured_output output;
  wex_print_chains(7, &wex_chains);
  EXPECT_EQ("node num:1\npid: 1     , vsd: 0 , regact: 2, pname:  " + std::string(4095, 'p') + ", " +
                std::string(255, 's') + "\n",
            output.raw());
}

TEST_F(Dump, ConsoleThatStandsStillDoesNotHoldTheChain) {
  fill(64, 4000);
  int line[2];
  ASSERT_EQ(0, pipe2(line, O_CLOEXEC));
  fflush(stdout);
  const int kept = dup(STDOUT_FILENO);
  dup2(line[1], STDOUT_FILENO);
  std::thread dumper([] { wex_print_chains(0, &wex_chains); });
  char first = 0;
  ASSERT_EQ(1, read(line[0], &first, 1));  // it writes now, and there is more than the pipe holds
  const int free_now = pthread_mutex_trylock(&wex_chains.mutex);
  if (free_now == 0) {
    pthread_mutex_unlock(&wex_chains.mutex);
  }
  std::string text(1, first);
  char chunk[4096];
  ssize_t got = 1;
  while (got > 0 && std::count(text.begin(), text.end(), '\n') < 66) {
    got = read(line[0], chunk, sizeof chunk);
    text.append(chunk, got > 0 ? static_cast<size_t>(got) : 0);
  }
  dumper.join();
  dup2(kept, STDOUT_FILENO);
  for (const int fd : {kept, line[0], line[1]}) {
    close(fd);
  }
  EXPECT_EQ(0, free_now) << "the chain was held while the console was written";
  EXPECT_EQ(66, std::count(text.begin(), text.end(), '\n'));
}

TEST_F(Dump, ThatLosesLinesForWantOfMemorySaysSoOnce) {
  fill(200, 4000);
  const std::string text = printed_without_memory([] { wex_print_chains(0, &wex_chains); });
  const int lost = lost_in(text, "wex_print_chains");
  EXPECT_GT(lost, 0) << text.substr(text.size() < 200 ? 0 : text.size() - 200);
  EXPECT_EQ(2 + 200 - lost + 1, std::count(text.begin(), text.end(), '\n'));
}

TEST_F(Dump, ThatLosesLinesOfTheSystemLogSaysSoOnTheConsole) {
  fill(200, 4000);
  const std::string text = printed_without_memory([] {
    wex_syslog_chains(0, &wex_chains);
    printf("%zu\n", system_logged);
    fflush(stdout);
  });
  const size_t last = text.rfind('\n', text.size() - 2) + 1;
  const int lost = lost_in(text.substr(0, last), "wex_syslog_chains");
  EXPECT_GT(lost, 0) << text;
  EXPECT_EQ(2 + 200 - lost, std::stoi(text.substr(last)));
}

TEST_F(Dump, ThatIsWholeSaysNothingMore) {
  fill(200, 4000);
  captured_output output;
  EXPECT_EQ(0, wex_syslog_chains(0, &wex_chains));
  EXPECT_EQ("", output.text());
  EXPECT_EQ(202U, system_logged);
}
