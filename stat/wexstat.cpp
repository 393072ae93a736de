// wexstat: what wex does, for people, scripts and monitors. It reads the table that the daemon keeps, and
// never talks to the daemon.
#include <cstdio>

#include "wex_paths.h"
#include "wexstat_health.h"
#include "wexstat_limits.h"
#include "wexstat_machines.h"
#include "wexstat_options.h"
#include "wexstat_reader.h"
#include "wexstat_table.h"
#include "wexstat_watch.h"

namespace {

// What people get instead of a table.
int tell_why_not(const status_copy& copy, const daemon_health& daemon) {
  fprintf(stderr, "wexstat: %s\n", daemon.text);
  if (copy.look == table_look::absent) {
    fputs("What to do: start wex; if it runs, its running log says why it made no table\n", stderr);
    return kExitDead;
  }
  if (copy.look == table_look::foreign || copy.look == table_look::no_table) {
    fprintf(stderr, "What to do: see who made %s, remove it, and restart wex\n", kStatusTable);
  } else if (copy.look == table_look::other_version) {
    fputs("What to do: use the wexstat that came with the wex that runs\n", stderr);
  }
  return kExitUnknown;
}

int check(const status_copy& copy, const daemon_health& daemon) {
  char line[kHealthText * 4];
  const int status = judge_all(copy, daemon, line, sizeof line);
  puts(line);
  return status;
}

int show(const stat_options& options, status_copy* copy, const daemon_health& daemon, const moment& at) {
  look_and_feel look = look_of_terminal();
  look.rows = 0;  // what scrolls away is still there
  if (copy->look != table_look::good) {
    return tell_why_not(*copy, daemon);
  }
  if (options.what == wish::history) {
    show_history(*copy, options.name, static_cast<uint32_t>(options.number), look, stdout);
    return kExitWell;
  }
  if (options.what == wish::table) {
    show_headline(*copy, daemon, at, look, stdout);
    show_table(copy, at, look, stdout);
    return kExitWell;
  }
  if (daemon.state != daemon_state::running) {
    show_headline(*copy, daemon, at, look, stdout);
  }
  if (show_named(*copy, options.name, at, look, stdout) == 0) {
    fprintf(stderr, "wexstat: nothing is registered as %s\n", options.name);
    return kExitTrouble;
  }
  return kExitWell;
}

int answer(const stat_options& options) {
  status_copy copy = read_status(kStatusTable);
  const moment at = now();
  const daemon_health daemon = look_at_daemon(copy, at);
  switch (options.what) {
    case wish::json:
      write_json(copy, daemon, at, stdout);
      return kExitWell;
    case wish::openmetrics:
      write_openmetrics(&copy, daemon, at, stdout);
      return kExitWell;
    case wish::check:
      return check(copy, daemon);
    default:
      return show(options, &copy, daemon, at);
  }
}

int carry_out(const stat_options& options) {
  switch (options.what) {
    case wish::answered:
      return kExitWell;
    case wish::wrong:
      return kExitUnknown;
    case wish::watch:
      return watch(kStatusTable, options.number);
    case wish::wait:
      return wait_for(kStatusTable, options.name, options.timeout);
    default:
      return answer(options);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const int status = carry_out(read_stat_options(argc, argv));
  if (fflush(stdout) != 0 || ferror(stdout) != 0) {
    perror("wexstat");
    return kExitUnknown;
  }
  return status;
}
