// wexstat_options: the command line. The number behind --history and --watch may be a word of its own.
#include "wexstat_options.h"

#include <getopt.h>

#include <cstdio>
#include <cstring>

#include "text_number.h"
#include "wexstat_limits.h"

namespace {

constexpr char kUsage[] =
    "usage: wexstat [OPTION...] [NAME|PID]\n"
    "\n"
    "Shows what wex supervises, problems first; with NAME or PID one registration and its last events.\n"
    "\n"
    "  --history [N]        the last N events (20), with NAME those of one program\n"
    "  --watch [SECONDS]    the table again and again (2), until q or Ctrl-C\n"
    "  --json               all there is, for programs\n"
    "  --openmetrics        the same as OpenMetrics text\n"
    "  --check              one line; status 0 well, 1 something is parked, postponed or down,\n"
    "                       2 wex is dead, stuck or not there, 3 nobody can tell\n"
    "  --wait NAME          until a program of this name runs\n"
    "  --timeout SECONDS    give up --wait then, with status 1\n"
    "  --help, --version\n";

constexpr option kOptions[] = {
    {"history", optional_argument, nullptr, 'H'}, {"watch", optional_argument, nullptr, 'w'},
    {"json", no_argument, nullptr, 'j'},          {"openmetrics", no_argument, nullptr, 'o'},
    {"check", no_argument, nullptr, 'c'},         {"wait", required_argument, nullptr, 'W'},
    {"timeout", required_argument, nullptr, 't'}, {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, 'v'},       {nullptr, 0, nullptr, 0}};

bool is_number(const char* text) {
  return text != nullptr && *text != '\0' && strspn(text, "0123456789") == strlen(text);
}

bool read_number(const char* text, int32_t least, int32_t most, int32_t* out) {
  const char* at = text;
  if (is_number(text) && scan_number(&at, out) && *out >= least && *out <= most) {
    return true;
  }
  fprintf(stderr, "wexstat: \"%s\" is no number from %d to %d\n", text, static_cast<int>(least),
          static_cast<int>(most));
  return false;
}

// The argument of an option that may have one: behind "=", or the next word when that is a number.
const char* own_number(int argc, char** argv) {
  if (optarg != nullptr) {
    return optarg;
  }
  return optind < argc && is_number(argv[optind]) ? argv[optind++] : nullptr;
}

stat_options tell(const char* text) {
  fputs(text, stdout);
  stat_options out;
  out.what = wish::answered;
  return out;
}

stat_options refuse(const char* text) {
  if (text != nullptr) {
    fputs(text, stderr);
  }
  stat_options out;
  out.what = wish::wrong;
  return out;
}

// One wish at a time.
bool wants(wish what, stat_options* out) {
  if (out->what != wish::table) {
    fputs("wexstat: these options do not go together, see wexstat --help\n", stderr);
    return false;
  }
  out->what = what;
  return true;
}

bool take_number(int argc, char** argv, wish what, int32_t usual, int32_t most, stat_options* out) {
  const char* const given = own_number(argc, argv);
  out->number = usual;
  return wants(what, out) && (given == nullptr || read_number(given, 1, most, &out->number));
}

bool take(int letter, int argc, char** argv, stat_options* out) {
  switch (letter) {
    case 'H':
      return take_number(argc, argv, wish::history, static_cast<int32_t>(kHistoryLines), INT32_MAX, out);
    case 'w':
      return take_number(argc, argv, wish::watch, kWatchSec, kWatchSecMax, out);
    case 'j':
      return wants(wish::json, out);
    case 'o':
      return wants(wish::openmetrics, out);
    case 'c':
      return wants(wish::check, out);
    case 'W':
      out->name = optarg;
      return wants(wish::wait, out);
    case 't':
      return read_number(optarg, 0, kWaitSecMax, &out->timeout);
    default:
      return false;  // getopt_long has told
  }
}

}  // namespace

stat_options read_stat_options(int argc, char** argv) {
  stat_options out;
  int letter;
  while ((letter = getopt_long(argc, argv, "", kOptions, nullptr)) != -1) {
    if (letter == 'h') {
      return tell(kUsage);
    }
    if (letter == 'v') {
      return tell("wexstat " WEXSTAT_VERSION "\n");
    }
    if (!take(letter, argc, argv, &out)) {
      return refuse(nullptr);
    }
  }
  if (out.timeout >= 0 && out.what != wish::wait) {
    return refuse("wexstat: --timeout goes with --wait\n");
  }
  if (optind < argc) {
    if (optind + 1 < argc || (out.what != wish::table && out.what != wish::history)) {
      return refuse("wexstat: too many words, see wexstat --help\n");
    }
    out.name = argv[optind];
    out.what = out.what == wish::table ? wish::one : out.what;
  }
  return out;
}
