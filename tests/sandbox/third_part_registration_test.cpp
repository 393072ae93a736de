// Programs that know nothing of the daemon: which are registered when they are executed, and which are not.
#include <linux/netlink.h>
#include <sys/socket.h>

#include "third_part_world.h"
#include "unique_fd.h"

using namespace third_part;

namespace {
struct ThirdPartRegistration : ThirdPart {};
}  // namespace

TEST_F(ThirdPartRegistration, AListedProgramStartedByHandIsRegisteredAndRestarted) {
  ASSERT_NO_FATAL_FAILURE(start_listed("plain"));
  EXPECT_EQ(std::to_string(by_hand_.pid()) + "\n2\n" + app_, read_file(db_file("plain", by_hand_.pid())));
  const pid_t first = by_hand_.pid();
  const pid_t second = restarted();
  ASSERT_NE(0, second);
  EXPECT_TRUE(
      console_says("wex_spawn--> third part Normal[" + app_ + "] new pid: " + std::to_string(second)));
  EXPECT_FALSE(exists(db_file("plain", first)));
  EXPECT_TRUE(eventually([&] { return exists(db_file("plain", second)); }))
      << "its exec event makes the new file";
  send_signal(second, SIGKILL);
  const pid_t third = wait_for(app_, second);
  EXPECT_NE(0, third) << "it stays supervised";
  EXPECT_TRUE(eventually([&] { return exists(db_file("plain", third)); }));
  EXPECT_EQ(1u, list_dir("/tmp/vsd/0/wex/db").size());
}

TEST_F(ThirdPartRegistration, AProgramThatWasExecutedBeforeTheDaemonIsRegisteredAllTheSame) {
  const std::string app = install("earlier");
  describe("earlier", app + " WEX_RESTART");
  ASSERT_TRUE(start_by_hand({app}));
  ASSERT_TRUE(eventually([&] { return program_of(by_hand_.pid()) == app; }));
  ASSERT_TRUE(start_daemon());
  ASSERT_TRUE(registered(app, by_hand_.pid(), "earlier"));
  const pid_t first = by_hand_.pid();
  end_by_hand();
  EXPECT_NE(0, wait_for(app, first));
}

TEST_F(ThirdPartRegistration, TheTypeForScriptsRestartsThroughTheCommandMap) {
  ASSERT_NO_FATAL_FAILURE(start_listed("mapped", "WEX_SHELL_RESTART\n"));
  write_file("/etc/cmdmap/mapped.sh", "echo ran > /tmp/apps/ran\nexec " + app_ + "\n");
  EXPECT_EQ(std::to_string(by_hand_.pid()) + "\n3\n" + app_, read_file(db_file("mapped", by_hand_.pid())));
  const pid_t second = restarted();
  ASSERT_NE(0, second);
  EXPECT_TRUE(
      console_says("wex_shell_spawn--> third part Normal[" + app_ + "] new pid: " + std::to_string(second)));
  EXPECT_TRUE(exists("/tmp/apps/ran"));
}

TEST_F(ThirdPartRegistration, ASecondInstanceIsNotRegistered) {
  ASSERT_NO_FATAL_FAILURE(start_listed("twice"));
  Process second;
  ASSERT_TRUE(second.start({app_}));
  EXPECT_TRUE(console_says("wex_process_netlink--> " + app_ + " is running\n"));
  EXPECT_FALSE(exists(db_file("twice", second.pid())));
  EXPECT_TRUE(exists(db_file("twice", by_hand_.pid())));
}

TEST_F(ThirdPartRegistration, StoppedWithSigtermItIsForgotten) {
  ASSERT_NO_FATAL_FAILURE(start_listed("stopped"));
  const pid_t pid = by_hand_.pid();
  by_hand_.send(SIGTERM);
  EXPECT_TRUE(ended_by(by_hand_.wait(), SIGTERM));
  EXPECT_TRUE(eventually([&] { return !exists(db_file("stopped", pid)); }));
  EXPECT_TRUE(never([&] { return !pids_with_command(app_).empty(); }, 500ms));
}

