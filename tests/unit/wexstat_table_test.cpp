// What people see, and the program as they call it.
#include "wexstat_table.h"

#include "wexstat_words.h"
#include "wexstat_world.h"

using namespace wexstat_test;

namespace {

using WexstatTable = WexstatWorld;

std::string table_of(const status_table& table, const look_and_feel& look = {}, const moment& at = now()) {
  status_copy copy = read_back(table);
  return written([&](FILE* out) { show_table(&copy, at, look, out); });
}
std::string headline_of(const status_table& table, daemon_state state) {
  const status_copy copy = read_back(table);
  const daemon_health daemon = {state, "TEXT"};
  return written([&](FILE* out) { show_headline(copy, daemon, now(), {}, out); });
}
std::vector<std::string> first_words(const std::string& text) {
  std::vector<std::string> out;
  for (const std::string& line : lines_of(text)) {
    out.push_back(line.substr(0, line.find(' ')));
  }
  return out;
}

}  // namespace

TEST_F(WexstatTable, ProblemsComeFirst) {
  status_table table;
  table.add("c");
  table.add("b");
  wex_status_slot& late = table.add("silent");
  late.watched_threads = 2;
  late.fewest_misses = 1;
  table.add("starting", WEX_STATUS_RESTARTING);
  table.add("held", WEX_STATUS_WAITING);
  table.add("parked", WEX_STATUS_PARKED);
  table.add("down", WEX_STATUS_DOWN);
  EXPECT_EQ((std::vector<std::string>{"NAME", "down", "parked", "held", "starting", "silent", "b", "c"}),
            first_words(table_of(table)));
}

TEST_F(WexstatTable, EachCellIsInItsColumn) {
  const moment at = {1000000000, 1700000000};
  status_table table;
  wex_status_slot& parked = table.add("fragile", WEX_STATUS_PARKED);
  parked.until = at.monotonic_ms + 252500;
  parked.restarts = 4;
  parked.last_exit = 0x86;
  parked.last_exit_wall = at.wall_sec - 7200;
  wex_status_slot& watched = table.add("clock");
  watched.domain = 3;
  watched.watched_threads = 2;
  watched.fewest_misses = 4;
  watched.started = at.monotonic_ms - int64_t{76} * 3600000;
  EXPECT_EQ(
      "NAME     PID   DOMAIN  STATE                    UP FOR   RESTARTS  THREADS  LAST EXIT\n"
      "fragile  1000  0       parked, 4 min 12 s more  -        4         -        SIGABRT, core, 2 h 0 min "
      "ago\n"
      "clock    1001  3       running                  3 d 4 h  0         2        -\n",
      table_of(table, {}, at));
}

TEST_F(WexstatTable, TheHeadlineTellsOfTheDaemonAndTotals) {
  status_table table;
  table.add("one");
  table.add("two", WEX_STATUS_PARKED);
  table.head.counters[WEX_STATUS_EXITS] = 7;
  table.head.counters[WEX_STATUS_RESTARTS] = 5;
  table.head.counters[WEX_STATUS_LOST_EXITS] = 1;
  const std::string pid = std::to_string(getpid());
  const std::string totals =
      "2 registered, 1 parked, 1 running; since its start 7 exits, 5 restarts, 1 lost exits\n";
  EXPECT_EQ("wex 1.0.0, pid " + pid + ", up for 1 h 0 min\n" + totals,
            headline_of(table, daemon_state::running));
  EXPECT_EQ("wex 1.0.0, pid " + pid + ", up for 1 h 0 min, STUCK: TEXT\n" + totals,
            headline_of(table, daemon_state::stuck));
  EXPECT_EQ("wex is NOT RUNNING (TEXT); pid " + pid + " left this:\n" + totals,
            headline_of(table, daemon_state::dead));
  table.add("torn").seq = 1;
  table.head.counters[WEX_STATUS_NOT_SHOWN] = 3;
  EXPECT_NE(std::string::npos,
            headline_of(table, daemon_state::dead)
                .find("2 registered, 1 parked, 1 running, 1 being written, 3 not shown; "));
}

