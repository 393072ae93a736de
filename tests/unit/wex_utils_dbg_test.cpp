// wex_utils_dbg: levels, lines, the configuration file and the self-check wait.
#include <sys/socket.h>

#include <algorithm>

#include "ras_comp_config.h"
#include "unit_support.h"
#include "wex_dbg.h"
#include "wex_paths.h"
#include "wex_utils_settings.h"

#define WEX_MODULE "wex_utils_dbg_test"

using namespace unit;

namespace {

class Diagnostics : public Sandboxed {
 protected:
  void SetUp() override {
    Sandboxed::SetUp();
    mkdir("/tmp/d", 0755);
    mkdir("/tmp/d/qx_utils", 0755);
    setenv(RAS_DATA_OVIX_ENV, "/tmp/d", 1);
  }
  static void configure(const std::string& text) {
    write_file(std::string("/tmp/d") + RAS_WEX_DBG_FILE, text);
    EXPECT_EQ("", printed_by([] { EXPECT_EQ(0, wex_parse_dbg_file()); }));
  }
};

class SelfCheckWait : public Sandboxed {
 protected:
  void SetUp() override {
    Sandboxed::SetUp();
    unlink(kDebugTime);
  }
};

std::vector<int32_t> levels() {
  return {g_wex_dbg_level[0], g_wex_dbg_level[1], g_wex_dbg_level[2]};
}

using Levels = std::vector<int32_t>;

void set_all_levels(const Levels& wanted) {
  std::copy(wanted.begin(), wanted.end(), g_wex_dbg_level);
}

// A directory of exactly this many characters that holds the configuration file.
std::string long_directory(size_t length) {
  std::string path = "/tmp/d";
  while (path.size() + 1 < length) {
    const size_t part = std::min<size_t>(length - path.size() - 1, 200);
    path += "/" + std::string(part, 'x');
    mkdir(path.c_str(), 0755);
  }
  EXPECT_EQ(length, path.size());
  mkdir((path + "/qx_utils").c_str(), 0755);
  write_file(path + RAS_WEX_DBG_FILE, "g_wex_pub_dbg_level 1\n");
  return path;
}

}  // namespace

TEST(DiagnosticNames, AreTheOnesOperatorsKnow) {
  EXPECT_STREQ("g_wex_pub_dbg_level", wex_dbg_lvl_str_pre[0]);
  EXPECT_STREQ("g_wex_alive_dbg_level", wex_dbg_lvl_str_pre[1]);
  EXPECT_STREQ("g_wex_lib_dbg_level", wex_dbg_lvl_str_pre[2]);
  EXPECT_STREQ("invlaid", wex_dbg_lvl_str_pre[3]);
}

TEST(DiagnosticLevels, AreSilentFromTheStart) {
  EXPECT_EQ((Levels{4, 4, 4}), levels());
}

TEST_F(Diagnostics, EveryLevelButFourPrints) {
  for (const int32_t level : {0, 1, -1, 5, INT32_MAX, INT32_MIN}) {
    set_levels(level, WEX_DBG_SILENT);
    EXPECT_EQ(1, wex_is_open_pub_dbg());
    EXPECT_EQ("[WEX:wex_utils_dbg_test:N]a 1\r\n", lines_printed_by([] {
                wex_dbg(WEX_DBG_PUB, "a %d\r\n", 1);
                wex_dbg(WEX_DBG_ALIVE, "b\n");
              }));
  }
  set_levels(WEX_DBG_SILENT, 0);
  EXPECT_EQ(0, wex_is_open_pub_dbg());
  EXPECT_EQ("[WEX:wex_utils_dbg_test:N]b\n", lines_printed_by([] {
              wex_dbg(WEX_DBG_PUB, "a\n");
              wex_dbg(WEX_DBG_ALIVE, "b\n");
            }));
}

