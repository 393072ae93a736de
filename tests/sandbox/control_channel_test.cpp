// The control channel of the real daemon: honest clients, careless ones and hostile ones.
#include "control_client.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <climits>
#include <csignal>
#include <functional>
#include <memory>
#include <sstream>

#include "forked.h"
#include "handled_exits.h"
#include "lingering_socket.h"
#include "received_descriptors.h"
#include "wex_rpc.h"
#include "wex_sys_alive.h"

using namespace control_client;
using namespace forked;

namespace {

// Real-time priority and policy of a thread, as /proc has them: "99 1" is first in, first out at 99.
std::string scheduling_of(pid_t pid, const std::string& name) {
  const std::string tid = thread_of(pid, name);
  std::istringstream fields(read_file("/proc/" + std::to_string(pid) + "/task/" + tid + "/stat"));
  std::string field;
  std::string wanted;
  for (int number = 1; fields >> field; ++number) {  // no name of ours holds a blank
    wanted += number == 40 ? field + " " : number == 41 ? field : "";
  }
  return wanted;
}

}  // namespace

TEST_F(ControlChannel, AcknowledgesAllTypesButReports) {
  start();
  for (const uint32_t type : {1U, 2U, 3U, 5U}) {
    const raw_client client;
    ASSERT_TRUE(client.send_body(type, body_of(0)));
    EXPECT_TRUE(client.acknowledged()) << type;
    EXPECT_TRUE(console_says(dispatched(type, type == 5 ? 0 : -1))) << "process 0 cannot be registered";
    EXPECT_EQ(-1, client.next(nullptr, 50ms)) << "one acknowledgement a message";
  }
  const raw_client reporter;
  ASSERT_TRUE(reporter.send_body(WEX_NOTIFIER_RESET, body_of(0)));
  EXPECT_TRUE(console_says(dispatched(4, -1)));
  EXPECT_EQ(-1, reporter.next(nullptr, 50ms));
}

TEST_F(ControlChannel, KeepsAClientConnectedWhateverItsMessagesCameTo) {
  start();
  const raw_client client;
  for (int round = 0; round < 50; ++round) {
    ASSERT_TRUE(client.send_body(WEX_RESTART, body_of(0)));
    ASSERT_TRUE(client.acknowledged());
  }
  EXPECT_TRUE(eventually([] { return occurrences(read_console(), dispatched(1, -1)) == 50; }));
}

TEST_F(ControlChannel, ARegistrationBringsTheProgramBackAndACancellationDoesNot) {
  start();
  const std::vector<std::string> options = {"--hold"};
  Process service;
  ASSERT_TRUE(service.start(actor_words(options)));
  const pid_t first = wait_for_actor(options);
  const raw_client client;
  ASSERT_TRUE(client.send_body(WEX_RESTART, body_of(first)));
  ASSERT_TRUE(client.acknowledged());
  ASSERT_TRUE(console_says(dispatched(1, 0)));
  service.kill_now();
  const pid_t second = wait_for_actor(options, first);
  ASSERT_GT(second, 0);
  ASSERT_EQ(0, in_child([&] { return wex_cancel_proc(second); }));
  send_signal(second, SIGKILL);
  EXPECT_TRUE(stays_down(options, second));
}

TEST_F(ControlChannel, CancellingRemovesTheDatabaseFile) {
  start();
  const std::vector<std::string> options = {"--register=RESTART", "--ready=/tmp/ready", "--hold"};
  Process service;
  ASSERT_TRUE(service.start(actor_words(options)));
  ASSERT_TRUE(eventually([] { return exists("/tmp/ready"); }));
  const std::string file = "/tmp/vsd/0/wex/db/actor." + std::to_string(service.pid());
  ASSERT_TRUE(exists(file));
  ASSERT_EQ(0, in_child([&] { return wex_cancel_proc(service.pid()); }));
  EXPECT_FALSE(exists(file));
  service.kill_now();
  EXPECT_TRUE(stays_down(options));
}

