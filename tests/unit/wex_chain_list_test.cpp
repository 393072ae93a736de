// wex_chain_list: look-ups in the third-part list, remembered or not, must answer as a plain reading would.

#include <gtest/gtest.h>
#include <time.h>

#include <atomic>
#include <random>
#include <thread>

#include "read_calls.h"
#include "registry_files.h"
#include "wex_chain.h"
#include "wex_chain_list.h"
#include "wex_limits.h"
#include "wex_paths.h"
#include "wex_strict.h"

using namespace registry;
using wex_test::reads_of;

namespace {

struct answer {
  int result;
  std::string word;
};

bool operator==(const answer& a, const answer& b) {
  return a.result == b.result && a.word == b.word;
}
std::ostream& operator<<(std::ostream& out, const answer& a) {
  return out << a.result << " \"" << a.word << '"';
}

answer look_up(const std::string& needle, size_t size = 256, const char* path = kThirdPartList) {
  std::vector<char> word(size + 1, '#');
  const int result = wex_proc_in_wexdb(path, needle.c_str(), word.data(), size);
  EXPECT_EQ('#', word[size]) << "written behind the buffer";
  return {result, result == 1 ? std::string(word.data()) : ""};
}

// The reading that the answers are defined by.
answer read_plainly(const std::string& needle, size_t size = 256) {
  FILE* const file = fopen(kThirdPartList, "re");
  char line[1024];
  answer found = {0, ""};
  while (file != nullptr && fgets(line, sizeof line, file) != nullptr) {
    if (strstr(line, needle.c_str()) != nullptr) {
      const char* const blank = strrchr(line, ' ');
      if (blank != nullptr) {
        found = {1, std::string(blank + 1).substr(0, size - 1)};
      }
      break;
    }
  }
  if (file != nullptr) {
    fclose(file);
  }
  return found;
}

// Until then a list counts as still changing and is read every time.
void wait_until_settled(const std::string& path) {
  struct stat facts = {};
  ASSERT_EQ(0, stat(path.c_str(), &facts));
  ASSERT_TRUE(eventually(
      [&] {
        timespec now = {};
        clock_gettime(CLOCK_REALTIME, &now);
        return now.tv_sec > facts.st_ctim.tv_sec + 1 && now.tv_sec > facts.st_mtim.tv_sec + 1;
      },
      10s));
}

struct List : RegistryWorld {
  void SetUp() override {
    RegistryWorld::SetUp();
    make_dirs("/etc/wex");
  }
};

}  // namespace

TEST_F(List, WordBehindTheLastBlankKeepsItsLineEnd) {
  write_file(kThirdPartList,
             "/usr/sbin/one WEX_RESTART\n/usr/sbin/two -x WEX_SHELL_RESTART\n/usr/sbin/last WEX_RESTART");
  EXPECT_EQ((answer{1, "WEX_RESTART\n"}), look_up("/usr/sbin/one"));
  EXPECT_EQ((answer{1, "WEX_SHELL_RESTART\n"}), look_up("/usr/sbin/two -x"));
  EXPECT_EQ((answer{1, "WEX_RESTART"}), look_up("/usr/sbin/last"));
  EXPECT_EQ((answer{0, ""}), look_up("/usr/sbin/none"));
}

TEST_F(List, FirstLineThatContainsTheNeedleDecides) {
  write_file(
      kThirdPartList,
      "/usr/sbin/app2 SECOND\n/usr/sbin/app FIRST\nnoblank\nx noblank LATER\n/ends/in/blank \n\ttab\tonly\n");
  EXPECT_EQ((answer{1, "SECOND\n"}), look_up("/usr/sbin/app")) << "any part of a line";
  EXPECT_EQ((answer{0, ""}), look_up("noblank")) << "found, but without a blank: the next line is not asked";
  EXPECT_EQ((answer{1, "\n"}), look_up("/ends/in/blank"));
  EXPECT_EQ((answer{0, ""}), look_up("tab"));
  EXPECT_EQ((answer{1, "SECOND\n"}), look_up("")) << "an empty needle is in every line";
}