TEST_F(Diagnostics, ALineIsOneWriteAndKeepsErrno) {
  int ends[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends));
  fflush(stdout);
  const int kept = dup(STDOUT_FILENO);
  dup2(ends[1], STDOUT_FILENO);
  errno = EXDEV;
  wex_say("%s: %s\n", "one", "line");
  const int after = errno;
  wex_print("plain %d", 7);
  dup2(kept, STDOUT_FILENO);
  close(kept);
  char record[256] = {};
  EXPECT_EQ(EXDEV, after);
  const ssize_t got = recv(ends[0], record, sizeof(record) - 1, MSG_DONTWAIT);
  ASSERT_GT(got, 0);
  EXPECT_TRUE(matches(record, "\\[WEX:wex_utils_dbg_test:[0-9]+\\]one: line\n")) << record;
  memset(record, 0, sizeof(record));
  EXPECT_EQ(7, recv(ends[0], record, sizeof(record) - 1, MSG_DONTWAIT));
  EXPECT_STREQ("plain 7", record);
  EXPECT_EQ(-1, recv(ends[0], record, sizeof(record), MSG_DONTWAIT)) << "one record a line";
  close(ends[0]);
  close(ends[1]);
}

TEST_F(Diagnostics, ALineThatIsTooLongIsCutInsteadOfOverflowing) {
  const std::string text(20000, 'x');
  EXPECT_EQ(8191u, printed_by([&] { wex_say("%s", text.c_str()); }).size());
  EXPECT_EQ(8191u, printed_by([&] { wex_print("%s", text.c_str()); }).size());
}

TEST_F(Diagnostics, TheLastValidSettingWins) {
  configure("g_wex_pub_dbg_level 0\n");
  EXPECT_EQ((Levels{0, 4, 4}), levels());
  configure(
      "g_wex_pub_dbg_level 0\ng_wex_alive_dbg_level 2\ng_wex_lib_dbg_level -7\ng_wex_pub_dbg_level 4\n");
  EXPECT_EQ((Levels{4, 2, -7}), levels());
}

TEST_F(Diagnostics, WhatIsNoSettingChangesNothing) {
  const char* const texts[] = {"",
                               "g_wex_pub_dbg_level x\n",
                               "g_wex_pub_dbg_level\n",
                               "g_wex_pub_dbg_levelX 0\n",
                               " g_wex_pub_dbg_level 0\n",
                               "G_WEX_PUB_DBG_LEVEL 0\n",
                               "invlaid 0\n",
                               "g_wex_pub_dbg_leve 0\n"};
  for (const char* const text : texts) {
    configure(text);
    EXPECT_EQ((Levels{4, 4, 4}), levels()) << text;
  }
}

TEST_F(Diagnostics, AValueMayFollowAtAnyDistance) {
  configure("g_wex_pub_dbg_level1\n");
  EXPECT_EQ(1, g_wex_dbg_level[0]) << "a blank in the format stands for none, too";
  configure("g_wex_pub_dbg_level \t 2 and more");
  EXPECT_EQ(2, g_wex_dbg_level[0]) << "without a line end";
}

TEST_F(Diagnostics, ALongLineIsSeenInPiecesOf127) {
  configure(std::string(127, '#') + "g_wex_pub_dbg_level 0\n");
  EXPECT_EQ(0, g_wex_dbg_level[0]) << "the second piece begins with the key";
  configure(std::string(126, '#') + "g_wex_alive_dbg_level 0\n");
  EXPECT_EQ(4, g_wex_dbg_level[1]) << "the second piece begins behind the key's first letter";
}

TEST_F(Diagnostics, AMissingFileIsSilentAndChangesNothing) {
  set_levels(2, 3);
  EXPECT_EQ("", printed_by([] { EXPECT_EQ(0, wex_parse_dbg_file()); }));
  EXPECT_EQ((Levels{2, 3, 4}), levels());
  ASSERT_EQ(0, mkfifo((std::string("/tmp/d") + RAS_WEX_DBG_FILE).c_str(), 0777));
  EXPECT_EQ("", printed_by([] { EXPECT_EQ(0, wex_parse_dbg_file()); })) << "a FIFO does not stop the reader";
}

TEST_F(Diagnostics, AnUnsetDirectoryIsSaidAtAnyLevel) {
  unsetenv(RAS_DATA_OVIX_ENV);
  for (const Levels& before : {Levels{4, 4, 4}, Levels{2, 3, 5}}) {
    set_all_levels(before);
    EXPECT_EQ("[RAS]<ras_comp_config, ras_make_vsd_data_ovix_path, N>:get DATA_OVIX_DIR fail!\r\n",
              lines_printed_by([] { EXPECT_EQ(0, wex_parse_dbg_file()); }));
    EXPECT_EQ(before, levels());
  }
}