TEST_F(ControlChannel, AcknowledgesBeforeItHandles) {
  start();
  const std::vector<std::string> options = {"--hold"};
  Process service;
  ASSERT_TRUE(service.start(actor_words(options)));
  const pid_t first = wait_for_actor(options);
  wex_reg_info slow = body_of(first);
  slow.restart_delay = 8;
  const raw_client client;
  ASSERT_TRUE(client.send_body(WEX_RESTART, slow));
  ASSERT_TRUE(client.acknowledged());
  ASSERT_TRUE(console_says(dispatched(1, 0)));
  service.kill_now();
  // The exit handler now sleeps with the registry in its hand: whatever needs the registry waits.
  ASSERT_TRUE(console_says("]wex_handle_netlink_exit--> exit_signal = 9\n"));
  mark_console();
  ASSERT_TRUE(client.send_body(WEX_CONS_MSG, wex_cons_info{WEX_CANCEL_PROC, INT32_MAX}));
  std::string record;
  EXPECT_EQ(static_cast<ssize_t>(kHeader), client.next(&record, 5s));
  EXPECT_EQ(std::string::npos, read_console().find(dispatched(5, 0)));
  EXPECT_TRUE(console_says(dispatched(5, 0), 30s));
  EXPECT_GT(wait_for_actor(options, first, 30s), 0);
}

// What is to be registered is looked at in /proc: the look belongs to the handler.
TEST_F(ControlChannel, AcknowledgesEachRegistrationBeforeItLooksAtTheProcess) {
  ASSERT_TRUE(daemon.start_traced({"trace=recvmsg,sendto,readlink,readlinkat,openat"}));
  ASSERT_TRUE(daemon.wait_ready(30s));
  const std::vector<std::string> options = {"--hold"};
  Process service;
  ASSERT_TRUE(service.start(actor_words(options)));
  const pid_t pid = wait_for_actor(options);
  const raw_client client;
  for (const uint32_t type : {1U, 2U, 3U}) {
    ASSERT_TRUE(client.send_body(type, body_of(pid)));
    ASSERT_TRUE(client.acknowledged());
    ASSERT_TRUE(console_says(dispatched(type, 0)));
  }
  const std::string server = thread_of(daemon.pid(), "wex_process_dom") + " ";
  const std::string process = "\"/proc/" + std::to_string(pid) + "/";
  std::string steps;  // r: received, s: sent, p: looked at the process; repeated looks as one
  EXPECT_TRUE(eventually([&] {
    steps.clear();
    for (const std::string& line : lines_of(Daemon::trace())) {
      if (line.compare(0, server.size(), server) != 0) {
        continue;
      }
      if (line.find(" recvmsg(") != std::string::npos && line.find("MSG_DONTWAIT") != std::string::npos) {
        continue;  // what a connection still held when it was closed
      }
      const char step = line.find(" recvmsg(") != std::string::npos  ? 'r'
                        : line.find(" sendto(") != std::string::npos ? 's'
                        : line.find(process) != std::string::npos    ? 'p'
                                                                     : '\0';
      if (step != '\0' && (step != 'p' || steps.empty() || steps.back() != 'p')) {
        steps += step;
      }
    }
    return steps == "rsprsprsp";
  })) << steps;
  daemon.kill_now();  // or it would start the service again
}

TEST_F(ControlChannel, RefusesOtherTypesAndDropsTheirSenderOnly) {
  start();
  const std::vector<std::string> options = {"--hold"};
  Process service;
  ASSERT_TRUE(service.start(actor_words(options)));
  const pid_t pid = wait_for_actor(options);  // whoever applied the message could register it
  const raw_client honest;
  for (const uint32_t type : {0U, 6U, 268U, 0x7fffffffU, 0xffffffffU}) {
    const raw_client client;
    ASSERT_TRUE(client.send_body(type, body_of(pid)));
    EXPECT_TRUE(client.dropped()) << type;
    EXPECT_TRUE(console_says("]recv unknown type msg " + std::to_string(static_cast<int32_t>(type)) + "\n"));
  }
  ASSERT_TRUE(honest.send_body(WEX_CONS_MSG, harmless()));
  EXPECT_TRUE(honest.acknowledged());
  ASSERT_TRUE(console_says(dispatched(5, 0)));
  EXPECT_EQ(1U, occurrences(read_console(), "]wex_dispatch_domain_msg ")) << "one of them was applied";
  service.kill_now();
  EXPECT_TRUE(stays_down(options)) << "one of them registered it";
}