TEST_F(List, AnswerIsCutToItsBufferAndTheBufferIsCleared) {
  write_file(kThirdPartList, "/a/app WEX_RESTART\n");
  EXPECT_EQ((answer{1, "WEX"}), look_up("/a/app", 4));
  EXPECT_EQ((answer{1, ""}), look_up("/a/app", 1));
  char word[8] = {'#', '#', '#', '#', '#', '#', '#', '#'};
  EXPECT_EQ(0, wex_proc_in_wexdb(kThirdPartList, "none", word, sizeof word));
  EXPECT_EQ(std::string(8, '\0'), std::string(word, 8));
}

TEST_F(List, MissingListLeavesTheBufferAlone) {
  char word[4] = "###";
  EXPECT_EQ(0, wex_proc_in_wexdb(kThirdPartList, "x", word, sizeof word));
  EXPECT_STREQ("###", word);
}

TEST_F(List, LineIsGivenWholeToTheSpawner) {
  write_file(kThirdPartList, "noblank\n/a/app -x WEX_RESTART\n");
  char line[kListLineSize];
  EXPECT_EQ(1, wex_list_find(kThirdPartList, "app -x", line, sizeof line));
  EXPECT_STREQ("/a/app -x WEX_RESTART\n", line);
  EXPECT_EQ(1, wex_list_find(kThirdPartList, "noblank", line, sizeof line));
  EXPECT_STREQ("noblank\n", line);
  EXPECT_EQ(1, wex_list_find(kThirdPartList, "app", line, 5));
  EXPECT_STREQ("/a/a", line);
  EXPECT_EQ(0, wex_list_find(kThirdPartList, "app -y", line, sizeof line));
  EXPECT_EQ(0, wex_list_find("/etc/wex/none", "app", line, sizeof line));
}

TEST_F(List, PlantedFifoDirectoryAndLinkAreNoList) {
  ASSERT_EQ(0, mkfifo("/etc/wex/fifo", 0666));
  write_file("/etc/wex/real", "/a/app WEX_RESTART\n");
  ASSERT_EQ(0, symlink("/etc/wex/real", "/etc/wex/theirs"));
  ASSERT_EQ(0, lchown("/etc/wex/theirs", 65534, 65534));
  ASSERT_EQ(0, symlink("/etc/wex/real", "/etc/wex/ours"));
  EXPECT_EQ(0, look_up("/a/app", 256, "/etc/wex/fifo").result);
  EXPECT_EQ(0, look_up("/a/app", 256, "/etc/wex").result);
  EXPECT_EQ(0, look_up("/a/app", 256, "/etc/wex/theirs").result);
  EXPECT_EQ(1, look_up("/a/app", 256, "/etc/wex/ours").result);
}

TEST_F(List, AnyTextIsReadAsByLinesOfAStream) {
  std::mt19937 random(7);
  const std::string letters("ab \n\0c", 6);
  std::vector<std::string> lists = {"",
                                    "\n",
                                    std::string(1023, 'a') + " b\n",
                                    std::string(1022, 'a') + "\n b c\n",
                                    std::string(1021, 'a') + "\nb c",
                                    std::string(1020, 'a') + " bc\nc c\n",  // the blank ends the first piece
                                    std::string(5000, 'a') + " c b\n",
                                    std::string(2046, 'a') + "b c\n",
                                    std::string("a\0 b\nab c\n", 10)};
  for (int i = 0; i < 60; ++i) {
    std::string text;
    const bool longish = i % 3 == 0;
    const size_t length = random() % (longish ? 6000 : 60);
    while (text.size() < length) {
      text += longish && random() % 4 != 0 ? std::string(random() % 900, 'a')
                                           : std::string(1, letters[random() % 6]);
    }
    lists.push_back(text);
  }
  std::vector<std::string> needles = {
      "a", "b", "ab", "aab", " ", "c\n", "", "\n", std::string(1000, 'a') + "b"};
  // Read while it counts as changing: nothing may be remembered, every list is answered by its own text.
  for (const std::string& text : lists) {
    write_file(kThirdPartList, text);
    for (const std::string& needle : needles) {
      ASSERT_EQ(read_plainly(needle), look_up(needle)) << "text " << text << " needle " << needle;
    }
  }
  // And all of them again from memory, each at a path of its own that is then renamed to the list's.
  for (size_t i = 0; i < lists.size(); ++i) {
    write_file("/etc/wex/list." + std::to_string(i), lists[i]);
  }
  wait_until_settled("/etc/wex/list." + std::to_string(lists.size() - 1));
  for (size_t i = 0; i < lists.size(); ++i) {
    unlink(kThirdPartList);
    ASSERT_EQ(0, link(("/etc/wex/list." + std::to_string(i)).c_str(), kThirdPartList));
    for (const std::string& needle : needles) {
      ASSERT_EQ(read_plainly(needle), look_up(needle)) << "text " << lists[i] << " needle " << needle;
    }
  }
}

