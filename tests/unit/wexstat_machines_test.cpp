// What programs read: JSON by Python's reader, OpenMetrics by its rules.
#include "wexstat_machines.h"

#include <map>

#include "wexstat_world.h"

using namespace wexstat_test;

namespace {

using WexstatMachines = WexstatWorld;

// A table with everything in it, and with texts that must be escaped.
status_table full() {
  status_table table;
  table.add_thread("wex_delay_resta", 1500, 300);
  wex_status_slot& odd = table.add("a\"b\\c\nd\x01\x80\xc3\xa4", WEX_STATUS_PARKED);
  odd.until = status_table::monotonic_ms() + 100000;
  odd.last_exit = 0x8b;
  odd.last_exit_wall = 1700000000;
  wex_status_slot& twin = table.add("twin");
  twin.restarts = 3;
  twin.watched_threads = 2;
  twin.fewest_misses = 4;
  wex_status_slot& other = table.add("twin");
  other.restarts = 4;
  other.watched_threads = 1;
  other.fewest_misses = 2;
  table.add("twin").domain = 1;
  for (uint32_t index = 0; index < WEX_STATUS_COUNTERS_USED; ++index) {
    table.head.counters[index] = 100 + index;
  }
  for (uint32_t kind = 1; kind < WEX_STATUS_EV_KINDS; ++kind) {
    table.add_event(static_cast<wex_status_kind>(kind), "twin", 77).exit_code = 9;
  }
  return table;
}

// The values of Python expressions about the JSON output, as `it`, one a line.
std::string python(const std::vector<std::string>& expressions) {
  const temporary script("/tmp/wexstat-look.py");
  std::string text = "import json, subprocess\nit = json.loads(subprocess.check_output('" + binary() +
                     " --json', shell=True))\nall = it['registrations']\n";
  for (const std::string& expression : expressions) {
    text += "print(" + expression + ", sep=' ')\n";
  }
  write_file("/tmp/wexstat-look.py", text);
  return shell("python3 /tmp/wexstat-look.py").text;
}

std::string metrics_of(const status_table& table, daemon_state state = daemon_state::running) {
  status_copy copy = read_back(table);
  const daemon_health daemon = {state, ""};
  return written([&](FILE* out) { write_openmetrics(&copy, daemon, now(), out); });
}

// The value of a sample, "" when there is none or more than one.
std::string value_of(const std::string& metrics, const std::string& sample) {
  std::string found;
  for (const std::string& line : lines_of(metrics)) {
    if (line.compare(0, sample.size() + 1, sample + " ") == 0) {
      found = found.empty() ? line.substr(sample.size() + 1) : "twice";
    }
  }
  return found;
}

}  // namespace

TEST_F(WexstatMachines, JsonTellsOfStrictMode) {
  for (const bool strict : {true, false}) {
    status_table table;
    table.head.flags = strict ? WEX_STATUS_STRICT : 0;
    table.save();
    EXPECT_EQ(strict ? "True\n" : "False\n", python({"it['daemon']['strict']"}));
  }
}

TEST_F(WexstatMachines, JsonHoldsWhatTheTableHolds) {
  full().save();
  EXPECT_EQ(
      "1 1 running\n"
      "True\n"
      "{'status': 139, 'text': 'SIGSEGV, core', 'time': 1700000000}\n"
      "parked True None\n"
      "4 3 2 running None\n"
      "13 112 113 115\n"
      "20 daemon_started replaced\n"
      "wex_delay_resta\n",
      python({"it['schema'], it['check'], it['daemon']['state']",
              "all[0]['name'] == 'a\"b\\\\c\\nd\\x01\\ufffd\\u00e4'", "all[0]['last_exit']",
              "all[0]['state'], 0 < all[0]['until_seconds'] <= 100, all[0]['up_seconds']",
              "len(all), all[1]['restarts'], all[2]['misses_left'], all[2]['state'], all[3]['last_exit']",
              "len(it['counters']), it['counters']['refused_registrations'], it['not_shown'], "
              "it['pause_seconds']",
              "len(it['events']), it['events'][0]['kind'], it['events'][-1]['kind']",
              "it['threads'][0]['name']"}));
}

TEST_F(WexstatMachines, JsonWithoutATableIsStillJson) {
  EXPECT_EQ("2 absent [] []\n", python({"it['check'], it['daemon']['state'], all, it['events']"}));
}