TEST_F(ControlChannel, ARequestWhoseHandlerFailsSucceedsAllTheSame) {
  start();
  EXPECT_EQ(0, in_child([] {
              const wex_reg_info nobody = body_of(0);
              return wex_rpc(WEX_RESTART, nullptr, &nobody, sizeof nobody, 1, 0);
            }));
  EXPECT_TRUE(console_says(dispatched(1, -1)));
}

TEST_F(ControlChannel, DropsAClientThatLeavesWithoutAWord) {
  start();
  const size_t before = descriptors_of(daemon.pid());
  { const raw_client client; }
  EXPECT_TRUE(console_says("]wex_inner_recv_msg: recv peek err(ret:0, "));
  EXPECT_TRUE(console_says("]wex_recv_domain_msg: wex_inner_recv_msg err(ret:-1, sk:"));
  EXPECT_TRUE(eventually([&] { return descriptors_of(daemon.pid()) <= before; }));
}

TEST_F(ControlChannel, DropsClientsWhoseRecordsAreMalformedAndAllocatesNothingForThem) {
  start();
  const std::string before = status_field(daemon.pid(), "VmHWM");
  struct {
    int32_t length;
    size_t size;
  } const kLies[] = {{40, 300},
                     {0, 269},
                     {320, 587},
                     {320, 589},
                     {320, 268},
                     {8, 268},
                     {INT32_MAX, 268},
                     {INT32_MAX, 588},
                     {INT32_MAX - 267, 588},
                     {INT32_MAX - 268, 588},
                     {0x10000000, 588},
                     {-1, 268},
                     {INT32_MIN, 588},
                     {0, 267},
                     {0, 1},
                     {0, 0}};
  for (const auto& lie : kLies) {
    const raw_client client;
    ASSERT_TRUE(client.send_record(WEX_RESTART, lie.length, lie.size));
    EXPECT_TRUE(client.dropped()) << lie.length << " in " << lie.size;
  }
  EXPECT_TRUE(serves());
  const std::string after = status_field(daemon.pid(), "VmHWM");
  EXPECT_LT(atol(after.c_str()) - atol(before.c_str()), 4096) << before << " -> " << after;
  EXPECT_EQ(0U, occurrences(read_console(), "wex_dispatch_domain_msg type:1 "));
}

namespace {

bool can_refuse_descriptors() {
  const unique_fd sd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  int taken = 0;
  socklen_t size = sizeof taken;
  return getsockopt(sd.get(), SOL_SOCKET, SO_PASSRIGHTS, &taken, &size) == 0;
}

void expect_served_at_once() {
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(ControlChannel::serves());
  EXPECT_LT(std::chrono::steady_clock::now() - start, 20s);
}

}  // namespace

// The last close of such a socket blocks for as long as its owner chose. Where the kernel does not refuse the
// descriptor, the daemon receives it.
TEST_F(ControlChannel, ADescriptorSentAlongDoesNotBlockTheServer) {
  start();
  for (const bool lies : {false, true}) {
    const raw_client sender;
    const lingering_socket lingering(60);
    const bool taken = sender.send_with_descriptor(WEX_CONS_MSG, lies ? 40 : 0, lingering.take());
    const int cause = errno;
    EXPECT_EQ(!can_refuse_descriptors(), taken);
    EXPECT_TRUE(taken || cause == EPERM) << strerror(cause);
    expect_served_at_once();
  }
}

