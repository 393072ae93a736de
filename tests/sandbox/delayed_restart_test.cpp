// Exits whose database file somebody still holds: postponed, carried out, forgotten.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <memory>

#include "handled_exits.h"
#include "restart_policy.h"
#include "wex.h"
#include "wex_chain.h"

using namespace policy;

namespace {

class Postponed : public WexWorld {
 protected:
  void SetUp() override {
    WexWorld::SetUp();
    ASSERT_TRUE(daemon_.start());
  }
  void TearDown() override {
    daemon_.kill_now();
    processes_.clear();
    WexWorld::TearDown();
  }

  static std::vector<std::string> options(const std::string& tag) { return {"--tag=" + tag, "--hold"}; }

  pid_t start(const std::string& tag) {
    processes_.push_back(std::make_unique<Process>());
    EXPECT_TRUE(processes_.back()->start(actor_words(options(tag))));
    const pid_t pid = wait_for_actor(options(tag));
    EXPECT_EQ(processes_.back()->pid(), pid);
    return pid;
  }

  void end(pid_t pid, int signal = SIGKILL) {
    send_signal(pid, signal);
    for (const auto& process : processes_) {
      if (process->pid() == pid) {
        process->wait();
      }
    }
  }

  static bool postponed(pid_t pid) {
    return console_says("wex_proc_restart_delay " + command_of_[pid] + "/" + std::to_string(pid) +
                        " receives event:") &&
           console_says("be lock file " + db_file("actor", pid) + ", ");
  }

  static std::string handed_over(pid_t pid, const char* signal = "0x9", int force = 0) {
    return "pid:" + std::to_string(pid) + ", exit_signal:" + signal +
           ", force_restart:" + std::to_string(force) + "\n";
  }

  static std::map<pid_t, std::string> command_of_;
  Daemon daemon_;
  std::vector<std::unique_ptr<Process>> processes_;
};
std::map<pid_t, std::string> Postponed::command_of_;

}  // namespace

TEST_F(Postponed, AHeldFileKeepsTheProgramDownUntilItIsReleased) {
  pid_t pid = start("held");
  command_of_[pid] = actor_command(options("held"));
  bool is_quick = false;
  for (size_t round = 0; round < 3 && !is_quick;
       ++round) {  // whoever else keeps the machine busy delays some
    Holder holder({pid});
    const auto ended = std::chrono::steady_clock::now();
    end(pid);
    ASSERT_TRUE(postponed(pid));
    // The first look postpones; two more are later passes of the delay thread.
    const std::string held = "]be lock file " + db_file("actor", pid) + ", ";
    EXPECT_TRUE(eventually([&] { return occurrences(read_console(), held) >= 3; }, 20s)) << read_console();
    is_quick = std::chrono::steady_clock::now() - ended <= 3500ms;
    EXPECT_EQ(round, occurrences(read_console(), "]wex_spawn--> wex_pid->process = ")) << read_console();
    holder.end();
    const auto released = std::chrono::steady_clock::now();
    const pid_t next = wait_for_actor(options("held"), pid, 20s);
    is_quick &= std::chrono::steady_clock::now() - released <= 2500ms;
    ASSERT_GT(next, 0) << read_console();
    EXPECT_TRUE(console_says(handed_over(pid), 20s));
    EXPECT_FALSE(exists(db_file("actor", pid)));
    command_of_[next] = command_of_[pid];
    pid = next;
  }
  EXPECT_TRUE(is_quick) << "looked at once a second";
}

TEST_F(Postponed, TheExitCodeSurvivesTheWait) {
  const pid_t pid = start("code");
  command_of_[pid] = actor_command(options("code"));
  Holder holder({pid});
  end(pid, SIGTERM);
  ASSERT_TRUE(postponed(pid));
  holder.end();
  EXPECT_TRUE(console_says(handed_over(pid, "0xf")));
  EXPECT_TRUE(eventually([&] { return !exists(db_file("actor", pid)); }));
  EXPECT_TRUE(stays_down(options("code"), pid)) << "stopped on purpose, though it took a while";
}

TEST_F(Postponed, ARegistrationWithdrawnMeanwhileMakesTheHandOverDoNothing) {
  const pid_t pid = start("withdrawn");
  command_of_[pid] = actor_command(options("withdrawn"));
  Holder holder({pid});
  end(pid);
  ASSERT_TRUE(postponed(pid));
  const pid_t canceller = fork();
  if (canceller == 0) {
    _exit(wex_cancel_proc(pid) == 0 ? 0 : 1);
  }
  int status = -1;
  waitpid(canceller, &status, 0);
  EXPECT_TRUE(exited_with(status, 0));
  EXPECT_TRUE(console_says(handed_over(pid))) << "a file that is gone counts as released";
  EXPECT_TRUE(stays_down(options("withdrawn"), pid));
}

TEST_F(Postponed, SeveralReadyOnesAreRestartedOneASecondInBucketOrder) {
  std::vector<pid_t> pids;
  for (const char* tag : {"one", "two", "three"}) {
    pids.push_back(start(tag));
    command_of_[pids.back()] = actor_command(options(tag));
  }
  Holder holder(pids);
  for (const pid_t pid : pids) {
    end(pid);
    ASSERT_TRUE(postponed(pid));
  }
  std::sort(pids.begin(), pids.end(), [](pid_t a, pid_t b) {
    return wex_hash_pid(static_cast<int32_t>(a)) < wex_hash_pid(static_cast<int32_t>(b));
  });
  // Counted from here: who is late to see one would take the next one for too early.
  auto earliest = std::chrono::steady_clock::now();
  holder.end();
  size_t last = 0;
  for (const pid_t pid : pids) {
    ASSERT_TRUE(console_says(handed_over(pid), 20s));
    EXPECT_LE(earliest, std::chrono::steady_clock::now()) << "not more than one a second";
    earliest += 1s;
    const size_t at = read_console().find(handed_over(pid));
    EXPECT_LT(last, at);
    last = at;
  }
}

TEST_F(Postponed, WhatWaitedIsSupervisedAsBefore) {
  const pid_t pid = start("after");
  command_of_[pid] = actor_command(options("after"));
  Holder holder({pid});
  end(pid);
  ASSERT_TRUE(postponed(pid));
  holder.end();
  const pid_t second = wait_for_actor(options("after"), pid);
  ASSERT_NE(0, second);
  send_signal(second, SIGKILL);
  EXPECT_NE(0, wait_for_actor(options("after"), second));
}
