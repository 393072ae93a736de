// wex_black_box: what is on the disk after a reboot, and after a hang.
#include "wex_black_box.h"

#include <sys/mount.h>
#include <sys/prctl.h>

#include <algorithm>
#include <atomic>
#include <mutex>

#include "chain_lock.h"
#include "failing_calls.h"
#include "text_buffer.h"
#include "unit_support.h"
#include "wex_chain.h"
#include "wex_limits.h"
#include "wex_log.h"
#include "wex_paths.h"
#include "wex_status_image.h"

using namespace unit;

// The second before a reboot that is refused here.
extern "C" void __wrap_safe_sleep(unsigned) {}

// What was put on the disk, in this order, and what it waits for before the history.
std::mutex synced_guard;
std::string synced;
std::atomic<bool> disk_stands_still{false};

extern "C" int __real_fsync(int fd);
extern "C" int __wrap_fsync(int fd) {
  char path[256] = "";
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  if (readlink(link.c_str(), path, sizeof path - 1) > 0) {
    {
      const std::lock_guard<std::mutex> hold(synced_guard);
      synced += std::string(path) + " ";
    }
    while (disk_stands_still && strcmp(path, kHistory) == 0) {
      usleep(1000);
    }
  }
  return __real_fsync(fd);
}

namespace {

std::string on_disk() {
  const std::lock_guard<std::mutex> hold(synced_guard);
  return synced;
}

// The image belongs to the process: a case works in a child of its own.
class BlackBox : public Sandboxed {};

wex_pid* add(int32_t pid, const char* process) {
  wex_pid* const rec = wex_new_record();
  rec->pid = pid;
  rec->vsd = 3;
  rec->exit_signal = 139;
  wex_copy_text(rec->process, sizeof rec->process, process);
  const chain_lock hold(wex_chains);
  __wex_add_record(&wex_chains, rec);
  return rec;
}

std::string text(int number) {
  return std::to_string(number);
}

}  // namespace

TEST_F(BlackBox, ARebootIsPrecededByTheLastEventsAndTheParkedPrograms) {
  in_child([] {
    wex_init_chains(&wex_chains);
    wex_status_begin(1, 0);
    wex_status_set_clock();
    wex_pid* const rec = add(100, "/usr/bin/loop\033[2J -a");
    for (int i = 0; i < 100; ++i) {
      wex_status_tell(WEX_STATUS_EV_EXITED, rec, {0, 0, 139, i});
    }
    wex_status_tell(WEX_STATUS_EV_PARKED, rec, {0, 0, 139, 300});
    wex_reboot("detect process /usr/bin/loop can not restart, so restart system.\n", nullptr);
    const std::vector<std::string> lines = lines_of(read_file(kHistory));
    ASSERT_EQ(66U, lines.size()) << read_file(kHistory);
    const std::string stamp = "[0-9]{4}/[0-9]{2}/[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}.[0-9]{3} ";
    EXPECT_TRUE(
        matches(lines[0], stamp + "wex restarts the device: detect process /usr/bin/loop can not restart, "
                                  "so restart system."))
        << lines[0];
    EXPECT_TRUE(matches(lines[1], stamp + "exited loop\\?\\[2J pid 100 to 0 domain 3 exit 008b value 38"))
        << lines[1];
    EXPECT_TRUE(matches(lines[63], stamp + "parked loop\\?\\[2J pid 100 to 0 domain 3 exit 008b value 300"))
        << lines[63];
    EXPECT_TRUE(matches(lines[64], stamp + "reboot_asked  pid 0 to 0 domain 0 exit 0000 value 1"))
        << lines[64];
    EXPECT_TRUE(matches(
        lines[65], "parked: loop\\?\\[2J pid 100 domain 3 restarts 0 exit 008b tried again in (299|300) s"))
        << lines[65];
    EXPECT_EQ(0600U, mode_of(kHistory));
    EXPECT_NE("", read_file(kRebootLog));
  });
}

TEST_F(BlackBox, NothingIsKeptInAFileThatOthersMayRead) {
  in_child([] {
    wex_init_chains(&wex_chains);
    wex_status_begin(1, 0);
    for (const bool strangers : {true, false}) {
      write_file(kHistory, "planted", 0666);
      if (strangers) {
        ASSERT_EQ(0, chown(kHistory, 1000, 1000));
      }
      wex_keep_history("why");
      struct stat facts = {};
      ASSERT_EQ(0, stat(kHistory, &facts));
      EXPECT_EQ(0U, facts.st_uid);
      EXPECT_EQ(0600U, facts.st_mode & 0777);
      EXPECT_EQ(std::string::npos, read_file(kHistory).find("planted"));
      EXPECT_NE(std::string::npos, read_file(kHistory).find("why"));
      unlink(kHistory);
    }
  });
}