// docs/wexstat.md is what people write their programs by.
TEST_F(WexstatMachines, EveryNameIsDocumentedAndNoOther) {
  full().save();
  const temporary script("/tmp/wexstat-look.py");
  write_file("/tmp/wexstat-look.py",
             "import json, re, subprocess\n"
             "wexstat, page = '" +
                 binary() +
                 "', open('" WEX_SOURCE_DIR
                 "/docs/wexstat.md').read()\n"
                 "def keys(it, path=''):\n"
                 "    if isinstance(it, dict):\n"
                 "        for key, value in it.items():\n"
                 "            yield path + key\n"
                 "            yield from keys(value, path + key + '.')\n"
                 "    if isinstance(it, list):\n"
                 "        for one in it:\n"
                 "            yield from keys(one, path[:-1] + '[].')\n"
                 "shown = {key for key in keys(json.loads(subprocess.check_output(wexstat + ' --json', "
                 "shell=True)))}\n"
                 "families = {line.split()[2] for line in subprocess.check_output(wexstat + ' "
                 "--openmetrics', shell=True)"
                 ".decode().splitlines() if line.startswith('# TYPE')}\n"
                 "json_part, metrics_part = page.split('## OpenMetrics')\n"
                 "documented = set(re.findall(r'^\\| `([^`]+)` \\|', json_part, re.M))\n"
                 "described = set(re.findall(r'^\\| `([^`{]+)[`{]', metrics_part, re.M))\n"
                 "print(sorted(shown ^ documented), sorted(families ^ described))\n");
  EXPECT_EQ("[] []\n", shell("python3 /tmp/wexstat-look.py").text);
}

TEST_F(WexstatMachines, OpenMetricsFollowsItsRules) {
  const std::string metrics = metrics_of(full());
  constexpr char kMeta[] = "# (TYPE|UNIT|HELP) ([a-z_]+) .+";
  constexpr char kSample[] =
      "([a-z_]+)(\\{[a-z]+=\"(?:[^\"\\\\\n]|\\\\[\"\\\\n])*\"(?:,[a-z]+=\"[^\"]*\")*\\})? "
      "[0-9]+(\\.[0-9]+)?";
  std::map<std::string, std::string> types;
  std::set<std::string> samples;
  std::string family;
  const std::vector<std::string> lines = lines_of(metrics);
  ASSERT_EQ("# EOF", lines.back());
  for (size_t i = 0; i + 1 < lines.size(); ++i) {
    const bool is_meta = matches(lines[i], kMeta);
    const std::vector<std::string> part = groups_of(lines[i], is_meta ? kMeta : kSample);
    if (is_meta) {
      if (part[1] == "TYPE") {
        family = part[2];
        EXPECT_TRUE(types.emplace(family, lines[i].substr(lines[i].rfind(' ') + 1)).second)
            << "twice: " << family;
      }
      EXPECT_EQ(family, part[2]) << lines[i];
      if (part[1] == "UNIT") {
        const std::string unit = "_" + lines[i].substr(lines[i].rfind(' ') + 1);
        EXPECT_EQ(family.size() - unit.size(), family.rfind(unit)) << "a family ends with its unit";
      }
      continue;
    }
    ASSERT_TRUE(matches(lines[i], kSample)) << lines[i];
    EXPECT_EQ(types[family] == "counter" ? family + "_total" : family, part[1]) << lines[i];
    EXPECT_TRUE(samples.insert(part[1] + part[2]).second) << "twice: " << lines[i];
  }
}

TEST_F(WexstatMachines, OneNameInOneDomainIsOneSeries) {
  const std::string metrics = metrics_of(full());
  EXPECT_EQ("1", value_of(metrics, "wex_up"));
  EXPECT_EQ("0", value_of(metrics, "wex_stuck"));
  EXPECT_EQ("7", value_of(metrics, "wex_registration_restarts_total{name=\"twin\",domain=\"0\"}"));
  EXPECT_EQ("0", value_of(metrics, "wex_registration_restarts_total{name=\"twin\",domain=\"1\"}"));
  EXPECT_EQ("2", value_of(metrics, "wex_registration_state{name=\"twin\",domain=\"0\",state=\"running\"}"));
  EXPECT_EQ("2", value_of(metrics, "wex_registration_misses_left{name=\"twin\",domain=\"0\"}"));
  EXPECT_EQ("3", value_of(metrics, "wex_registration_watched_threads{name=\"twin\",domain=\"0\"}"));
  EXPECT_EQ("1", value_of(metrics, "wex_registrations{state=\"parked\"}"));
  EXPECT_EQ("108", value_of(metrics, "wex_lost_exits_total"));
  EXPECT_EQ("115", value_of(metrics, "wex_pause_seconds"));
  EXPECT_EQ("1", value_of(metrics,
                          "wex_registration_state{name=\"a\\\"b\\\\c\\nd\x01\xef\xbf\xbd\xc3\xa4\""
                          ",domain=\"0\",state=\"parked\"}"));
}

TEST_F(WexstatMachines, OpenMetricsTellsOfADaemonThatIsNotThere) {
  const std::string nothing = wexstat("--openmetrics").text;
  EXPECT_EQ("0", value_of(nothing, "wex_up"));
  EXPECT_EQ("# EOF", lines_of(nothing).back());
  EXPECT_EQ(0, wexstat("--openmetrics").status);
  EXPECT_EQ("1", value_of(metrics_of(full(), daemon_state::stuck), "wex_stuck"));
  EXPECT_EQ("0", value_of(metrics_of(full(), daemon_state::dead), "wex_up"));
}
