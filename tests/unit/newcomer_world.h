// newcomer_world: what the tests share of programs whose dead pid another process has got.
#pragma once

#include <sys/resource.h>

#include <optional>

#include "hand_over_world.h"
#include "hash_links.h"
#include "wex_chain_rebuild.h"
#include "wex_core_delay.h"
#include "wex_core_exit.h"
#include "wex_msg.h"
#include "wex_pidfile.h"

namespace newcomer_world {

using namespace hand_over_world;

// Every file can be made, and nothing be written into it.
class no_room_in_files {
 public:
  no_room_in_files() {
    before_ = signal(SIGXFSZ, SIG_IGN);
    EXPECT_EQ(0, getrlimit(RLIMIT_FSIZE, &limit_));
    const rlimit nothing = {0, limit_.rlim_max};
    EXPECT_EQ(0, setrlimit(RLIMIT_FSIZE, &nothing));
  }
  ~no_room_in_files() {
    setrlimit(RLIMIT_FSIZE, &limit_);
    signal(SIGXFSZ, before_);
  }
  no_room_in_files(const no_room_in_files&) = delete;
  no_room_in_files& operator=(const no_room_in_files&) = delete;

 private:
  rlimit limit_ = {};
  void (*before_)(int) = nullptr;
};

// A program waits with the pid of a dead process, which a living one has got.
class HandOverBesideNewcomer : public HandOver {
 protected:
  void SetUp() override {
    HandOver::SetUp();
    next_.emplace("4711");
    rec_ = died(park_at(900, next_->program.c_str()));
    const std::vector<std::string> words = newcomers_words();
    ASSERT_TRUE(newcomer_process_.start(words));
    newcomer_pid_ = newcomer_process_.pid();
    // The kernel knows the words of a program a little later than its path.
    ASSERT_TRUE(eventually(
        [&] { return program_of(newcomer_pid_) == words[0] && !command_line(newcomer_pid_).empty(); }));
    {
      chain_lock hold(wex_chains);
      __wex_adopt_pid(&wex_chains, rec_, newcomer_pid_);
      rec_->start_time = kSomeStart;
    }
    file_ = db_file(newcomer_pid_, next_->program.c_str());
    write_file(file_, std::to_string(newcomer_pid_) + "\n2\n" + next_->program);
    wex_handle_netlink_exit(newcomer_pid_, 9, 0);
    ASSERT_TRUE(waits(rec_, newcomer_pid_));
  }
  void TearDown() override {
    newcomer_process_.kill_now();
    next_->process.kill_now();
    unlink(newcomers_file_.c_str());
    HandOver::TearDown();
  }
  // Of the same name, and so is its file.
  virtual std::vector<std::string> newcomers_words() { return {path_of_sleep(), "3000"}; }

  void make_newcomers_file(int32_t domain = 0) {
    const std::string command = command_line(newcomer_pid_);
    newcomers_file_ = db_file(newcomer_pid_, command.c_str(), domain);
    write_file(newcomers_file_, std::to_string(newcomer_pid_) + "\n2\n" + command);
  }
  void newcomer_registers(int32_t domain = 0) {
    make_newcomers_file(domain);
    newcomer_says(domain);
  }
  // Without room for another file nobody gives up the pid.
  void newcomer_registers_on_full_disk() {
    make_newcomers_file();
    const no_room_in_files full;
    newcomer_says(0);
  }
  void newcomer_says(int32_t domain) {
    wex_reg_info body = {};
    body.pid = newcomer_pid_;
    body.vsd = domain;
    ASSERT_EQ(0, wex_process_restart(&body));
    chain_lock hold(wex_chains);
    newcomer_ = __wex_find_pid(&wex_chains, newcomer_pid_);
    ASSERT_NE(rec_, newcomer_);
  }
  void newcomer_of_domain_registers() {
    ASSERT_EQ(0, system("mkdir -p /tmp/vsd/5/wex/db /data/var/run/vsd/5"));
    flag_ = "/tmp/vsd/5/wex/" + std::to_string(newcomer_pid_);
    write_file(flag_, "");
    newcomer_registers(5);
  }
  bool newcomer_is_there() const {
    chain_lock hold(wex_chains);
    return newcomer_ != nullptr && __wex_find_pid(&wex_chains, newcomer_pid_) == newcomer_ &&
           exists(newcomers_file_);
  }
  void newcomer_is_listed() const {
    write_file(kThirdPartList, read_file(kThirdPartList) + command_line(newcomer_pid_) + " WEX_RESTART\n");
  }
  // The next daemon is to know the program that waits as well as the newcomer.
  void expect_files_of_both() {
    EXPECT_LT(rec_->pid, -1);
    EXPECT_EQ(std::to_string(rec_->pid) + "\n2\n" + next_->program,
              read_file(db_file(rec_->pid, next_->program.c_str())));
    const std::string command = command_line(newcomer_pid_);
    EXPECT_EQ(std::to_string(newcomer_pid_) + "\n2\n" + command,
              read_file(db_file(newcomer_pid_, command.c_str())));
    const std::string program = next_->program;
    next_->die();
    {
      chain_lock hold(wex_chains);
      wex_db_destroy(__wex_find_pid(&wex_chains, newcomer_pid_));  // with the lock, which ends with a daemon
    }
    make_newcomers_file();
    wex_destroy_chains(&wex_chains);
    EXPECT_EQ(0, wex_rebuild_chains(&wex_chains));
    EXPECT_TRUE(eventually([&] { return !pids_with_command(program).empty(); }));
    EXPECT_EQ(1u, pids_with_command(program).size());
    EXPECT_EQ("", numbered_files());
    EXPECT_TRUE(registered(newcomer_pid_));
    EXPECT_EQ(2, wex_chains.count);
  }
  static std::string numbered_files() {
    return read_command_output("ls /tmp/vsd/0/wex/db | grep '[.]-' | tr -d '\\n'");
  }
  static std::string read_command_output(const char* command) {
    EXPECT_NE(-1, system((std::string(command) + " > /tmp/said").c_str()));
    const std::string said = read_file("/tmp/said");
    unlink("/tmp/said");
    return said;
  }

