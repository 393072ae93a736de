// The tables of capabilities in docs/integrator.md: the daemon does its work with exactly these, and without
// any one of them a part of it is left undone. CAP_SYS_BOOT is what no test may have.
#include <linux/capability.h>
#include <linux/netlink.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <set>
#include <sstream>

#include "raw_client.h"
#include "restart_policy.h"
#include "status_reader.h"
#include "wex_limits.h"
#include "wex_paths.h"
#include "wex_vsd.h"

using namespace policy;

namespace {

constexpr uid_t kOtherUser = 1234;
constexpr char kReadyOfOther[] = "/tmp/ready.other";

struct capability {
  const char* name;
  unsigned number;
};
constexpr capability kKnown[] = {{"CAP_CHOWN", CAP_CHOWN},         {"CAP_DAC_OVERRIDE", CAP_DAC_OVERRIDE},
                                 {"CAP_FOWNER", CAP_FOWNER},       {"CAP_KILL", CAP_KILL},
                                 {"CAP_SETGID", CAP_SETGID},       {"CAP_SETUID", CAP_SETUID},
                                 {"CAP_NET_ADMIN", CAP_NET_ADMIN}, {"CAP_SYS_PTRACE", CAP_SYS_PTRACE},
                                 {"CAP_SYS_NICE", CAP_SYS_NICE},   {"CAP_SYS_RESOURCE", CAP_SYS_RESOURCE}};

// The first cells of the document's table.
std::vector<std::string> documented(bool strict = false) {
  std::vector<std::string> names;
  const char* const row = strict ? "^\\| `(CAP_[A-Z_]+)`(, in strict mode)? \\|" : "^\\| `(CAP_[A-Z_]+)` \\|";
  for (const std::string& line : lines_of(read_file(WEX_SOURCE_DIR "/docs/integrator.md"))) {
    const std::vector<std::string> cell = groups_of(line, row);
    if (!cell.empty() && cell[1] != "CAP_SYS_BOOT") {
      names.push_back(cell[1]);
    }
  }
  return names;
}

// The machine that runs the tests may lack one itself.
bool granted(unsigned number) {
  return prctl(PR_CAPBSET_READ, number) == 1;
}

std::vector<std::string> all_but(const std::string& name, bool strict = false) {
  std::vector<std::string> names = documented(strict);
  names.erase(std::remove(names.begin(), names.end(), name), names.end());
  return names;
}

uint64_t mask_of(const std::vector<std::string>& names) {
  uint64_t mask = 0;
  for (const capability& known : kKnown) {
    if (std::find(names.begin(), names.end(), known.name) != names.end()) {
      mask |= uint64_t{granted(known.number)} << known.number;
    }
  }
  return mask;
}

const std::vector<std::string>& service_of_domain() {
  static const std::vector<std::string> options = {"--tag=inner", "--register=RESTART", "--hold"};
  return options;
}
const std::vector<std::string>& service_of_other() {
  static const std::vector<std::string> options = {"--tag=other", "--register=RESTART", "--confirm",
                                                   std::string("--ready=") + kReadyOfOther, "--hold"};
  return options;
}

class Capabilities : public WexWorld, public ::testing::WithParamInterface<const char*> {
 protected:
  // Another user owns the data disk, and left a registration of a domain whose process is gone.
  void SetUp() override {
    WexWorld::SetUp();
    ASSERT_EQ(0, chown("/data", kOtherUser, kOtherUser));
    ASSERT_EQ(0, chmod("/data", 0755));
    make_dirs("/tmp/vsd/2/wex/db");
    make_dirs("/data/var/run/vsd/2");
    Process gone;
    ASSERT_TRUE(gone.start({"true"}));
    const std::string pid = std::to_string(gone.pid());
    gone.wait();
    const std::string file = db_file("actor", std::stoi(pid), 2);
    write_file(file, pid + "\n2\n" + actor_command(service_of_domain()), 0700);
    ASSERT_EQ(0, chown(file.c_str(), kOtherUser, kOtherUser));
    write_file("/tmp/vsd/2/wex/" + pid, "");
    unlink(kReadyOfOther);
  }
  void TearDown() override {
    daemon_.kill_now();
    WexWorld::TearDown();
    EXPECT_EQ(0, chown("/data", 0, 0));
    EXPECT_EQ(0, chmod("/data", 0755));
  }