TEST_F(WexstatTable, TheHeadlineTellsOfStrictMode) {
  status_table table;
  table.head.flags = WEX_STATUS_STRICT;
  const std::string begins = "wex 1.0.0, pid " + std::to_string(getpid()) + ", strict mode, up for 1 h 0 min";
  EXPECT_EQ(begins + "\n", headline_of(table, daemon_state::running).substr(0, begins.size() + 1));
}

TEST_F(WexstatTable, EachStateIsToldWithItsTime) {
  const moment at = {1000000000, 1700000000};
  const struct {
    wex_status_state state;
    int64_t since_ago;
    int64_t until_in;
    const char* words;
  } rows[] = {{WEX_STATUS_RUNNING, 5000, 0, "running"},
              {WEX_STATUS_RESTARTING, 2000, 3000, "restarting in 3 s"},
              {WEX_STATUS_RESTARTING, 2000, 0, "restarting for 2 s"},
              {WEX_STATUS_PARKED, 61000, 239000, "parked, 3 min 59 s more"},
              {WEX_STATUS_PARKED, 61000, 0, "parked for 1 min 1 s"},
              {WEX_STATUS_WAITING, 9000, 292000, "postponed for 9 s"},
              {WEX_STATUS_DOWN, 7000, 0, "down for 7 s"}};
  for (const auto& row : rows) {
    status_table table;
    wex_status_slot& slot = table.add("app", row.state);
    slot.since = at.monotonic_ms - row.since_ago;
    slot.until = row.until_in > 0 ? at.monotonic_ms + row.until_in : 0;
    const std::vector<std::string> lines = lines_of(table_of(table, {}, at));
    ASSERT_EQ(2U, lines.size());
    EXPECT_NE(std::string::npos, lines[1].find(std::string("  ") + row.words + "  ")) << lines[1];
    slot.since = 0;  // its record does not tell
    slot.until = 0;
    const std::string word = state_word(row.state);
    EXPECT_NE(std::string::npos, table_of(table, {}, at).find("  " + word + "  ")) << word;
  }
}

TEST_F(WexstatTable, AProgramIsFoundByANameThatIsLongerThanItsField) {
  const std::string name = "0123456789abcdef0123456789abcdef-service";
  status_table table;
  wex_status_slot& slot = table.add(name);
  slot.pid = getpid();
  table.add_event(WEX_STATUS_EV_REGISTERED, name, slot.pid);
  table.save();
  for (const size_t length : {size_t{32}, name.size()}) {
    const std::string asked = name.substr(0, length);
    EXPECT_EQ(0, wexstat(asked).status);
    EXPECT_EQ(1U, lines_of(wexstat("--history 5 " + asked).text).size());
    EXPECT_EQ(0, wexstat("--wait " + asked + " --timeout 0").status);
  }
  EXPECT_EQ(1, wexstat(name.substr(0, 31)).status);
  EXPECT_EQ(1, wexstat("0123456789abcdef0123456789abcdeX-service").status);
}

TEST_F(WexstatTable, ATerminalsWidthAndHeightHold) {
  status_table table;
  for (int i = 0; i < 20; ++i) {
    table.add("name" + std::to_string(100 + i), i == 0 ? WEX_STATUS_DOWN : WEX_STATUS_RUNNING);
  }
  look_and_feel look;
  look.columns = 11;
  look.rows = 10;
  EXPECT_EQ("NAME     PI\nname100  10\nname101  10\nname102  10\nname103  10\nname104  10\nand 15 more\n",
            table_of(table, look));
  look = {};
  look.colour = true;
  const std::string coloured = table_of(table, look);
  EXPECT_NE(std::string::npos, coloured.find("\033[31mname100")) << coloured;
  EXPECT_EQ(std::string::npos, coloured.find("mname101")) << "what runs has no colour";
}