// As above, but the descriptor lies unread behind the record for which its sender is dropped.
TEST_F(ControlChannel, ADescriptorBehindABadRecordDoesNotBlockTheServer) {
  // The first option of the server's thread is the one by which newer kernels refuse descriptors.
  ASSERT_TRUE(daemon.start_traced({"inject=setsockopt:error=ENOPROTOOPT:when=1"}));
  ASSERT_TRUE(daemon.wait_ready(30s));
  const raw_client sender;
  const lingering_socket lingering(60);
  ASSERT_NO_FATAL_FAILURE(stop_traced());
  ASSERT_TRUE(sender.send_record(WEX_RESTART, 40, kHeader));
  ASSERT_TRUE(sender.send_with_descriptor(WEX_CONS_MSG, 0, lingering.take())) << strerror(errno);
  daemon.send(SIGCONT);
  expect_served_at_once();
  EXPECT_TRUE(sender.dropped());
}

TEST_F(ControlChannel, KeepsItsClientsFromTheProgramsItStarts) {
  start();
  const raw_client client;
  ASSERT_TRUE(client.send_body(WEX_CONS_MSG, harmless()));
  ASSERT_TRUE(client.acknowledged());
  EXPECT_EQ(std::vector<std::string>{}, inheritable_files_of(daemon.pid()));
}

// The server, the monitor and the watchdog stand above everything else on the device.
TEST_F(ControlChannel, ItsUrgentThreadsRunFirstInFirstOutAtPriority99) {
  start();
  for (const char* const name : {"wex_process_dom", "wex_process_net", "wex_thread_noti"}) {
    EXPECT_TRUE(eventually([&] { return scheduling_of(daemon.pid(), name) == "99 1"; }))
        << name << ": " << scheduling_of(daemon.pid(), name);
  }
}

TEST_F(ControlChannel, ReadsAShortPayloadAsZerosAndIgnoresALongOnesRest) {
  start();
  const std::vector<std::string> options = {"--hold"};
  Process service;
  ASSERT_TRUE(service.start(actor_words(options)));
  const pid_t pid = wait_for_actor(options);
  const raw_client client;
  ASSERT_TRUE(client.send_record(WEX_RESTART, 0, kHeader));
  EXPECT_TRUE(client.acknowledged());
  EXPECT_TRUE(console_says(dispatched(1, -1)));
  ASSERT_TRUE(client.send_body(WEX_RESTART, pid));
  EXPECT_TRUE(client.acknowledged());
  EXPECT_TRUE(console_says(dispatched(1, 0)));
  struct {
    wex_cons_info cancel;
    char rest[3000];
  } const excess = {{WEX_CANCEL_PROC, pid}, {}};
  ASSERT_TRUE(client.send_body(WEX_CONS_MSG, excess));
  EXPECT_TRUE(client.acknowledged());
  EXPECT_TRUE(console_says(dispatched(5, 0)));
  service.kill_now();
  EXPECT_TRUE(stays_down(options)) << "it was not cancelled";
}

// Of a name that fills its field 255 characters are kept, and nothing of what lies behind it.
TEST_F(ControlChannel, TakesANameWithoutATerminator) {
  constexpr char kArguments[] = "/tmp/arguments";
  write_file("/etc/cmdmap/probe", std::string("echo \"$# $1\" > ") + kArguments + ".part\nmv " + kArguments +
                                      ".part " + kArguments + "\nexec " + actor_binary() + " --hold\n");
  start();
  const std::vector<std::string> options = {"--hold", "--label=named"};
  Process service;
  ASSERT_TRUE(service.start(actor_words(options)));
  const wex_reg_info body = body_of(wait_for_actor(options));
  struct {
    uint32_t type = WEX_SHELL_RESTART;
    int32_t length = sizeof(wex_reg_info);
    char name[256];
    uint32_t reserved = 0x42424242;
    wex_reg_info body;
  } record;
  static_assert(sizeof record == kHeader + sizeof(wex_reg_info), "a record without gaps");
  memset(record.name, 'n', sizeof record.name);
  memcpy(record.name, "probe ", 6);
  record.body = body;
  const raw_client client;
  ASSERT_TRUE(client.send_bytes(&record, sizeof record));
  EXPECT_TRUE(client.acknowledged());
  EXPECT_TRUE(console_says(dispatched(2, 0)));
  EXPECT_TRUE(serves());
  service.kill_now();
  EXPECT_TRUE(eventually([&] { return exists(kArguments); })) << read_console();
  EXPECT_EQ("1 " + std::string(249, 'n') + "\n", read_file(kArguments));
  unlink(kArguments);
}