  // With `low_limit` the hard limit of descriptors is below what the daemon wants: for cases in which it can
  // raise the limit, and for the one in which it is to fail.
  bool start_with(const std::vector<std::string>& names, bool low_limit = granted(CAP_SYS_RESOURCE)) {
    const uint64_t mask = mask_of(names);
    std::string set = "--bounding-set=";
    for (int number = 0; number <= std::stoi(read_file("/proc/sys/kernel/cap_last_cap")); ++number) {
      if ((mask >> number & 1) == 0) {
        set += (set.back() == '=' ? "-cap_" : ",-cap_") + std::to_string(number);
      }
    }
    const std::string limit = low_limit ? "--nofile=1024:1024" : "--nofile=1024:";
    return daemon_.start_below({"prlimit", limit, "setpriv", set, "--inh-caps=-all"});
  }

  // The duties, each by the capability that it needs.
  bool does_duty(const std::string& name, milliseconds limit = 20s) {
    if (name == "CAP_DAC_OVERRIDE") {
      return wait_for_actor(service_of_domain(), 0, limit) != 0;
    }
    if (name == "CAP_SETGID") {
      const pid_t pid = wait_for_actor(service_of_domain());
      return pid != 0 && status_field(pid, "Groups").substr(0, 4) == "3200";
    }
    if (name == "CAP_FOWNER") {
      return mode_of("/data") == 0777;
    }
    if (name == "CAP_SYS_PTRACE") {
      return restarts_service_of_other(limit) != 0;
    }
    return daemon_.running();
  }
  static std::vector<std::string> as_other_words(const std::vector<std::string>& options) {
    std::vector<std::string> words = {"setpriv", "--reuid=1234", "--clear-groups"};
    const std::vector<std::string> program = actor_words(options);
    words.insert(words.end(), program.begin(), program.end());
    return words;
  }
  // The service in its next life; 0 when it has none.
  static pid_t restarts_service_of_other(milliseconds limit) {
    Process service;
    EXPECT_TRUE(service.start(as_other_words(service_of_other())));
    EXPECT_TRUE(eventually([] { return exists(kReadyOfOther); }, 20s));
    const pid_t old = service.pid();
    service.kill_now();
    return wait_for_actor(service_of_other(), old, limit);
  }

  Daemon daemon_;
};

// Runs `work` in a child with these capabilities only; what it returns is the result.
int with_only(uint64_t mask, const std::function<int()>& work) {
  const pid_t child = fork();
  if (child == 0) {
    setpgid(0, 0);  // whatever signals its own group means this child alone
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct sets[2] = {};
    sets[0].effective = sets[0].permitted = static_cast<uint32_t>(mask);
    _exit(syscall(SYS_capset, &header, sets) == 0 ? work() : 250);
  }
  int status = -1;
  EXPECT_EQ(child, waitpid(child, &status, 0));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) != 250) << status;
  return WEXITSTATUS(status);
}

// Since Linux 6.6 the process connector asks for no right.
bool everybody_may_listen() {
  return with_only(0, [] {
           const int fd = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_CONNECTOR);
           sockaddr_nl address = {};
           address.nl_family = AF_NETLINK;
           address.nl_groups = 1;
           return bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 ? 0 : 1;
         }) == 0;
}