TEST_F(BlackBox, ADirectoryInTheWayOfTheOldFileStopsNothing) {
  in_child([] {
    wex_init_chains(&wex_chains);
    wex_status_begin(1, 0);
    write_file(kHistory, std::string(32700, '.'), 0600);
    make_dirs(std::string(kHistoryOld) + "/full");
    wex_keep_history("number 2");
    EXPECT_NE(std::string::npos, read_file(kHistory).find("number 2"));
  });
}

TEST_F(BlackBox, TheHistoryIsBoundedToTwoFiles) {
  in_child([] {
    wex_init_chains(&wex_chains);
    wex_status_begin(1, 0);
    wex_pid* const rec = add(100, "/usr/bin/loop");
    for (int i = 0; i < 100; ++i) {
      wex_status_tell(WEX_STATUS_EV_EXITED, rec);
    }
    for (int reboot = 0; reboot < 30; ++reboot) {
      wex_keep_history(("number " + text(reboot)).c_str());
    }
    EXPECT_LE(read_file(kHistory).size(), 32768U);
    EXPECT_LE(read_file(kHistoryOld).size(), 32768U);
    EXPECT_GT(read_file(kHistoryOld).size(), 16000U);
    EXPECT_NE(std::string::npos, read_file(kHistory).find("number 29\n"));
    EXPECT_EQ(2U, list_dir("/data").size());
  });
}

TEST_F(BlackBox, AFileThatIsLargerThanAnyOfOursIsNotKept) {
  in_child([] {
    wex_init_chains(&wex_chains);
    wex_status_begin(1, 0);
    write_file(kHistory, std::string(100000, 'x'), 0600);
    wex_keep_history("why");
    EXPECT_LT(read_file(kHistory).size(), 1000U);
    EXPECT_FALSE(exists(kHistoryOld));
  });
}

TEST_F(BlackBox, WhateverIsWrongWithItsFilesTheRebootRecordIsWritten) {
  const struct {
    const char* name;
    std::function<void()> make;
  } rows[] = {
      {"link",
       [] {
         EXPECT_EQ(0, symlink("/tmp/victim", kHistory));
         EXPECT_EQ(0, lchown(kHistory, kOtherUser, kOtherUser));
       }},
      {"directory", [] { make_dirs(kHistory); }},
      {"FIFO", [] { EXPECT_EQ(0, mkfifo(kHistory, 0666)); }},
      {"full disk", [] { EXPECT_EQ(0, mount("small", "/data", "tmpfs", 0, "nr_blocks=8")); }},
      {"too long",
       [] { write_file(kHistory, std::string(100000, 'x')), make_dirs(std::string(kHistoryOld) + "/x"); }},
  };
  write_file("/tmp/victim", "precious");
  for (const auto& row : rows) {
    row.make();
    in_child([&] {
      wex_init_chains(&wex_chains);
      wex_reboot("because\n", nullptr);
      EXPECT_NE(std::string::npos, read_file(kRebootLog).find(" because\n")) << row.name;
      EXPECT_EQ("precious", read_file("/tmp/victim")) << row.name;
    });
    EXPECT_FALSE(row.name == std::string("full disk") && exists(kHistory));
    if (row.name == std::string("full disk")) {
      EXPECT_EQ(0, umount("/data"));
    }
    for (const std::string& name : list_dir("/data")) {
      remove_tree("/data/" + name);
    }
  }
}

TEST_F(BlackBox, ANewHistoryIsOnTheDiskBeforeTheRebootRecordIsWritten) {
  in_child([] {
    wex_init_chains(&wex_chains);
    wex_status_begin(1, 0);
    wex_reboot("because\n", nullptr);
    EXPECT_EQ(0U, on_disk().find("/data/.wex_history /data /data/.wex_reboot ")) << on_disk();
    synced.clear();
    wex_keep_history("again");
    EXPECT_EQ("/data/.wex_history ", on_disk()) << "its name is there";
    synced.clear();
    write_file(kHistory, std::string(32700, '.'), 0600);
    wex_keep_history("turned");
    EXPECT_EQ("/data/.wex_history /data ", on_disk());
  });
}

TEST_F(BlackBox, ADiskThatStandsStillKeepsNobodyFromTheReboot) {
  in_child([] {
    wex_init_chains(&wex_chains);
    wex_status_begin(1, 0);
    disk_stands_still = true;
    wex_reboot("first\n", nullptr);
    EXPECT_NE(std::string::npos, read_file(kRebootLog).find(" first\n"));
    wex_reboot("second\n", nullptr);
    EXPECT_NE(std::string::npos, read_file(kRebootLog).find(" second\n"));
    EXPECT_EQ(std::string::npos, read_file(kHistory).find("second")) << "the first is still being written";
    disk_stands_still = false;
    EXPECT_TRUE(eventually(
        [] {
          wex_keep_history("third");
          return read_file(kHistory).find("third") != std::string::npos;
        },
        20s));
    EXPECT_NE(std::string::npos, read_file(kHistory).find("first"));
  });
}