TEST_F(Diagnostics, ADirectoryOf225CharactersIsAccepted) {
  setenv(RAS_DATA_OVIX_ENV, long_directory(225).c_str(), 1);
  EXPECT_EQ("", printed_by([] { wex_parse_dbg_file(); }));
  EXPECT_EQ(1, g_wex_dbg_level[0]);
}

TEST_F(Diagnostics, ADirectoryOf226CharactersIsRefused) {
  const std::string directory = long_directory(226);
  setenv(RAS_DATA_OVIX_ENV, directory.c_str(), 1);
  for (const Levels& before : {Levels{4, 4, 4}, Levels{2, 3, 5}}) {
    set_all_levels(before);
    EXPECT_EQ("[RAS]<ras_comp_config, ras_make_vsd_path, N>:not enough path memory(prefix:" + directory +
                  ", suffix:/qx_utils/qx_utils_dbg_cfg.txt, len:256)!\n",
              lines_printed_by([] { wex_parse_dbg_file(); }));
    EXPECT_EQ(before, levels());
  }
}

TEST_F(SelfCheckWait, ANumberAboveZeroIsTaken) {
  const struct {
    const char* text;
    int32_t seconds;
  } rows[] = {{"120\n", 120},
              {"1", 1},
              {" \t\n+7x", 7},
              {"2147483647", INT32_MAX},
              {"2147483648", INT32_MAX},
              {"99999999999999999999", INT32_MAX}};
  for (const auto& row : rows) {
    write_file(kDebugTime, row.text);
    EXPECT_EQ(row.seconds, debug_time()) << row.text;
  }
}

TEST_F(SelfCheckWait, OnlyTheFirst256BytesAreSeen) {
  write_file(kDebugTime, std::string(255, ' ') + "12");
  EXPECT_EQ(1, debug_time());
  write_file(kDebugTime, std::string(256, ' ') + "12");
  EXPECT_EQ(300, debug_time());
}

TEST_F(SelfCheckWait, AnythingElseIs300AndSaid) {
  for (const char* const text : {"0", "-5", "", "letters", "-99999999999999999999"}) {
    write_file(kDebugTime, text);
    set_levels(0, WEX_DBG_SILENT);
    const std::string line = lines_printed_by([] { EXPECT_EQ(300, debug_time()); });
    EXPECT_EQ(0u, line.find("[WEX:wex_utils:N]debug_time: atio fail or file is null: ")) << line;
    EXPECT_EQ('\n', line.back());
    set_levels(WEX_DBG_SILENT, 0);
    EXPECT_EQ("", printed_by([] { EXPECT_EQ(300, debug_time()); }));
  }
}

TEST_F(SelfCheckWait, AFileWithASecondNameIsReadAndStaysAsItIs) {
  write_file(kDebugTime, "42\n");
  ASSERT_EQ(0, link(kDebugTime, "/debug_time_of_other_name"));
  EXPECT_EQ(42, debug_time());
  EXPECT_EQ("42\n", read_file(kDebugTime));
  struct stat facts = {};
  EXPECT_EQ(0, stat(kDebugTime, &facts));
  EXPECT_EQ(2u, facts.st_nlink);
  EXPECT_EQ(0, unlink("/debug_time_of_other_name"));
}

TEST_F(SelfCheckWait, WithoutAFileItIs300AndNothingIsMade) {
  set_levels(0, 0);
  EXPECT_EQ("", printed_by([] { EXPECT_EQ(300, debug_time()); }));
  EXPECT_FALSE(exists(kDebugTime));
  ASSERT_EQ(0, mkfifo(kDebugTime, 0777));
  EXPECT_EQ(300, debug_time());
}

TEST_F(SelfCheckWait, AReadThatFailsIsSaid) {
  ASSERT_EQ(0, symlink("/proc/self/mem", kDebugTime));  // opens, but there is nothing to read at 0
  set_levels(0, WEX_DBG_SILENT);
  EXPECT_EQ("[WEX:wex_utils:N]debug_time: read fail: Input/output error\n",
            lines_printed_by([] { EXPECT_EQ(300, debug_time()); }));
}