// What the take-down of a domain and the memory limit do to processes of other users, with this set.
bool ends_other_users_process(uint64_t mask, milliseconds limit) {
  Process victim;
  EXPECT_TRUE(victim.start({"setpriv", "--reuid=1234", "--clear-groups", "sleep", "600"}));
  EXPECT_TRUE(eventually([&] { return status_field(victim.pid(), "Uid").substr(0, 4) == "1234"; }));
  make_dirs("/tmp/vsd/3/wex");
  write_file("/tmp/vsd/3/wex/" + std::to_string(victim.pid()), "");
  with_only(mask, [] {
    find_max_rss(3);
    return 0;
  });
  const bool ended = ended_by(victim.wait(limit), SIGKILL);
  victim.kill_now();
  return ended;
}

}  // namespace

TEST_F(Capabilities, TheDocumentedSetIsEnough) {
  const std::vector<std::string> names = documented();
  ASSERT_EQ(8U, names.size()) << ::testing::PrintToString(names);
  ASSERT_TRUE(start_with(names));
  ASSERT_TRUE(daemon_.wait_ready(30s));
  EXPECT_EQ(mask_of(names), strtoull(status_field(daemon_.pid(), "CapEff").c_str(), nullptr, 16));
  for (const std::string& name : names) {
    EXPECT_TRUE(does_duty(name)) << name << "\n" << read_console();
  }
  if (granted(CAP_SYS_RESOURCE)) {
    EXPECT_EQ("-1000\n", read_file("/proc/" + std::to_string(daemon_.pid()) + "/oom_score_adj"));
  }
  EXPECT_TRUE(ends_other_users_process(mask_of(names), 20s));
}

// Without it another user's processes are out of reach.
TEST_F(Capabilities, WithoutCapKillOtherUsersProcessesGoOn) {
  ASSERT_EQ(7U, all_but("CAP_KILL").size()) << "not in the document";
  EXPECT_FALSE(ends_other_users_process(mask_of(all_but("CAP_KILL")), 500ms));
}

struct EndsWithout : Capabilities {
  void expect_end(const std::string& name, bool strict);
};

void EndsWithout::expect_end(const std::string& name, bool strict) {
  const std::vector<std::string> names = all_but(name, strict);
  ASSERT_EQ(documented(strict).size() - 1, names.size()) << "not in the document";
  ASSERT_TRUE(start_with(names, name == "CAP_SYS_RESOURCE" || granted(CAP_SYS_RESOURCE)));
  if (name == "CAP_NET_ADMIN" && everybody_may_listen()) {  // since Linux 6.6
    ASSERT_TRUE(daemon_.wait_ready(30s));
    EXPECT_TRUE(does_duty("CAP_SYS_PTRACE")) << "it does not hear of exits";
    const bool capped = atol(read_file("/proc/sys/net/core/rmem_max").c_str()) < kEventBuffer;
    const std::string log = read_file(kRunningLog1);
    EXPECT_EQ(capped, log.find("Process event buffer is only ") != std::string::npos) << log;
    return;
  }
  EXPECT_TRUE(daemon_.wait(20s).has_value()) << "it runs without";
  if (name == "CAP_SYS_RESOURCE") {
    EXPECT_TRUE(console_says("[WEX]ULIMIT: Set ulimit error."));
    return;
  }
  EXPECT_TRUE(contains_match(
      read_file(kRunningLog1),
      "Thread \"wex_process_netlink\" exit, wex will be restart\\. res=-[13], Operation not permitted"))
      << read_file(kRunningLog1);
}

// Or, where the kernel asks for less, says what it has to do without.
TEST_P(EndsWithout, AndSaysWhy) {
  ASSERT_NO_FATAL_FAILURE(expect_end(GetParam(), false));
}

TEST_P(EndsWithout, InStrictModeToo) {
  write_file(kStrictFile, "");
  ASSERT_NO_FATAL_FAILURE(expect_end(GetParam(), true));
}

INSTANTIATE_TEST_SUITE_P(A, EndsWithout,
                         ::testing::Values("CAP_NET_ADMIN", "CAP_SYS_NICE", "CAP_SYS_RESOURCE"),
                         [](const auto& row) { return std::string(row.param); });