// The running log's line of a reboot is written by a thread of its own, too, and somebody else may be stuck
// there already, with the log's lock.
TEST_F(BlackBox, ARunningLogWhoseDiskStandsStillKeepsNobodyFromTheReboot) {
  const std::string log = kRunningLog1;
  make_dirs(log.substr(0, log.rfind('/')));
  unlink(kRunningLog1);
  EXPECT_EQ(0, run_with_stuck_file(log, [] {
              wex_init_chains(&wex_chains);
              wex_status_begin(1, 0);
              wex_reboot("first\n", nullptr);
              EXPECT_NE(std::string::npos, read_file(kRebootLog).find(" first\n"));
              std::thread([] { wex_running_log("another line\n"); }).detach();
              wex_reboot("second\n", nullptr);
              EXPECT_NE(std::string::npos, read_file(kRebootLog).find(" second\n"));
              EXPECT_NE(std::string::npos, read_file(kHistory).find("second"));
              EXPECT_FALSE(exists(kRunningLog1)) << "its disk did move";
              return 0;
            }));
}

// A parked program that got its place in the table late may be shown without the end of its waiting.
TEST_F(BlackBox, AParkingWhoseEndIsNotKnownIsToldWithoutATime) {
  in_child([] {
    wex_init_chains(&wex_chains);
    wex_status_begin(1, 0);
    wex_pid* const rec = wex_new_record();
    rec->pid = 100;
    wex_copy_text(rec->process, sizeof rec->process, "/usr/bin/loop");
    wex_status_show_later(rec, WEX_STATUS_PARKED, {});
    wex_keep_history("why");
    EXPECT_EQ("parked: loop pid 100 domain 0 restarts 0 exit 0000", lines_of(read_file(kHistory)).back());
    wex_free_record(rec);
  });
}

// Parked programs are told one by one as far as they are shown and as there is room for them; of the others
// it is said how many there are.
TEST_F(BlackBox, ParkedProgramsThatAreLeftOutAreCounted) {
  const struct {
    int parked;
    uint32_t hidden;
    size_t told;
    const char* last;
  } rows[] = {
      {2, 0, 2, "parked: loop pid 101 domain 3 restarts 0 exit 0000 tried again in (299|300) s"},
      {64, 0, 64, "parked: loop pid 163 domain 3 restarts 0 exit 0000 tried again in (299|300) s"},
      {66, 0, 64,
       "left out: 2 parked programs, and 0 parked, postponed or down ones that the table has no "
       "room for"},
      {2, 3, 2,
       "left out: 0 parked programs, and 3 parked, postponed or down ones that the table has no "
       "room for"},
  };
  for (const auto& row : rows) {
    in_child([&] {
      wex_init_chains(&wex_chains);
      wex_status_begin(1, 0);
      for (int i = 0; i < row.parked; ++i) {
        wex_status_tell(WEX_STATUS_EV_PARKED, add(100 + i, "/usr/bin/loop"), {0, 0, 139, 300});
      }
      wex_status_hidden_troubles(row.hidden);
      wex_keep_history("why");
      const std::string written = read_file(kHistory);
      EXPECT_EQ(row.told, occurrences(written, "\nparked: loop pid ")) << written;
      EXPECT_TRUE(matches(lines_of(written).back(), row.last)) << written;
    });
    unlink(kHistory);
  }
}

TEST_F(BlackBox, WithoutAnotherRebootNothingIsWritten) {
  for (const char* const forbids : {kRebootSwitch, kNoReboot}) {
    write_file(forbids, "0\n");
    in_child([] {
      wex_init_chains(&wex_chains);
      wex_reboot("because\n", nullptr);
      EXPECT_TRUE(list_dir("/data").empty());
    });
    unlink(forbids);
  }
}

