// Bad neighbours in short: a few seconds of each beside programs that register, die and come back. The long
// forms are hostile_clients_slow.cpp.
#include <sys/wait.h>

#include "bad_neighbours.h"

using namespace bad_neighbours;

TEST_F(Neighbours, ThatFillAllPlacesButOne) {
  beside_idle_clients(5);
}
TEST_F(Neighbours, ThatNeverRead) {
  beside_clients_that_never_read(5);
}
TEST_F(Neighbours, ThatStopInTheMiddle) {
  beside_clients_that_stop_in_the_middle(5);
}
TEST_F(Neighbours, ThatSendGarbage) {
  beside_garbage(5);
}
TEST_F(Neighbours, ThatConnectAndLeave) {
  beside_a_flood_of_connections(5, 0);  // how many a second a busy machine has room for nobody knows
}
TEST_F(Neighbours, ThatSendRandomRecords) {
  after_random_records(20000);
}
TEST_F(Neighbours, ThatReportForEveryThread) {
  after_reports_of_every_thread();
}

// ---- Names and command lines ------------------------------------------------------------------------------

namespace {

constexpr char kPrograms[] = "/tmp/programs/";
constexpr char kRegistered[] = "/tmp/registered";

struct OddNames : ControlChannel {
  void SetUp() override {
    ControlChannel::SetUp();
    make_dirs(kPrograms);
    start();
  }
  void TearDown() override {
    daemon.kill_now();
    for (const pid_t pid : processes_inside()) {
      if (program_of(pid).rfind(kPrograms, 0) == 0) {
        send_signal(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
      }
    }
    remove_tree(kPrograms);
    ControlChannel::TearDown();
  }
  // The one living process of this program with these very words, other than `not_this`; 0 when there is
  // none.
  static pid_t wait_for(const std::string& program, const std::string& words, pid_t not_this,
                        milliseconds limit) {
    pid_t found = 0;
    eventually(
        [&] {
          for (const pid_t pid : processes_inside()) {
            if (pid != not_this && is_alive(pid) && program_of(pid) == program &&
                read_file("/proc/" + std::to_string(pid) + "/cmdline") == words) {
              found = pid;
            }
          }
          return found != 0;
        },
        limit);
    return found;
  }
  // Somebody else, who registered as ever, dies and comes back.
  void expect_a_witness_back(const std::string& name) {
    policy::Service witness(name);
    ASSERT_TRUE(witness.start());
    witness.end();
    ASSERT_TRUE(witness.comes_back(20s)) << read_console();
  }
};

struct odd_name {
  std::string program, argument;
  bool comes_back;  // with the same words: blanks part them, and a newline ends them
};

const odd_name kOddNames[] = {
    {"plain", "", true},
    {"new\nline", "", true},
    {"newlines", "a\nb\n", false},
    {"\xff\xfe\x80", "\xc3\x28\xf0\x90", true},
    {"words'\"`\\", "'\"`$(touch /x)", false},
    {"quotes'\"`\\", "'\"`$(touch)", true},
    {"%s%n%d", "%s%n%999999d", true},
    {"--help", "*?[a-z]{1,2}~", true},
    {std::string(200, 'n'), std::string(3000, 't'), true},
    {"long", std::string(4096, 't'), false},
    {"two words", "", false},
    {" ", "\t", false},
};

}  // namespace

TEST_F(OddNames, AreKeptWholeOrHarmNobodyElse) {
  int failed = 0, number = 0;
  for (const odd_name& row : kOddNames) {
    SCOPED_TRACE(row.program + " --tag=" + row.argument);
    const std::string program = kPrograms + row.program;
    ASSERT_TRUE(exited_with(run({"cp", "--", actor_binary(), program}), 0));
    unlink(kRegistered);
    Process process;
    ASSERT_TRUE(process.start({program, "--register=RESTART", "--confirm",
                               std::string("--ready=") + kRegistered, "--hold", "--tag=" + row.argument}));
    ASSERT_TRUE(eventually([] { return exists(kRegistered); }, 20s)) << read_console();
    const pid_t old = process.pid();
    const std::string words = read_file("/proc/" + std::to_string(old) + "/cmdline");
    process.kill_now();
    if (row.comes_back) {
      const bool back = wait_for(program, words, old, 20s) != 0;
      EXPECT_TRUE(back) << read_console();
      failed += back ? 0 : 1;
    }
    expect_a_witness_back("witness" + std::to_string(++number));
  }
  EXPECT_FALSE(exists("/x"));
  tell_figures("programs with odd names and arguments", "a service beside them", std::size(kOddNames), failed,
               "back with the same words, where no blank and no newline is in one");
}

// The daemon knows such a process by its program, and starts that one again, without arguments.
TEST_F(OddNames, OfAProcessWithoutACommandLineIsThatOfItsProgram) {
  const std::string program = std::string(kPrograms) + "wordless";
  ASSERT_TRUE(exited_with(run({"cp", "--", actor_binary(), program}), 0));
  Process process;
  ASSERT_TRUE(process.start({program, "--forget-words", "--register=RESTART", "--confirm",
                             std::string("--ready=") + kRegistered, "--hold"}));
  ASSERT_TRUE(eventually([] { return exists(kRegistered); }, 20s)) << read_console();
  const pid_t old = process.pid();
  ASSERT_EQ("", read_file("/proc/" + std::to_string(old) + "/cmdline"));
  EXPECT_EQ(std::to_string(old) + "\n2\n" + program, read_file(policy::db_file("wordless", old)));
  process.kill_now();
  const pid_t next = wait_for(program, program + '\0', old, 20s);
  EXPECT_NE(0, next) << read_console();
  EXPECT_TRUE(daemon.running());
  expect_a_witness_back("witness");
  tell_figures("a program whose command line is empty", "a service beside it", 1, next != 0 ? 0 : 1,
               "back without arguments");
}

// Executed with one word, which is empty: the kernel shows a command line of one zero byte.
TEST_F(OddNames, OfAProcessWhoseOnlyWordIsEmptyIsThatOfItsProgram) {
  const std::string program = std::string(kPrograms) + "nameless";
  ASSERT_TRUE(exited_with(run({"cp", "--", actor_binary(), program}), 0));
  Process process;
  ASSERT_TRUE(process.start(actor_words({"--exec-without-name=" + program})));
  const pid_t old = process.pid();
  const std::string words = "/proc/" + std::to_string(old) + "/cmdline";
  ASSERT_TRUE(eventually([&] { return program_of(old) == program; }, 20s));
  ASSERT_EQ(std::string(1, '\0'), read_file(words));
  {
    const raw_client client;
    ASSERT_TRUE(client.send_body(WEX_RESTART, body_of(old)));
    ASSERT_TRUE(client.acknowledged());
  }
  ASSERT_TRUE(eventually([&] { return StatusReader().slot_of(old).has_value(); }, 20s));
  process.kill_now();
  const pid_t next = wait_for(program, program + '\0', old, 20s);
  EXPECT_NE(0, next) << read_console();
  EXPECT_TRUE(daemon.running());
  expect_a_witness_back("witness");
  tell_figures("a program with one word, which is empty", "a service beside it", 1, next != 0 ? 0 : 1,
               "back without arguments");
}
