// status_world: a registry of a few records and the status table that the daemon makes of it, with
// milliseconds that pass as a case wants them. The image belongs to the process and is never emptied: a case
// works in a child of its own.
#pragma once

#include <atomic>

#include "chain_lock.h"
#include "status_reader.h"
#include "text_buffer.h"
#include "unit_support.h"
#include "wex_chain.h"
#include "wex_limits.h"
#include "wex_paths.h"
#include "wex_status_file.h"
#include "wex_status_image.h"

namespace status {

inline std::atomic<int32_t> clock_ahead{0};  // ms; 32-bit MIPS has no wider atomic number

inline void a_minute_passes() {
  clock_ahead += 60000;
}

}  // namespace status

// In place of the product's milliseconds. One source file of a test program includes this header.
extern "C" int64_t __real__Z12wex_clock_msv();
extern "C" int64_t __wrap__Z12wex_clock_msv() {
  return __real__Z12wex_clock_msv() + status::clock_ahead;
}

namespace status {

using namespace unit;

constexpr char kRunningLogDir[] = "/ovix/vsd/0/utils/wex";

class StatusTable : public Sandboxed {
 protected:
  void SetUp() override {
    Sandboxed::SetUp();
    make_dirs(kRunningLogDir);
  }
  void TearDown() override {
    remove_tree("/ovix");
    Sandboxed::TearDown();
  }
  static std::string running_log() { return read_file(kRunningLog1); }
};

inline wex_pid* add(int32_t pid, const char* process = "/usr/bin/service -a 1") {
  wex_pid* const rec = wex_new_record();
  rec->pid = pid;
  rec->vsd = 3;
  rec->action = RESPAWN;
  wex_copy_text(rec->process, sizeof rec->process, process);
  const chain_lock hold(wex_chains);
  __wex_add_record(&wex_chains, rec);
  return rec;
}

inline void drop(wex_pid* rec) {
  const chain_lock hold(wex_chains);
  __wex_drop_record(&wex_chains, rec);
}

inline void start() {
  wex_init_chains(&wex_chains);
  wex_status_open();
}

}  // namespace status