TEST_F(BlackBox, EachThreadOfAHungProcessIsDescribed) {
  child hung([] {
    timespec used = {};
    while (used.tv_nsec < 150000000 && used.tv_sec == 0) {
      clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
    }
    for (int i = 0; i < 2; ++i) {
      std::thread([] {
        prctl(PR_SET_NAME, "second\nthread");
        pause();
      }).detach();
    }
    return true;
  });
  ASSERT_TRUE(hung.ready());
  const std::string tasks = "/proc/" + text(hung.pid()) + "/task";
  ASSERT_TRUE(eventually([&] {
    size_t named = 0;
    for (const std::string& tid : list_dir(tasks)) {
      named += read_file(tasks + "/" + tid + "/comm").find("second") == 0 &&
               read_file(tasks + "/" + tid + "/syscall").find("running") == std::string::npos;
    }
    return named == 2;
  }));
  static int32_t watched;
  watched = hung.pid();
  wex_look_at_hung(hung.pid(), hung.pid());
  wex_note_watched([](int32_t tid) { return tid == watched; });
  wex_keep_hung();
  const std::string written = read_file(kHung);
  EXPECT_NE(std::string::npos,
            written.find(" process " + text(hung.pid()) + ", thread " + text(hung.pid()) +
                         " hung; 3 threads seen\nwatched:\nthread " + text(hung.pid()) + " "))
      << written;
  EXPECT_EQ(1U, occurrences(written, "\nwatched:\n")) << written;
  EXPECT_EQ(2U, occurrences(written, "\nnot watched:\n")) << written;
  EXPECT_EQ(2U, occurrences(written, " second?thread: state S, processor ")) << written;
  for (const std::string& tid : list_dir(tasks)) {
    const std::string thread = tasks + "/" + tid;
    if (read_file(thread + "/comm").find("second") ==
        0) {  // it pauses, so that it is in the same place still
      const std::string call = read_file(thread + "/syscall");
      const std::string line = "thread " + tid + " second.thread: state S, processor [0-9]+ ms, waits in " +
                               read_file(thread + "/wchan") + ", call " + call.substr(0, call.find(' ')) +
                               " .*";
      const std::vector<std::string> lines = lines_of(written);
      const auto found = std::find_if(lines.begin(), lines.end(),
                                      [&](const std::string& one) { return matches(one, line); });
      ASSERT_NE(lines.end(), found) << line << "\n" << written;
      const std::vector<std::string> stack = lines_of(read_file(thread + "/stack"));
      for (size_t at = 0; at < stack.size(); ++at) {
        ASSERT_LT(static_cast<ptrdiff_t>(at + 1), lines.end() - found) << written;
        EXPECT_EQ("  " + stack[at], *(found + static_cast<ptrdiff_t>(at + 1)));
      }
    }
  }
  EXPECT_EQ(3U, occurrences(written, ", waits in ")) << written;
  const size_t main = written.find("\nthread " + text(hung.pid()) + " ");
  const size_t processor = written.find("processor ", main);
  ASSERT_NE(std::string::npos, processor);
  const int used = atoi(written.c_str() + processor + strlen("processor "));
  EXPECT_TRUE(used >= 100 && used < 20000) << written;
  EXPECT_EQ(0600U, mode_of(kHung));
}

TEST_F(BlackBox, AProcessThatIsGoneOrHasManyThreadsIsLookedAtForAMomentOnly) {
  child many([] {
    for (int i = 0; i < 200; ++i) {
      std::thread([] { pause(); }).detach();
    }
    return true;
  });
  ASSERT_TRUE(many.ready());
  // The quickest of some looks: whoever else keeps the machine busy delays one and the other.
  const auto is_quick = [&] {
    return time_of([&] { wex_look_at_hung(many.pid(), many.pid()); }) < milliseconds(1000);
  };
  static_assert(kHungLookMs <= 100, "the process is not to hang longer for the look's sake");
  EXPECT_TRUE(eventually(is_quick, 20s)) << "a tenth of that is meant";
  wex_note_watched([](int32_t) { return false; });
  wex_keep_hung();
  const std::string written = read_file(kHung);
  EXPECT_LE(occurrences(written, "\nthread "), 64U);
  EXPECT_GE(occurrences(written, "\nthread "), 1U) << written;
  EXPECT_LE(written.size(), 32768U);
  unlink(kHung);
  wex_look_at_hung(child::reaped(), child::reaped());
  wex_note_watched([](int32_t) { return false; });
  wex_keep_hung();
  EXPECT_NE(std::string::npos, read_file(kHung).find(" 1 threads seen\n")) << read_file(kHung);
  write_file(kHung, std::string(32700, '.'), 0600);
  wex_look_at_hung(many.pid(), many.pid());
  wex_note_watched([](int32_t) { return false; });
  wex_keep_hung();
  EXPECT_EQ(32700U, read_file(kHungOld).size()) << "a full file stays as the old one";
  EXPECT_GE(occurrences(read_file(kHung), "\nthread "), 1U);
  EXPECT_LE(read_file(kHung).size(), 32768U);
  unlink(kHung);
  wex_look_at_hung(0, 0);
  wex_note_watched([](int32_t) { return false; });
  wex_keep_hung();
  EXPECT_FALSE(exists(kHung));
}
