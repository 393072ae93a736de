// wex_opt: the command line, a small tool for domains in the daemon's own program.
//
// Runs before the daemon has threads or its lock.
// Kept: some wrong commands go on to start the daemon, see docs/decisions.md. While one runs, its lock stops
// them.
#define WEX_MODULE "wex_opt"
#include "wex_opt.h"

#include <getopt.h>

#include <cstdlib>

#include "dir_walk.h"
#include "text_number.h"
#include "wex_dbg.h"
#include "wex_domain.h"
#include "wex_paths.h"
#include "wex_vsd.h"

namespace {

constexpr int kUnderstood = 0;
constexpr int kNotUnderstood = 1;
constexpr int kNoOption = -1;

constexpr char kShortOptions[] = "hcdsv";  // the values are words of their own
constexpr option kLongOptions[] = {
    {"help", no_argument, nullptr, 'h'},    {"create", no_argument, nullptr, 'c'},
    {"delete", no_argument, nullptr, 'd'},  {"show", no_argument, nullptr, 's'},
    {"version", no_argument, nullptr, 'v'}, {nullptr, 0, nullptr, 0}};

void print_error() {
  wex_say("input error!!!input wex -h for help!!!\n");
}

void print_usage() {
  wex_say("\n----------------------------------------\n");
  wex_say("Usage: \n");
  wex_say("Options are as follows:\n");
  wex_say(" wex -c count             Create count vsd\n");
  wex_say(" wex -d vsd_no            Delete vsd_no vsd\n");
  wex_say(" wex -s                   Show all vsd\n");
  wex_say(" wex -h                   Display help\n");
  wex_say(" wex -v                   Display version\n");
  wex_say(" wex add proc vsd_no      Add proc to vsd\n");
  wex_say("-------------------------------------------\n");
}

int next_option(int argc, char** argv) {
  return getopt_long(argc, argv, kShortOptions, kLongOptions, nullptr);
}

void create_domains(int32_t count) {
  for (int64_t vsd = 1; vsd <= count; ++vsd) {
    const int ret = create_vsd(static_cast<int32_t>(vsd));
    if (ret < 0) {
      wex_say("create vsd fail, error = %s.\n", strerror(-ret));
    }
  }
}

void delete_domain(int32_t vsd) {
  const int ret = delete_vsd(vsd);
  if (ret < 0) {
    wex_say("delete %d vsd fail, error =%s.\n", vsd, strerror(-ret));
  }
}

// wex OPTION
void handle_option(int argc, char** argv) {
  switch (next_option(argc, argv)) {
    case kNoOption:
      print_error();
      return;
    case 's':
      show_vsd();
      exit(kUnderstood);
    case 'v':
      wex_say("This is WEX verison 1.0\n");
      exit(kUnderstood);
    case 'h':
      print_usage();
      exit(kUnderstood);
    default:
      print_error();
      exit(kNotUnderstood);
  }
}

// wex OPTION NUMBER. A value that is no number, or not above 0, is printed and the next option read.
void handle_option_and_number(int argc, char** argv) {
  for (;;) {
    const int chosen = next_option(argc, argv);
    if (chosen == kNoOption) {
      print_error();
      return;
    }
    if (chosen != 'c' && chosen != 'd') {
      print_error();
      exit(kNotUnderstood);
    }
    const int32_t number = text_to_number(argv[2]);
    if (number > 0) {
      if (chosen == 'c') {
        create_domains(number);
      } else {
        delete_domain(number);
      }
      exit(kUnderstood);
    }
    print_error();
  }
}

bool domain_present(int32_t vsd) {
  char path[kPathSize];
  wex_name_domain_dir(vsd, path);
  return dir_walk(path).valid();
}

// wex add PROGRAM NUMBER
void handle_add(char** argv) {
  if (argv[1] == nullptr || strcmp(argv[1], "add") != 0 || argv[2] == nullptr || argv[3] == nullptr) {
    print_error();
    exit(kNotUnderstood);
  }
  const int32_t vsd = text_to_number(argv[3]);
  if (!domain_present(vsd)) {
    wex_print("vsd %d is not exist\n", vsd);
    return;
  }
  if (create_proc_to_vsd(argv[2], vsd) < 0) {
    wex_say("add proc = %s to vsd = %d\n fail.\n", argv[2], vsd);
  }
}

}  // namespace

extern "C" void wex_handle_options(int argc, char** argv) {
  switch (argc) {
    case 1:
      return;
    case 2:
      return handle_option(argc, argv);
    case 3:
      return handle_option_and_number(argc, argv);
    case 4:
      return handle_add(argv);
    default:
      print_error();
      exit(kUnderstood);
  }
}