TEST_F(WexstatTable, NamesCannotSpeakToTheTerminal) {
  status_table table;
  table.add("\033[2Jx\n");
  table.add("0123456789abcdef0123456789abcdef0");
  EXPECT_EQ(std::string::npos, table_of(table).find('\033'));
  EXPECT_NE(std::string::npos, table_of(table).find("\\x1b[2Jx\\x0a"));
  EXPECT_NE(std::string::npos, table_of(table).find("0123456789abcdef0123456789abcdef "));
}

TEST_F(WexstatTable, OneRegistrationHasItsFactsAndLastEvents) {
  status_table table;
  wex_status_slot& slot = table.add("app");
  slot.restarts = 3;
  put_text(slot.command, std::string(300, 'x'));
  table.add("other");
  table.add_event(WEX_STATUS_EV_EXITED, "other", 5).exit_code = 9;
  for (int i = 0; i < 20; ++i) {
    table.add_event(WEX_STATUS_EV_EXITED, "app", 100 + i).exit_code = 0x0100;
  }
  table.save();
  for (const char* name : {"app", "1000"}) {
    const answer said = wexstat(name);
    EXPECT_EQ(0, said.status);
    EXPECT_EQ(0U, said.text.find("app, pid 1000: running\n")) << said.text;
    EXPECT_NE(std::string::npos, said.text.find("  command     " + std::string(256, 'x') + " ...\n"));
    EXPECT_NE(std::string::npos, said.text.find("3 since its registration"));
    EXPECT_EQ(12U, occurrences(said.text, "exited: exit 1\n"));
    EXPECT_EQ(std::string::npos, said.text.find("SIGKILL"));
  }
  EXPECT_EQ(1, wexstat("nobody").status);
  EXPECT_EQ("wexstat: nothing is registered as nobody\n", wexstat("nobody").text);
}

TEST_F(WexstatTable, TheHistoryEndsWithTheNewest) {
  status_table table;
  for (int i = 0; i < 30; ++i) {
    table.add_event(WEX_STATUS_EV_RESTARTED, i % 2 == 0 ? "even" : "odd", i).new_pid = 1000 + i;
  }
  table.save();
  EXPECT_EQ(20U, lines_of(wexstat("--history").text).size());
  EXPECT_EQ(15U, occurrences(wexstat("--history 100 odd").text, "odd"));
  const std::string two = wexstat("--history=2").text;
  ASSERT_EQ(2U, lines_of(two).size());
  EXPECT_NE(std::string::npos, lines_of(two)[1].find("restarted as pid 1029"));
}

TEST_F(WexstatTable, WithoutATableItSaysWhatToDo) {
  const answer nothing = wexstat("");
  EXPECT_EQ(2, nothing.status);
  EXPECT_NE(std::string::npos, nothing.text.find("What to do: start wex")) << nothing.text;
  EXPECT_EQ("wex is not running: it has not run since the device started: there is no table\n",
            wexstat("--check").text);
  EXPECT_EQ(2, wexstat("--check").status);
  status_table table;
  table.head.version = 9;
  table.save();
  const answer other = wexstat("");
  EXPECT_EQ(3, other.status);
  EXPECT_NE(std::string::npos, other.text.find("the table has version 9, this wexstat reads version 1"));
  EXPECT_EQ(3, wexstat("--check").status);
}

TEST_F(WexstatTable, WrongWordsAreRefused) {
  for (const char* words : {"--history 3 a b", "--check --json", "--check x", "--watch=0", "--watch=x",
                            "--nothing", "--timeout 3", "--wait", "--wait a --timeout -1", "-x"}) {
    EXPECT_EQ(3, wexstat(words).status) << words;
  }
  EXPECT_EQ(0, wexstat("--help").status);
  EXPECT_EQ("wexstat 1.0.0\n", wexstat("--version").text);
}

