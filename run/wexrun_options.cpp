// wexrun_options: the command line, and whether wex could start it again as it is.
//
// wex keeps a command line as one text and cuts it at blanks when it starts the program again. What that text
// cannot hold is refused here, at the start by hand, instead of failing at the first restart.
#include "wexrun_options.h"

#include <getopt.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "text_buffer.h"
#include "text_number.h"
#include "wex.h"
#include "wex_paths.h"
#include "wex_utils.h"
#include "wexrun_limits.h"
#include "wexrun_program.h"

namespace {

constexpr char kBlanks[] = " \t\n\v\f\r";

constexpr char kUsage[] =
    "usage: wexrun [--delay SECONDS] [--shell-restart SCRIPT] [--notify] [--] PROGRAM [ARGUMENT...]\n"
    "\n"
    "Puts PROGRAM under the supervision of wex and becomes it.\n"
    "\n"
    "  --delay SECONDS         a pause before each restart\n"
    "  --shell-restart SCRIPT  restarted by this script of the command map\n"
    "  --notify                stay as its parent, take its notifications, report its life to wex\n"
    "  --help, --version\n";

constexpr option kOptions[] = {
    {"delay", required_argument, nullptr, 'd'}, {"shell-restart", required_argument, nullptr, 's'},
    {"notify", no_argument, nullptr, 'n'},      {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, 'v'},     {nullptr, 0, nullptr, 0}};

bool read_delay(const char* text, int32_t* seconds) {
  const char* at = text;
  if (scan_number(&at, seconds) && *at == '\0' && *seconds >= 0) {
    return true;
  }
  fprintf(stderr, "wexrun: \"%s\" is no number of seconds\n", text);
  return false;
}

reading tell(const char* text) {
  fputs(text, stdout);
  return reading::answered;
}

bool too_many(int argc) {
  if (argc <= kMaxWords) {
    return false;
  }
  fprintf(stderr, "wexrun: %d words follow wexrun, a restart repeats %d\n", argc - 1, kMaxWords - 1);
  return true;
}

bool has_lost_word(int argc, char** argv) {
  for (int at = 1; at < argc; ++at) {
    if (*argv[at] == '\0') {
      fprintf(stderr, "wexrun: word %d is empty, a restart would leave it out\n", at);
      return true;
    }
    if (argv[at][strcspn(argv[at], kBlanks)] != '\0') {
      fprintf(stderr, "wexrun: word %d, \"%s\", holds a blank, a restart would part it there\n", at,
              argv[at]);
      return true;
    }
  }
  return false;
}

bool depends_on_directory(const char* program) {
  if (*program == '/' || strchr(program, '/') == nullptr) {
    return false;
  }
  fprintf(stderr, "wexrun: a restart is made in \"/\", where \"%s\" is not found: name its whole path\n",
          program);
  return true;
}

// True, and the reason printed, when a restart would not repeat the command line that wex reads from /proc.
// Without /proc nothing is supervised, which is printed when the registration fails.
bool does_not_fit() {
  char command[WEX_PROCESS_SIZE] = "";
  if (pid_to_cmdline(getpid(), command, sizeof command) == nullptr) {
    return false;
  }
  const size_t own = strcspn(command, kBlanks);
  char link[kPathSize];
  char path[WEX_PROCESS_SIZE];
  wex_format(link, sizeof link, kProcExeFmt, static_cast<int>(getpid()));
  const ssize_t whole = readlink(link, path, sizeof path);
  if (whole > 0 && static_cast<size_t>(whole) != own) {
    fprintf(stderr, "wexrun: its own path holds a blank, a restart would part it there\n");
    return true;
  }
  if (strlen(command) <= kCommandMax) {
    return false;
  }
  fprintf(stderr, "wexrun: the command line has %zu characters, a restart repeats %zu\n", strlen(command),
          kCommandMax);
  return true;
}

}  // namespace

reading read_options(int argc, char** argv, run_options* options) {
  int letter;
  while ((letter = getopt_long(argc, argv, "+", kOptions, nullptr)) != -1) {
    switch (letter) {
      case 'd':
        if (!read_delay(optarg, &options->delay)) {
          return reading::wrong;
        }
        break;
      case 's':
        options->script = optarg;
        break;
      case 'n':
        options->notify = true;
        break;
      case 'h':
        return tell(kUsage);
      case 'v':
        return tell("wexrun " WEXRUN_VERSION "\n");
      default:
        return reading::wrong;  // getopt_long has told
    }
  }
  if (optind >= argc) {
    fputs("wexrun: which program? See wexrun --help\n", stderr);
    return reading::wrong;
  }
  options->program = argv + optind;
  return reading::run;
}

bool can_be_repeated(int argc, char** argv, const run_options& options) {
  return !too_many(argc) && !has_lost_word(argc, argv) && !depends_on_directory(options.program[0]) &&
         !depends_on_path(options.program[0]) && !does_not_fit();
}