// Its database file is what others can see of a registration.
TEST_F(ThirdPartRegistration, WhoeverHasADatabaseFileIsStoppedBySigtermAtOnce) {
  app_ = install("early");
  describe("early", app_ + " WEX_RESTART");
  ASSERT_TRUE(daemon_.start_traced({"trace=setsockopt", "inject=setsockopt:delay_enter=1000000"}));
  ASSERT_TRUE(daemon_.wait_ready(30s));
  ASSERT_TRUE(start_by_hand({app_}));
  const pid_t first = by_hand_.pid();
  ASSERT_TRUE(eventually([&] { return exists(db_file("early", first)); }, 15s)) << read_console();
  by_hand_.send(SIGTERM);
  EXPECT_TRUE(ended_by(by_hand_.wait(), SIGTERM));
  EXPECT_TRUE(eventually([&] { return !exists(db_file("early", first)); }, 30s)) << read_console();
  EXPECT_EQ(std::string::npos, read_console().find("exit of pid " + std::to_string(first) + " was lost"))
      << "nobody knows any more that it was stopped";
  EXPECT_TRUE(pids_with_command(app_).empty()) << read_console();
}

TEST_F(ThirdPartRegistration, AProcessWithArgumentsThatTheListDoesNotNameIsNotRegistered) {
  const std::string app = install("words");
  describe("words", app + " -d WEX_RESTART");
  ASSERT_TRUE(start_daemon());
  ASSERT_TRUE(start_by_hand({app, "-x"}));
  EXPECT_TRUE(console_says(app + " -x is not in wexdb!\n"));
  EXPECT_TRUE(list_dir("/tmp/vsd/0/wex/db").empty());
}

TEST_F(ThirdPartRegistration, AListLineWithoutABlankRegistersNothing) {
  const std::string app = install("blankless");
  const std::string other = install("witness");
  describe("blankless", app);
  describe("witness", other + " WEX_RESTART");
  ASSERT_TRUE(start_daemon());
  Process unlisted;
  ASSERT_TRUE(unlisted.start({app}));
  ASSERT_TRUE(start_by_hand({other}));
  ASSERT_TRUE(registered(other, by_hand_.pid(), "witness"));
  EXPECT_FALSE(exists(db_file("blankless", unlisted.pid())));
}

TEST_F(ThirdPartRegistration, ATypeKeepsItsLineEndAndIsUnderstood) {
  ASSERT_NO_FATAL_FAILURE(start_listed("lineend", "WEX_RESTART\n"));
  EXPECT_TRUE(console_says("type: WEX_RESTART\n, type_len: 12\n"));
}

TEST_F(ThirdPartRegistration, ATypeThatOnlyBeginsLikeAKeywordIsUnderstood) {
  ASSERT_NO_FATAL_FAILURE(start_listed("longer", "WEX_RESTARTING"));
}

namespace {
struct refused_case {
  const char* name;
  const char* type;
};
class RefusedType : public ThirdPart, public ::testing::WithParamInterface<refused_case> {};
}  // namespace

TEST_P(RefusedType, RegistersNothingAndSaysSo) {
  const std::string app = install("refused");
  describe("refused", app + GetParam().type);
  ASSERT_TRUE(start_daemon());
  ASSERT_TRUE(start_by_hand({app}));
  EXPECT_TRUE(console_says("wex_process_netlink--> reg_third_part_process_exit_action error!\n"));
  EXPECT_TRUE(list_dir("/tmp/vsd/0/wex/db").empty());
}

INSTANTIATE_TEST_SUITE_P(Rows, RefusedType,
                         ::testing::Values(refused_case{"trailingBlank", " WEX_RESTART \n"},
                                           refused_case{"unknownWord", " WEX_REBOOT"},
                                           refused_case{"lowerCase", " wex_restart"}),
                         [](const auto& row) { return std::string(row.param.name); });

// ---- Forged events ----------------------------------------------------------------------------------------

namespace {

// As the kernel tells that `pid` executed a program.
std::string exec_event(pid_t pid) {
  std::string message(76, '\0');
  const auto put = [&](size_t at, uint32_t value) { memcpy(&message[at], &value, sizeof value); };
  put(0, 76);
  put(4, NLMSG_DONE);
  put(16, 1);
  put(20, 1);
  put(32, 40);
  put(36, 2);
  put(52, static_cast<uint32_t>(pid));
  put(56, static_cast<uint32_t>(pid));
  return message;
}

// The number of the sender, 0 when it could not be sent.
uint32_t send_to_monitor(pid_t daemon, uint32_t groups, const std::string& message) {
  const unique_fd sender(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, 11));
  sockaddr_nl to = {};
  to.nl_family = AF_NETLINK;
  to.nl_pid = static_cast<uint32_t>(daemon);
  to.nl_groups = groups;
  sockaddr_nl own = {};
  socklen_t size = sizeof own;
  const bool sent = sendto(sender.get(), message.data(), message.size(), 0, reinterpret_cast<sockaddr*>(&to),
                           sizeof to) == static_cast<ssize_t>(message.size());
  return sent && getsockname(sender.get(), reinterpret_cast<sockaddr*>(&own), &size) == 0 ? own.nl_pid : 0;
}

}  // namespace