class NeglectsWithout : public Capabilities {};

TEST_P(NeglectsWithout, ItsDuty) {
  const std::string name = GetParam();
  ASSERT_EQ(7U, all_but(name).size()) << "not in the document";
  ASSERT_TRUE(start_with(all_but(name)));
  ASSERT_TRUE(daemon_.wait_ready(30s));
  EXPECT_FALSE(does_duty(name, 2s));
}

INSTANTIATE_TEST_SUITE_P(A, NeglectsWithout,
                         ::testing::Values("CAP_DAC_OVERRIDE", "CAP_FOWNER", "CAP_SETGID", "CAP_SYS_PTRACE"),
                         [](const auto& row) { return std::string(row.param); });

// It becomes the users whose programs it starts, and takes over what they have made.
struct StrictCapabilities : Capabilities {
  void SetUp() override {
    Capabilities::SetUp();
    write_file(kStrictFile, "");
  }
  static bool is_known(pid_t pid) { return StatusReader().slot_of(pid).has_value(); }
  static bool as_other(const std::function<bool()>& work) {
    const child worker([&] { return setresuid(kOtherUser, kOtherUser, kOtherUser) == 0 && work(); });
    return worker.ready();
  }
  static bool data_is_roots() {
    struct stat facts = {};
    return stat("/data", &facts) == 0 && facts.st_uid == 0;
  }
};

// The names behind CapabilityBoundingSet= in the packaged fragment of the unit.
std::set<std::string> packaged_set() {
  std::set<std::string> names;
  for (const std::string& line : lines_of(read_file(WEX_SOURCE_DIR "/packaging/init/wex-least.conf"))) {
    if (line.compare(0, 22, "CapabilityBoundingSet=") == 0) {
      std::istringstream words(line.substr(22));
      for (std::string name; words >> name;) {
        names.insert(name);
      }
    }
  }
  return names;
}

TEST_F(StrictCapabilities, ThePackagedSetIsEnoughToStartRunAndStop) {
  const std::vector<std::string> names = documented(true);
  ASSERT_EQ(10U, names.size()) << ::testing::PrintToString(names);
  std::set<std::string> packaged = packaged_set();
  EXPECT_EQ(1U, packaged.erase("CAP_SYS_BOOT"));
  EXPECT_EQ(std::set<std::string>(names.begin(), names.end()), packaged);
  ASSERT_TRUE(start_with(names));
  ASSERT_TRUE(daemon_.wait_ready(30s));
  EXPECT_EQ(mask_of(names), strtoull(status_field(daemon_.pid(), "CapEff").c_str(), nullptr, 16));
  EXPECT_TRUE(data_is_roots());
  const pid_t next = restarts_service_of_other(20s);
  ASSERT_GT(next, 0) << read_console();
  EXPECT_EQ("1234\t1234\t1234\t1234", status_field(next, "Uid"));
  EXPECT_EQ("0000000000000000", status_field(next, "CapPrm"));
  EXPECT_TRUE(ended_by(daemon_.stop(), SIGINT));
  EXPECT_TRUE(is_alive(next)) << "it does not outlive the daemon";
}

TEST_F(StrictCapabilities, WithoutCapSetuidNoProgramOfAUserComesBack) {
  ASSERT_TRUE(start_with(all_but("CAP_SETUID", true)));
  ASSERT_TRUE(daemon_.wait_ready(30s));
  EXPECT_EQ(0, restarts_service_of_other(1s));
  EXPECT_TRUE(console_says("]wex_spawn--> cannot become the user of the program: ")) << read_console();
}

