// What the tests of control messages share: a registry with living processes and the real files.
#pragma once

#include "chain_lock.h"
#include "control_peer.h"
#include "leak_gate.h"
#include "verify_chain.h"
#include "wex_chain.h"
#include "wex_msg.h"
#include "wex_pidfile.h"
#include "wex_sys_alive.h"

namespace msg_world {

using namespace control;

// The table of this process is mapped until its end, and the pipe of its guarded copies stays.
const leaves_behind kTable(kDescriptors, "/dev/shm/", 2, "the table stays mapped");
const leaves_behind kGuard(kDescriptors, "pipe:", 2, "the pipe of the guarded copies stays");
const leaves_behind kHeldFiles(kDescriptors, "/wex/db/", 1, "registered third parts are not taken back");

class Registry : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(
        0, system("mkdir -p /tmp/vsd/0/wex/db /tmp/vsd/3/wex/db /tmp/wex /ovix/vsd/0/utils/wex &&"
                  "rm -f /tmp/vsd/*/wex/db/* /tmp/vsd/3/wex/* 2>/dev/null; rm -f /ovix/vsd/0/utils/wex/*"));
    for (wex_chains_t* chain : {&wex_chains, &wex_alive_chains, &wex_chains_delay}) {
      ASSERT_EQ(0, wex_init_chains(chain));
    }
    ASSERT_EQ(0, wex_sys_init_alive_info(1));
  }
  void TearDown() override {
    verify_chain(wex_chains);
    verify_chain(wex_alive_chains);
    for (wex_chains_t* chain : {&wex_chains, &wex_alive_chains, &wex_chains_delay}) {
      wex_destroy_chains(chain);
    }
  }

  // The first record of a pid. Nothing else runs here, so it may be looked at without the lock.
  static wex_pid* find(wex_chains_t& chain, int32_t pid) {
    const chain_lock hold(chain);
    return __wex_find_pid(&chain, pid);
  }
  static wex_pid* add(wex_chains_t& chain, int32_t pid, const char* process = "/bin/none") {
    wex_pid* const rec = wex_new_record();
    rec->pid = pid;
    strcpy(rec->process, process);
    const chain_lock hold(chain);
    __wex_add_record(&chain, rec);
    return rec;
  }
  static std::string program_of(const std::string& command) {
    const std::string path = command.substr(0, command.find(' '));
    return path.substr(path.rfind('/') + 1);
  }
  static std::string db_file(int32_t vsd, const sleeper& process) {
    return text_of(kDbFileFmt, vsd, program_of(process.command()).c_str(), process.pid());
  }
};

inline wex_reg_info body_of(int32_t pid, int32_t vsd = 0, int32_t delay = 0) {
  wex_reg_info body = {};
  body.pid = pid;
  body.vsd = vsd;
  body.restart_delay = delay;
  return body;
}

inline wex_reg_info thread_body(int32_t tid, int32_t count, int32_t left, int32_t period, int32_t elapsed) {
  wex_reg_info body = {};
  body.pid = tid;
  body.ppid = getpid();
  body.ntfy_cnt = count;
  body.cur_cnt = left;
  body.ntfy_time = period;
  body.cur_ntfy_time = elapsed;
  return body;
}

inline void expect_counters(const wex_pid* rec, int32_t count, int32_t left, int32_t period,
                            int32_t elapsed) {
  ASSERT_NE(nullptr, rec);
  EXPECT_EQ(count, rec->notify_info[WEX_NTFY_CNT]);
  EXPECT_EQ(left, rec->notify_info[WEX_CUR_CNT]);
  EXPECT_EQ(period, rec->notify_info[WEX_NTFY_TIME]);
  EXPECT_EQ(elapsed, rec->notify_info[WEX_CUR_NTFY_TIME]);
}

inline int32_t end_of_a_pid() {  // a pid that was there and is no more
  const pid_t pid = start_child([] { return 0; });
  EXPECT_EQ(0, exit_status(pid));
  return pid;
}

}  // namespace msg_world