TEST_F(ControlChannel, RegistersAThreadInTheTableByMessage) {
  start();
  const std::vector<std::string> options = {"--hold"};
  Process service;
  ASSERT_TRUE(service.start(actor_words(options)));
  const pid_t pid = wait_for_actor(options);
  const auto byte = [&] {
    return read_file(kAliveTableFile)[WEX_ALIVE_SEQ_OFFSET + static_cast<size_t>(pid)];
  };
  ASSERT_EQ(0, byte());
  wex_reg_info body = body_of(pid);
  body.ppid = pid;
  body.ntfy_cnt = body.cur_cnt = 5;
  body.ntfy_time = 120;
  const raw_client client;
  for (const uint32_t type : {3U, 4U}) {
    ASSERT_TRUE(client.send_body(type, body));
    EXPECT_TRUE(console_says(dispatched(type, 0)));
    EXPECT_EQ(1, byte());
    ASSERT_TRUE(client.send_body(WEX_CONS_MSG, wex_cons_info{WEX_CANCEL_THREAD_NOTIFY, pid}));
    EXPECT_TRUE(eventually([&] { return byte() == 0; }));
  }
}

TEST_F(ControlChannel, DropsAClientThatNeverReadsAndServesTheOthers) {
  start();
  const raw_client deaf;
  for (int count = 0; count < 20000 && deaf.send_body(WEX_CONS_MSG, harmless()); ++count) {
  }
  EXPECT_TRUE(console_says("]wex_rsp_domain_msg: wex_inner_send_msg err(ret:-1, sk:"));
  EXPECT_TRUE(serves());
}

TEST_F(ControlChannel, HoldsAllItsClientsAndEndsAtOneTooMany) {
  rlimit files = {};
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &files));
  const rlimit enough = {4096, std::max(files.rlim_max, rlim_t{4096})};
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &enough));
  start();
  {
    std::vector<std::unique_ptr<raw_client>> clients;
    const size_t before = descriptors_of(daemon.pid());
    for (int count = 0; count < kMaxClients; ++count) {
      clients.push_back(std::make_unique<raw_client>());
      ASSERT_TRUE(clients.back()->connected()) << count;
    }
    ASSERT_TRUE(eventually([&] { return descriptors_of(daemon.pid()) >= before + kMaxClients - 1; }, 60s));
    for (const size_t at : {size_t{0}, size_t{1000}, size_t{kMaxClients - 1}}) {
      ASSERT_TRUE(clients[at]->send_body(WEX_CONS_MSG, harmless()));
      EXPECT_TRUE(clients[at]->acknowledged()) << at;
    }
    EXPECT_TRUE(daemon.running());
    const raw_client one_too_many;
    EXPECT_TRUE(exited_with(daemon.wait(20s), 0));
    EXPECT_TRUE(console_says("]wex_process_domain: logic err, clnt_sd full, now_sd:"));
    EXPECT_TRUE(server_ended("-9")) << running_log();
  }
  setrlimit(RLIMIT_NOFILE, &files);
}