TEST_F(List, SettledListIsReadOnce) {
  write_file(kThirdPartList, "/a/app WEX_RESTART\n");
  EXPECT_GT(reads_of([] { look_up("/a/app"); }), 0);
  EXPECT_GT(reads_of([] { look_up("/a/app"); }), 0)
      << "it may still change within one tick of its time stamp";
  wait_until_settled(kThirdPartList);
  look_up("/a/app");
  EXPECT_EQ(0, reads_of([] { EXPECT_EQ(1, look_up("/a/app").result); }));
  EXPECT_EQ(0, reads_of([] { EXPECT_EQ(0, look_up("/a/none").result); }));
}

TEST_F(List, RememberedListNeverHidesAChange) {
  const auto remember = [](const std::string& text) {
    unlink(kThirdPartList);
    write_file(kThirdPartList, text);
    write_file("/etc/wex/next", "/a/app THIRD_\n");
    wait_until_settled("/etc/wex/next");
    EXPECT_EQ(1, look_up("/a/app").result);
    EXPECT_EQ(0, reads_of([] { look_up("/a/app"); })) << "it is not remembered";
  };
  remember("/a/app FIRST_\n");
  write_file(kThirdPartList, "/a/app SECOND\n");
  EXPECT_EQ("SECOND\n", look_up("/a/app").word) << "rewritten at the same size";
  write_file(kThirdPartList, "/a/app AGAIN_\n");
  EXPECT_EQ("AGAIN_\n", look_up("/a/app").word) << "and once more within the same tick";

  remember("/a/app FIRST_\n");
  ASSERT_EQ(0, rename("/etc/wex/next", kThirdPartList));
  EXPECT_EQ("THIRD_\n", look_up("/a/app").word) << "replaced by a rename";

  remember("/a/app FIRST_\n");
  struct stat facts = {};
  ASSERT_EQ(0, stat(kThirdPartList, &facts));
  write_file(kThirdPartList, "/a/app FORGED\n");
  const timespec times[2] = {facts.st_atim, facts.st_mtim};
  ASSERT_EQ(0, utimensat(AT_FDCWD, kThirdPartList, times, 0));
  EXPECT_EQ("FORGED\n", look_up("/a/app").word) << "rewritten, and its time set back";

  remember("/a/app FIRST_\n");
  ASSERT_EQ(0, unlink(kThirdPartList));
  EXPECT_EQ(0, look_up("/a/app").result) << "gone";
}

TEST_F(List, ListBehindALinkOfRootIsRememberedAndItsChangesAreSeen) {
  write_file("/etc/wex/real", "/a/app FIRST_\n");
  write_file("/etc/wex/other", "/a/app OTHER_\n");
  unlink(kThirdPartList);
  ASSERT_EQ(0, symlink("/etc/wex/real", kThirdPartList));
  wait_until_settled("/etc/wex/other");
  EXPECT_EQ("FIRST_\n", look_up("/a/app").word);
  EXPECT_EQ(0, reads_of([] { look_up("/a/app"); })) << "it is not remembered";
  write_file("/etc/wex/real", "/a/app SECOND\n");
  EXPECT_EQ("SECOND\n", look_up("/a/app").word) << "rewritten behind the link";
  wait_until_settled("/etc/wex/real");
  EXPECT_EQ("SECOND\n", look_up("/a/app").word);
  ASSERT_EQ(0, symlink("/etc/wex/other", "/etc/wex/next"));
  ASSERT_EQ(0, rename("/etc/wex/next", kThirdPartList));
  EXPECT_EQ("OTHER_\n", look_up("/a/app").word) << "the link leads elsewhere now";
}