  std::optional<detached> next_;
  wex_pid* rec_ = nullptr;
  std::string file_;
  Process newcomer_process_;
  pid_t newcomer_pid_ = 0;
  wex_pid* newcomer_ = nullptr;
  std::string newcomers_file_;
  std::string flag_;  // that of its domain
};

class HandOverBesideNewcomerOfAnotherName : public HandOverBesideNewcomer {
 protected:
  // It was started too often when the process that it waited for has ended.
  void expect_file_of_parked() {
    be_roots(rec_);
    rec_->check_count = 5;
    rec_->check_start = g_now;
    rec_->flags |= WEX_FLAG_SELF_CHECKING;
    next_->die();
    sweep_when_due();
    ASSERT_EQ(1, rec_->alarm_wait_flag);
    ASSERT_EQ(newcomer_pid_, rec_->pid);
    ASSERT_TRUE(exists(file_));
    newcomer_registers();
    EXPECT_LT(rec_->pid, -1);
    EXPECT_NE("", numbered_files()) << "no daemon will know of it";
    EXPECT_TRUE(newcomer_is_there());
    alarm(0);
    system("rm -f /tmp/vsd/0/wex/db/*");
  }

 private:
  std::vector<std::string> newcomers_words() override {
    char path[kPathSize] = "";
    EXPECT_NE(nullptr, realpath("/usr/bin/tail", path));
    return {path, "-f", "/dev/null"};
  }
};

struct EndedWait : HandOverBesideNewcomer {
  // Another program that has no process any more.
  static wex_pid* without_process() {
    wex_pid* const other = died(park_at(900, "/bin/sleep 5000"));
    other->start_time = kStartOfNobody;
    unlink(db_file(other->pid, other->process).c_str());
    return other;
  }
  // The wait of the program has just ended when a newcomer takes its pid; the other one has a number already.
  void expect_started_beside(wex_pid* other, int32_t* number) {
    make_newcomers_file();
    child owner([&] { return wex_db_create(0, newcomer_pid_, RESPAWN, "/bin/sleep 3000") == 0; });
    ASSERT_TRUE(owner.ready());
    next_->die();
    wex_handle_lost_exit(newcomer_pid_, 0, kStartOfNobody);
    ASSERT_EQ(1, rec_->exit_seen);
    g_now += kForceRestartSec;
    ready_restart ready = {};
    ASSERT_TRUE(wex_take_ready_restart(&ready));
    newcomer_registers();
    {
      chain_lock hold(wex_chains);
      EXPECT_LT(rec_->pid, -1);
      do {  // one that is walked through first
        --*number;
      } while (wex_hash_pid(*number) > wex_hash_pid(rec_->pid) || *number == rec_->pid);
      hlist_del(&other->hnode);
      other->pid = *number;
      link_at_head(&wex_chains.heads[wex_hash_pid(*number)], &other->hnode);
    }
    wex_hand_back_restart(ready);
    expect_started(rec_, newcomer_pid_);
  }
};

}  // namespace newcomer_world
