// Taking a registration back, and calls that must get through, against a daemon played by the test.
#include <grp.h>
#include <signal.h>

#include "control_peer.h"
#include "kept_connection.h"
#include "unique_fd.h"
#include "wex_rpc.h"

using namespace control;

// ---- Cancelling -------------------------------------------------------------------------------------------

TEST(Cancel, WithdrawsTheCallerRemovesItsFileAndRestsASecond) {
  const daemon_end daemon;
  const sleeper subject;
  const std::string file = text_of(kDbFileFmt, 0, "sleep", subject.pid());
  ASSERT_EQ(0, system("mkdir -p /tmp/vsd/0/wex/db"));
  std::ofstream(file) << "x";
  const control::printed out;
  const auto start = clock::now();
  auto result = calling([&] { return wex_cancel_proc(subject.pid()); });
  const peer client = daemon.accept();
  const message in = client.receive();
  client.acknowledge();
  EXPECT_EQ(0, result.get());
  EXPECT_GE(seconds_since(start), 0.99);
  EXPECT_EQ(5U, in.header.msg_type);
  EXPECT_EQ(0U, in.body<wex_cons_info>().kind);
  EXPECT_EQ(subject.pid(), in.body<wex_cons_info>().pid);
  EXPECT_TRUE(out.has(text_of("]wex_cancel_proc:%d\n", subject.pid())));
  EXPECT_TRUE(out.has(text_of("]wex_rm_db_file_by_pid unlink file %s ret 0\n", file.c_str())));
  EXPECT_FALSE(exists(file));
}

TEST(Cancel, TakesZeroForTheCaller) {
  const daemon_end daemon;
  auto result = calling([] { return wex_cancel_proc(0); });
  const peer client = daemon.accept();
  EXPECT_EQ(getpid(), client.receive().body<wex_cons_info>().pid);
  client.acknowledge();
  EXPECT_EQ(0, result.get());
}

TEST(Cancel, RefusesANegativePidWithoutSending) {
  const daemon_end daemon;
  const control::printed out;
  EXPECT_EQ(-1, wex_cancel_proc(-3));
  EXPECT_TRUE(out.has("]The pid you enter is -3 < 0 \n"));
  EXPECT_FALSE(daemon.has_caller(0ms));
}

TEST(Cancel, RepeatsUntilTheDaemonAnswers) {
  const daemon_end daemon;
  const auto start = clock::now();
  auto result = calling([] { return wex_cancel_proc(0); });
  for (int failures = 0; failures < 2; ++failures) {
    daemon.accept().receive();  // and hang up
  }
  const peer client = daemon.accept();
  client.receive();
  client.acknowledge();
  EXPECT_EQ(0, result.get());
  EXPECT_GE(seconds_since(start), 2.9);
}

TEST(Cancel, TellsWhenTheProcessHasNoCommandLine) {
  const control::printed out;
  pid_t gone = start_child([] { return 0; });
  EXPECT_EQ(0, exit_status(gone));
  wex_rm_db_file_by_pid(gone);
  EXPECT_TRUE(out.has(text_of("]wex_rm_db_file_by_pid pid_to_cmdline(%d) fail\n", gone)));
}

TEST(Cancel, TellsTheResultOfTheRemoval) {
  const sleeper subject;
  const control::printed out;
  wex_rm_db_file_by_pid(subject.pid());
  EXPECT_TRUE(out.has("ret -1\n"));
  EXPECT_TRUE(out.has("]wex_rm_db_file_by_pid unlink file /tmp/vsd/0/wex/db/"));
}

TEST(Cancel, RemovesTheFileInTheProcesssOwnDomain) {
  ASSERT_EQ(0, system("mkdir -p /tmp/vsd/0/wex/db /tmp/vsd/3/wex/db"));
  const pid_t child = start_child([] {
    const gid_t group = 3300;
    if (setgroups(1, &group) != 0) {
      return 90;
    }
    for (const int domain : {0, 3}) {
      std::ofstream(text_of(kDbFileFmt, domain, program_invocation_short_name, getpid())) << "x";
    }
    wex_rm_db_file_by_pid(getpid());
    return 0;
  });
  EXPECT_EQ(0, exit_status(child));
  EXPECT_FALSE(exists(text_of(kDbFileFmt, 3, program_invocation_short_name, child)));
  EXPECT_TRUE(exists(text_of(kDbFileFmt, 0, program_invocation_short_name, child)));
}

TEST(Cancel, RemovesTheFileOfAProgramWithALongNameAndNoOther) {
  const std::string program = "/tmp/" + std::string(235, 'n');
  ASSERT_EQ(0, system(("cp /bin/sleep " + program + " && mkdir -p /tmp/vsd/0/wex/db").c_str()));
  const pid_t pid = fork();
  if (pid == 0) {
    execl(program.c_str(), program.c_str(), "600", static_cast<char*>(nullptr));
    _exit(127);
  }
  const std::string link = "/proc/" + std::to_string(pid) + "/exe";
  char target[300] = {};
  EXPECT_TRUE(
      eventually([&] { return readlink(link.c_str(), target, sizeof target - 1) > 0 && target == program; }));
  const std::string whole = text_of(kDbFileFmt, 0, program.c_str() + 5, pid);
  ASSERT_GT(whole.size(), 255U);
  const std::string others = whole.substr(0, 255);
  std::ofstream(others) << "x";
  std::ofstream(whole) << "x";
  const control::printed out;
  wex_rm_db_file_by_pid(pid);
  EXPECT_TRUE(exists(others)) << "a registration of somebody else";
  EXPECT_FALSE(exists(whole));
  EXPECT_TRUE(out.has("unlink file " + whole + " ret 0\n"));
  send_signal(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
  unlink(others.c_str());
  unlink(program.c_str());
}

// ---- Calls that must get through --------------------------------------------------------------------------

TEST(Persistence, CallsThatMustGetThroughGiveUpAfterThirtyTriesOneSecondApart) {
  // A socket of another type, so that every connection fails at once.
  const unique_fd stranger(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address;
  const socklen_t length = wex_control_address(kControlSocket, &address);
  ASSERT_EQ(0, system("mkdir -p " WEX_RUN));
  unlink(kControlSocket);
  ASSERT_EQ(0, bind(stranger.get(), reinterpret_cast<const sockaddr*>(&address), length));
  ASSERT_EQ(0, listen(stranger.get(), 1));
  const control::printed out;
  const auto start = clock::now();
  const pid_t cancelling = start_child([] { return wex_cancel_proc(0) == -1 ? 0 : 1; });
  const pid_t registering = start_child([] { return reg_process_exit_action(0, WEX_RESTART); });
  const pid_t reporting =
      start_child([] { return wex_client_reg_thread_notify(getpid(), gettid(), 60, 1) == -1 ? 0 : 1; });
  EXPECT_EQ(0, exit_status(cancelling));
  EXPECT_EQ(0, exit_status(registering)) << "a registration reports success even then";
  EXPECT_EQ(0, exit_status(reporting));
  EXPECT_GE(seconds_since(start), 29.9);
  EXPECT_LT(seconds_since(start), 34.0);
  EXPECT_EQ(90U, occurrences(out.text(), "]wex_connect: connect refused, wait and retry("));
  EXPECT_TRUE(out.has(text_of("]wex_cancel_proc: cancel fail: %s\n", strerror(EPROTOTYPE))));
  EXPECT_TRUE(out.has("]reg thread notify err(ret:-1)!\n"));
  unlink(kControlSocket);
}