TEST_F(List, ListTooLargeToRememberIsStillSearched) {
  std::string text;
  while (text.size() <= static_cast<size_t>(kListRemembered)) {
    text += "/a/filling/of/the/list WEX_RESTART\n";
  }
  write_file(kThirdPartList, text + "/a/last WEX_SHELL_RESTART\n");
  wait_until_settled(kThirdPartList);
  for (int round = 0; round < 2; ++round) {
    EXPECT_GT(reads_of([] { EXPECT_EQ((answer{1, "WEX_SHELL_RESTART\n"}), look_up("/a/last")); }), 0);
  }
}

TEST_F(List, ThreadsMayAskWhileTheListIsReplaced) {
  write_file(kThirdPartList, "/a/app WEX_RESTART\n");
  std::atomic<bool> over{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&] {
      while (!over) {
        EXPECT_EQ((answer{1, "WEX_RESTART\n"}), look_up("/a/app"));
      }
    });
  }
  for (int i = 0; i < 200; ++i) {
    write_file("/etc/wex/next", std::string(static_cast<size_t>(i) * 20, '\n') + "/a/app WEX_RESTART\n");
    timespec old[2] = {{1000000000 + i, 0}, {1000000000 + i, 0}};
    utimensat(AT_FDCWD, "/etc/wex/next", old, 0);
    ASSERT_EQ(0, rename("/etc/wex/next", kThirdPartList));
  }
  over = true;
  for (std::thread& thread : threads) {
    thread.join();
  }
}

// One that others may write is what they say, remembered or not.
TEST_F(List, InStrictModeOnlyOneOfRootsThatNobodyElseMayWriteCounts) {
  constexpr struct {
    uid_t owner;
    mode_t mode;
    bool counts;
  } kRows[] = {{0, 0644, true}, {0, 0600, true}, {0, 0646, false}, {0, 0664, false}, {1234, 0644, false}};
  strict_settings settings;
  settings.on = true;
  for (const auto& row : kRows) {
    SCOPED_TRACE(testing::Message() << row.owner << std::oct << " 0" << row.mode);
    write_file(kThirdPartList, "/a/app WEX_RESTART\n");
    wait_until_settled(kThirdPartList);
    wex_set_strict(settings);
    EXPECT_EQ((answer{1, "WEX_RESTART\n"}), look_up("/a/app"));
    ASSERT_EQ(0, chown(kThirdPartList, row.owner, 0));
    ASSERT_EQ(0, chmod(kThirdPartList, row.mode));
    const answer strict = look_up("/a/app");
    char ignored[kPathSize];
    wex_take_ignored_name(ignored);
    wex_set_strict({});
    EXPECT_EQ(row.counts ? 1 : 0, strict.result);
    EXPECT_EQ(1, look_up("/a/app").result) << "without the mode";
    unlink(kThirdPartList);
  }
}

TEST_F(List, ProcessIsLookedUpByItsExecutable) {
  char executable[512] = {};
  ASSERT_GT(readlink("/proc/self/exe", executable, sizeof executable - 1), 0);
  char word[64];
  EXPECT_EQ(0, wex_pid_in_wexdb(getpid(), kThirdPartList, word, sizeof word));
  write_file(kThirdPartList, std::string(executable) + " WEX_RESTART\n");
  EXPECT_EQ(1, wex_pid_in_wexdb(getpid(), kThirdPartList, word, sizeof word));
  EXPECT_STREQ("WEX_RESTART\n", word);
  EXPECT_EQ(0, wex_pid_in_wexdb(dead_pid(), kThirdPartList, word, sizeof word));
  EXPECT_EQ(0, wex_pid_in_wexdb(-1, kThirdPartList, word, sizeof word));
  EXPECT_EQ(0, wex_pid_in_wexdb(0, kThirdPartList, word, sizeof word));
}