// On a kernel that lets descriptors through: closing these takes a minute each. One client is too many, the
// other one still waits to be accepted.
TEST_F(ControlChannel, DescriptorsOfClientsThatFoundNoRoomDoNotHoldUpItsEnd) {
  rlimit files = {};
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &files));
  const rlimit enough = {4096, std::max(files.rlim_max, rlim_t{4096})};
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &enough));
  ASSERT_TRUE(daemon.start_traced({"inject=setsockopt:error=ENOPROTOOPT:when=1"}));
  ASSERT_TRUE(daemon.wait_ready(30s));
  {
    const std::vector<raw_client> clients(kMaxClients);
    ASSERT_TRUE(clients.back().send_body(WEX_CONS_MSG, harmless()) && clients.back().acknowledged());
    ASSERT_NO_FATAL_FAILURE(stop_traced());
    const raw_client one_too_many, waiting;
    const lingering_socket first(60), second(60);
    ASSERT_TRUE(one_too_many.send_with_descriptor(WEX_CONS_MSG, 0, first.take()));
    ASSERT_TRUE(waiting.send_with_descriptor(WEX_CONS_MSG, 0, second.take()));
    daemon.send(SIGCONT);
    EXPECT_TRUE(daemon.wait(20s).has_value());
  }
  setrlimit(RLIMIT_NOFILE, &files);
}

TEST_F(ControlChannel, ReplacesAStaleSocketFileAndOpensItToEverybody) {
  write_file(kControlSocket, "stale", 0600);
  start();
  struct stat facts = {};
  ASSERT_EQ(0, stat(kControlSocket, &facts));
  EXPECT_TRUE(S_ISSOCK(facts.st_mode));
  EXPECT_EQ(0777U, facts.st_mode & 07777U);
  EXPECT_TRUE(serves());
}

TEST_F(ControlChannel, ItsSocketIsOpenToEverybodyWhateverTheUmaskOfTheStarter) {
  for (const mode_t mask : {022u, 077u, 0777u, 0u}) {
    umask(mask);
    start();
    umask(022);
    EXPECT_EQ(0777u, mode_of(kControlSocket)) << std::oct << mask;
    daemon.kill_now();
  }
}

TEST_F(ControlChannel, ARestartedProgramHasTheUmaskOfTheStarter) {
  umask(027);
  start();
  umask(022);
  EXPECT_EQ(0777u, mode_of(kControlSocket));
  EXPECT_EQ("0027", status_field(daemon.pid(), "Umask"));
  const std::vector<std::string> options = {"--hold"};
  Process service;
  ASSERT_TRUE(service.start(actor_words(options)));
  const pid_t first = wait_for_actor(options);
  EXPECT_EQ("0022", status_field(first, "Umask"));
  const raw_client client;
  ASSERT_TRUE(client.send_body(WEX_RESTART, body_of(first)));
  ASSERT_TRUE(console_says(dispatched(1, 0)));
  service.kill_now();
  const pid_t second = wait_for_actor(options, first);
  ASSERT_GT(second, 0);
  EXPECT_EQ("0027", status_field(second, "Umask"));
}

namespace {

constexpr char kVictim[] = "/data/victim";

// Puts a link in the socket's place as soon as it is there, as anybody may who can write to the directory.
// False when the socket did not come.
bool swap_for_link() {
  const bool found = eventually(
      [] {
        struct stat node = {};
        return lstat(kControlSocket, &node) == 0 && S_ISSOCK(node.st_mode);
      },
      15s);
  return found && unlink(kControlSocket) == 0 && symlink(kVictim, kControlSocket) == 0;
}

}  // namespace

TEST_F(ControlChannel, ALinkPutInTheSocketsPlaceOpensNoOtherFile) {
  for (const char* const kernel : {"", "inject=unshare:error=ENOSYS"}) {
    write_file(kVictim, "precious", 0600);
    std::vector<std::string> injections = {"inject=bind:delay_exit=500000"};  // time for the hostile one
    if (*kernel != '\0') {
      injections.push_back(kernel);
    }
    ASSERT_TRUE(daemon.start_traced(injections));
    ASSERT_TRUE(swap_for_link());
    ASSERT_TRUE(eventually([] { return Daemon::trace().find(" listen(") != std::string::npos; }, 15s));
    EXPECT_EQ(0600u, mode_of(kVictim));
    EXPECT_EQ("precious", read_file(kVictim));
    daemon.kill_now();
    unlink(kVictim);
  }
}