// Each program is started with the groups that it had, root's too.
TEST_F(StrictCapabilities, WithoutCapSetgidNoProgramComesBack) {
  const std::vector<std::string> options = {"--tag=roots", "--register=RESTART", "--confirm", "--hold"};
  ASSERT_TRUE(start_with(all_but("CAP_SETGID", true)));
  ASSERT_TRUE(daemon_.wait_ready(30s));
  Process roots;
  ASSERT_TRUE(roots.start(actor_words(options)));
  ASSERT_TRUE(console_says("wex_dispatch_domain_msg type:1 err:0", 20s));
  const pid_t old = roots.pid();
  roots.kill_now();
  EXPECT_TRUE(console_says("]wex_spawn--> cannot become the user of the program: ", 20s)) << read_console();
  EXPECT_EQ(0, wait_for_actor(options, old, 1s));
}

TEST_F(StrictCapabilities, WithoutCapChownADirectoryStaysTheUsersWhoMadeIt) {
  ASSERT_TRUE(start_with(all_but("CAP_CHOWN", true)));
  ASSERT_TRUE(daemon_.wait_ready(30s));
  EXPECT_FALSE(data_is_roots());
}

namespace {

// A database file as a library makes it that knows no strict mode, and its registration.
bool register_as_older_library(const Process& service) {
  const std::string file = db_file("sleep", service.pid());
  return StrictCapabilities::as_other([&] {
    umask(022);
    write_file(file, std::to_string(service.pid()) + "\n2\n" + command_line(service.pid()), 0755);
    const raw_client client;
    wex_reg_info body = {};
    body.pid = service.pid();
    return client.send_body(WEX_RESTART, body) && client.acknowledged();
  });
}

}  // namespace

// All their database files are closed to others. Those that live on are not started again either.
TEST_F(StrictCapabilities, WithoutCapDacOverrideTheNextDaemonKnowsNoServiceOfAUser) {
  for (const bool granted : {true, false}) {
    const std::vector<std::string> names = granted ? documented(true) : all_but("CAP_DAC_OVERRIDE", true);
    const std::vector<std::string> options = {"--tag=user", "--register=RESTART", "--confirm", "--hold"};
    ASSERT_TRUE(start_with(names) && daemon_.wait_ready(30s));
    Process service;
    ASSERT_TRUE(service.start(as_other_words(options)));
    ASSERT_TRUE(eventually([&] { return is_known(service.pid()); }, 20s)) << read_console();
    daemon_.kill_now();
    ASSERT_TRUE(start_with(names) && daemon_.wait_ready(30s));
    EXPECT_EQ(granted, is_known(service.pid()));
    daemon_.kill_now();
  }
}

// Its owner alone may change its mode else.
TEST_F(StrictCapabilities, WithoutCapFownerADatabaseFileOfAnOlderLibraryStaysOpenToReaders) {
  for (const bool granted : {true, false}) {
    const std::vector<std::string> names = granted ? documented(true) : all_but("CAP_FOWNER", true);
    ASSERT_TRUE(start_with(names) && daemon_.wait_ready(30s));
    EXPECT_TRUE(data_is_roots()) << "its own it may open or close";
    Process service;
    ASSERT_TRUE(service.start({"setpriv", "--reuid=1234", "--clear-groups", "sleep", "600"}));
    ASSERT_TRUE(eventually([&] { return command_line(service.pid()) == "sleep 600"; }));
    ASSERT_TRUE(register_as_older_library(service));
    ASSERT_TRUE(eventually([&] { return is_known(service.pid()); }, 20s)) << read_console();
    EXPECT_EQ(granted ? 0700U : 0755U, mode_of(db_file("sleep", service.pid())));
    daemon_.kill_now();
  }
}

TEST_F(StrictCapabilities, WithoutCapSysPtraceNoServiceOfAUserIsRegistered) {
  ASSERT_TRUE(start_with(all_but("CAP_SYS_PTRACE", true)) && daemon_.wait_ready(30s));
  EXPECT_EQ(0, restarts_service_of_other(1s));
  EXPECT_TRUE(console_says("fail to get pid ")) << read_console();
}
