#include "wex_opt.h"

#include <getopt.h>

#include "domain_world.h"

using namespace domain_world;

namespace {

constexpr int kReturned = 99;  // on to start-up
const char* const kError = "[WEX:wex_opt:N]input error!!!input wex -h for help!!!\n";

struct outcome {
  std::string text;
  int status;
};

// Runs the command line in a process of its own, diagnostics silenced.
outcome run(const std::vector<std::string>& words) {
  outcome result = {"", -1};
  result.text = lines_printed_by([&] {
    const pid_t child = fork();
    if (child == 0) {
      g_wex_dbg_level[WEX_DBG_PUB] = WEX_DBG_SILENT;
      std::vector<std::string> copy = words;
      std::vector<char*> argv;
      for (std::string& word : copy) {
        argv.push_back(word.data());
      }
      argv.push_back(nullptr);
      opterr = 0;
      wex_handle_options(static_cast<int>(copy.size()), argv.data());
      _exit(kReturned);
    }
    int status = 0;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  });
  return result;
}

std::string errors(int count) {
  std::string text;
  while (count-- > 0) {
    text += kError;
  }
  return text;
}

struct CommandLine : World {};

TEST_F(CommandLine, WithoutArgumentsStartsTheDaemon) {
  const outcome result = run({"wex"});
  EXPECT_EQ("", result.text);
  EXPECT_EQ(kReturned, result.status);
}

TEST_F(CommandLine, TellsEveryMistakeAsOftenAndEndsAsAlways) {
  struct {
    std::vector<std::string> words;
    int errors;
    int status;
  } const rows[] = {
      {{"wex", "foo"}, 1, kReturned},
      {{"wex", "-"}, 1, kReturned},
      {{"wex", "--"}, 1, kReturned},
      {{"wex", ""}, 1, kReturned},
      {{"wex", "-c"}, 1, 1},
      {{"wex", "-d"}, 1, 1},
      {{"wex", "--create"}, 1, 1},
      {{"wex", "--delete"}, 1, 1},
      {{"wex", "-x"}, 1, 1},
      {{"wex", "--bogus"}, 1, 1},
      {{"wex", "--show=1"}, 1, 1},
      {{"wex", "foo", "bar"}, 1, kReturned},
      {{"wex", "-c", "0"}, 2, kReturned},
      {{"wex", "--create", "0"}, 2, kReturned},
      {{"wex", "-d", "0"}, 2, kReturned},
      {{"wex", "-c", "abc"}, 2, kReturned},
      {{"wex", "-c", ""}, 2, kReturned},
      {{"wex", "-d", "x3"}, 2, kReturned},
      {{"wex", "-cd", "0"}, 3, kReturned},
      {{"wex", "-cs", "0"}, 2, 1},
      {{"wex", "3", "-c"}, 2, kReturned},  // read before the words are sorted
      {{"wex", "-c", "-3"}, 2, 1},         // the number is also an option, and an unknown one
      {{"wex", "-s", "3"}, 1, 1},
      {{"wex", "-h", "3"}, 1, 1},
      {{"wex", "-v", "3"}, 1, 1},
      {{"wex", "-x", "3"}, 1, 1},
      {{"wex", "sub", "app", "3"}, 1, 1},
      {{"wex", "addition", "app", "3"}, 1, 1},
      {{"wex", "-c", "3", "4"}, 1, 1},
      {{"wex", "a", "b", "e", "f"}, 1, 0},
      {{"wex", "add", "app", "3", "4"}, 1, 0},
      {{"wex", "a", "b", "c", "d", "e", "f"}, 1, 0},
  };
  for (const auto& row : rows) {
    std::string shown;
    for (const std::string& word : row.words) {
      shown += word + " ";
    }
    const outcome result = run(row.words);
    EXPECT_EQ(errors(row.errors), result.text) << shown;
    EXPECT_EQ(row.status, result.status) << shown;
  }
}

TEST_F(CommandLine, HelpIsTheUsageText) {
  for (const char* word : {"-h", "--help", "--he"}) {
    const outcome result = run({"wex", word});
    EXPECT_EQ(
        "[WEX:wex_opt:N]\n----------------------------------------\n"
        "[WEX:wex_opt:N]Usage: \n"
        "[WEX:wex_opt:N]Options are as follows:\n"
        "[WEX:wex_opt:N] wex -c count             Create count vsd\n"
        "[WEX:wex_opt:N] wex -d vsd_no            Delete vsd_no vsd\n"
        "[WEX:wex_opt:N] wex -s                   Show all vsd\n"
        "[WEX:wex_opt:N] wex -h                   Display help\n"
        "[WEX:wex_opt:N] wex -v                   Display version\n"
        "[WEX:wex_opt:N] wex add proc vsd_no      Add proc to vsd\n"
        "[WEX:wex_opt:N]-------------------------------------------\n",
        result.text);
    EXPECT_EQ(0, result.status);
  }
}

TEST_F(CommandLine, VersionIsOneLine) {
  for (const char* word : {"-v", "--version"}) {
    const outcome result = run({"wex", word});
    EXPECT_EQ("[WEX:wex_opt:N]This is WEX verison 1.0\n", result.text);
    EXPECT_EQ(0, result.status);
  }
}

TEST_F(CommandLine, ShowListsTheDomains) {
  make_flag_dir(2);
  make_flag_file(2, 1234);
  for (const char* word : {"-s", "--show", "-sv"}) {
    const outcome result = run({"wex", word});
    EXPECT_EQ("Vsd_2: /tmp/vsd/2/wex/\n1234\n", result.text) << word;
    EXPECT_EQ(0, result.status);
  }
}

TEST_F(CommandLine, DeleteOfAMissingDomainIsReportedAndUnderstood) {
  for (const char* word : {"-d", "--delete"}) {
    const outcome result = run({"wex", word, "9"});
    EXPECT_EQ("[WEX:wex_opt:N]delete 9 vsd fail, error =No such file or directory.\n", result.text);
    EXPECT_EQ(0, result.status);
  }
}

TEST_F(CommandLine, AddToAMissingDomainIsReportedAndReturns) {
  const std::pair<const char*, const char*> rows[] = {
      {"9", "9"}, {"abc", "0"}, {"-4", "-4"}, {"7x", "7"}, {"99999999999", "2147483647"}};
  for (const auto& [word, number] : rows) {
    const outcome result = run({"wex", "add", "/usr/sbin/app", word});
    EXPECT_EQ("vsd " + std::string(number) + " is not exist\n", result.text);
    EXPECT_EQ(kReturned, result.status);
  }
}

TEST_F(CommandLine, CountOfWordsThatCannotBeIsAMistake) {
  char* none[] = {nullptr};
  const std::string text = lines_printed_by([&] {
    const pid_t child = fork();
    if (child == 0) {
      wex_handle_options(0, none);
      _exit(kReturned);
    }
    int status = 0;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, WIFEXITED(status) ? WEXITSTATUS(status) : -1);
  });
  EXPECT_EQ(errors(1), text);
}

}  // namespace