TEST_F(ControlChannel, WithoutAUmaskOfItsOwnItsSocketIsAsTheStarterWouldHaveIt) {
  umask(022);
  ASSERT_TRUE(daemon.start_traced({"inject=unshare:error=ENOSYS"}));
  ASSERT_TRUE(eventually([] { return raw_client().connected(); }, 10s));
  EXPECT_EQ(0755u, mode_of(kControlSocket));
  EXPECT_TRUE(serves());
}

TEST_F(ControlChannel, TheLibraryFindsTheNextDaemon) {
  start();
  const pid_t client = start_child([] {
    const wex_cons_info body = harmless();
    if (wex_rpc(WEX_CONS_MSG, nullptr, &body, sizeof body, 1, 0) != 0) {
      return 1;
    }
    write_file("/tmp/first_sent", "");
    return eventually([] { return exists("/tmp/next_daemon"); }, 20s) &&
                   wex_rpc(WEX_CONS_MSG, nullptr, &body, sizeof body, 1, 0) == 0
               ? 0
               : 2;
  });
  EXPECT_TRUE(eventually([] { return exists("/tmp/first_sent"); }));
  EXPECT_TRUE(console_says(dispatched(5, 0)));
  daemon.kill_now();
  start();
  write_file("/tmp/next_daemon", "");
  EXPECT_EQ(0, exit_status(client));
  EXPECT_TRUE(console_says(dispatched(5, 0)));
  unlink("/tmp/first_sent");
  unlink("/tmp/next_daemon");
}

TEST_F(ControlChannel, CallsThatDoNotWaitAreAllApplied) {
  start();
  EXPECT_EQ(0, in_child([] {
              for (size_t count = 1; count <= 3; ++count) {
                if (wex_time_set(INT32_MAX, WEX_RESTART, 1) != 0 ||  // nobody has that pid
                    !eventually([&] { return occurrences(read_console(), dispatched(1, -1)) == count; })) {
                  return 1;
                }
              }
              return 0;
            }));
  EXPECT_TRUE(eventually([] { return occurrences(read_console(), "recv peek err(ret:") >= 3; }))
      << "each of them leaves a connection behind";
}

// Neither the client's socket nor its database file can be made.
TEST_F(ControlChannel, AServiceRegistersAndComesBackWhileThereIsNoRoomForAnyFile) {
  const std::vector<std::string> options = {"--register=RESTART", "--confirm", "--ready=/data/ready",
                                            "--hold"};
  ASSERT_EQ(0, mount("small", "/tmp", "tmpfs", 0, "size=1m,nr_inodes=1000,mode=1777")) << strerror(errno);
  start();
  int files = 0;
  while (unique_fd(open(("/tmp/" + std::to_string(files)).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600))
             .valid()) {
    ++files;
  }
  EXPECT_EQ(ENOSPC, errno);
  Process service;
  ASSERT_TRUE(service.start(actor_words(options)));
  const pid_t first = service.pid();
  EXPECT_TRUE(eventually([] { return exists("/data/ready"); }, 20s)) << read_console();
  EXPECT_TRUE(list_dir("/tmp/vsd/0/wex/db").empty()) << "there was room";
  service.kill_now();
  EXPECT_GT(wait_for_actor(options, first, 20s), 0) << read_console();
  EXPECT_TRUE(daemon.running());
  daemon.kill_now();
  clean_world();  // what the daemon made goes by names that are hidden afterwards
  EXPECT_EQ(0, umount2("/tmp", MNT_DETACH)) << strerror(errno);
  unlink("/data/ready");
}

TEST_F(ControlChannel, ALongRestartDelayIsReportedInTheRunningLog) {
  start();
  const std::vector<std::string> options = {"--time-set=3601", "--hold"};
  Process service;
  ASSERT_TRUE(service.start(actor_words(options)));
  const pid_t pid = wait_for_actor(options);
  EXPECT_TRUE(eventually([&] {
    return running_log().find("Process " + std::to_string(pid) +
                              " wants its restarts delayed by 3601 s.\r\n") != std::string::npos;
  }));
}