TEST_F(ThirdPartRegistration, EventsThatTheKernelDidNotSendAreDropped) {
  const std::string bystander = install("bystander");
  const std::string app = install("app");
  const std::string last = install("last");
  describe("app", app + " WEX_RESTART");
  describe("last", last + " WEX_RESTART");
  Process earlier;
  ASSERT_TRUE(earlier.start({bystander}));
  ASSERT_TRUE(start_by_hand({app}));
  ASSERT_TRUE(eventually(
      [&] { return program_of(earlier.pid()) == bystander && program_of(by_hand_.pid()) == app; }));
  ASSERT_TRUE(daemon_.start_traced({"trace=recvfrom"}));
  ASSERT_TRUE(daemon_.wait_ready(30s));
  ASSERT_TRUE(registered(app, by_hand_.pid(), "app"));  // so the look at all processes is past the other one
  std::ofstream(kThirdPartList, std::ios::app) << bystander << " WEX_RESTART\n";
  const std::string event = exec_event(earlier.pid());
  for (const uint32_t groups : {0u, 1u}) {  // to the daemon alone, and to all who listen
    const uint32_t sender = send_to_monitor(daemon_.pid(), groups, event);
    ASSERT_NE(0u, sender) << strerror(errno);
    const std::string from =
        "nl_pid=" + std::to_string(sender) + ", nl_groups=" + (groups == 0 ? "0" : "0x") + "00000";
    EXPECT_TRUE(eventually([&] { return Daemon::trace().find(from) != std::string::npos; }))
        << from << " did not arrive\n"
        << Daemon::trace();
  }
  Process behind;  // in the same queue
  ASSERT_TRUE(behind.start({last}));
  ASSERT_TRUE(registered(last, behind.pid(), "last"));
  EXPECT_EQ(std::string::npos, read_console().find("To register to wex, process: " + bystander))
      << read_console();
  EXPECT_FALSE(exists(db_file("bystander", earlier.pid())));
  daemon_.kill_now();
  behind.kill_now();
  earlier.kill_now();
}

// As when a program has died before it was looked at. No text is part of every line, so it gets as far as the
// registration, with the type of the first.
TEST_F(ThirdPartRegistration, AProgramWhoseCommandLineCannotBeReadIsReportedAndRefused) {
  const std::string app = install("unread");
  describe("unread", app + " WEX_RESTART");
  // Every program executed anywhere makes the monitor read one link, a listed one further ones.
  ASSERT_TRUE(daemon_.start_traced({"inject=readlink:error=EACCES:when=2+2"}));
  ASSERT_TRUE(daemon_.wait_ready(30s));
  const auto refused = [] {
    return read_console().find("]wex_process_netlink--> pid_to_proc error!\n") != std::string::npos;
  };
  // A life that meets the other parity is registered, or not found in the list: that one says nothing.
  const auto told = [&] { return refused() || exists(db_file("unread", by_hand_.pid())); };
  std::set<std::string> lives;
  const auto end = std::chrono::steady_clock::now() + 60s;
  while (!refused() && std::chrono::steady_clock::now() < end) {
    by_hand_.send(SIGTERM);
    by_hand_.wait();
    ASSERT_TRUE(start_by_hand({app}));
    lives.insert(std::to_string(by_hand_.pid()));
    eventually(told, 2s);
  }
  EXPECT_TRUE(refused()) << read_console();
  const std::string line =
      "\\]wex_process_netlink--> To register to wex, process: , pid: ([0-9]+), type: WEX_RESTART\n";
  ASSERT_TRUE(eventually([&] { return contains_match(read_console(), line); }, 20s)) << read_console();
  const std::string unread = groups_of(read_console(), line)[1];
  EXPECT_EQ(1u, lives.count(unread)) << read_console();
  EXPECT_TRUE(console_says("]wex_process_netlink--> reg_third_part_process_exit_action error!\n", 20s));
  EXPECT_FALSE(exists(db_file("unread", std::stoi(unread))));
  by_hand_.send(SIGTERM);
  by_hand_.wait();
}