// What --help tells, the manual page explains and the shell completes.
TEST_F(WexstatTable, EveryOptionIsInTheManualPageAndTheCompletion) {
  const std::string page = read_file(WEX_SOURCE_DIR "/docs/man/wexstat.1");
  const std::string completion = read_file(WEX_SOURCE_DIR "/packaging/completion/wexstat");
  const std::string help = wexstat("--help").text;
  const std::vector<std::string> options = all_matches(help, "--([a-z]+)", 1);
  for (const std::string& word : options) {
    EXPECT_NE(std::string::npos, page.find("\\-\\-" + word)) << word;
    EXPECT_TRUE(contains_match(completion, "[ ']--" + word + "[ ']")) << word;
  }
  EXPECT_GE(options.size(), 9U);
}

TEST_F(WexstatTable, TheShellCompletesOptionsAndNames) {
  status_table table;
  table.add("clock");
  table.add("clean", WEX_STATUS_PARKED);
  table.add("other");
  table.save();
  const auto completed = [](const std::string& words, int word) {
    return shell("PATH=" WEX_BUILD_DIR "/stat:$PATH bash -c 'source " WEX_SOURCE_DIR
                 "/packaging/completion/wexstat; COMP_WORDS=(" +
                 words + ") COMP_CWORD=" + std::to_string(word) + "; _wexstat; echo ${COMPREPLY[*]}'")
        .text;
  };
  EXPECT_EQ("--history --help\n", completed("wexstat --h", 1));
  EXPECT_EQ("clean clock\n", completed("wexstat cl", 1));
  EXPECT_EQ("other\n", completed("wexstat --wait o", 2));
  EXPECT_EQ("\n", completed("wexstat --watch \"\"", 2));
}

TEST_F(WexstatTable, OutputThatIsLostIsAFailure) {
  status_table().save();
  for (const char* words : {"", "--json", "--openmetrics", "--check", "--watch"}) {
    EXPECT_EQ(3, wexstat(std::string(words) + " > /dev/full").status) << words;
  }
}

TEST_F(WexstatTable, ItWaitsUntilAProgramRuns) {
  status_table table;
  table.add("app", WEX_STATUS_PARKED).pid = getpid();
  table.save();
  EXPECT_EQ("wexstat: app does not run, it is parked\n", wexstat("--wait app --timeout 0").text);
  EXPECT_EQ("wexstat: b does not run, it is not registered\n", wexstat("--wait b --timeout 0").text);
  EXPECT_EQ(1, wexstat("--wait app --timeout 0").status);
  Process waiting;
  ASSERT_TRUE(waiting.start({"sh", "-c", "exec " + binary() + " --wait app"}));
  EXPECT_TRUE(never([&] { return !waiting.running(); }, 300ms));
  table.slots[0].state = WEX_STATUS_RUNNING;
  table.save();
  EXPECT_TRUE(exited_with(waiting.wait(20s), 0));
  table.slots[0].pid = child::reaped();
  table.save();
  EXPECT_EQ(1, wexstat("--wait app --timeout 0").status) << "its end has not been reported yet";
}

TEST_F(WexstatTable, AThousandServicesTakeNoTime) {
  status_table table;
  for (int i = 0; i < 1000; ++i) {
    table.add("service" + std::to_string(i), i % 100 == 0 ? WEX_STATUS_PARKED : WEX_STATUS_RUNNING);
    table.add_event(WEX_STATUS_EV_EXITED, "service" + std::to_string(i), i);
  }
  table.save();
  for (const char* words : {"", "--json", "--openmetrics", "--check"}) {
    answer said;
    // The quickest of some answers: whoever else keeps the machine busy delays one and the other.
    const auto is_quick = [&] { return time_of([&] { said = wexstat(words); }) < 2000ms; };
    EXPECT_TRUE(eventually(is_quick, 60s)) << words << ": a tenth of that is allowed on a quiet machine";
    EXPECT_NE(std::string::npos, said.text.find("service0")) << words;
  }
}
