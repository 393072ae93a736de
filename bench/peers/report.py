#!/usr/bin/env python3
"""The result of a comparison as tables and charts.

report.py check   fails unless docs/performance.md shows what bench/performance.json holds
report.py write   makes it so, charts included (gnuplot)
"""
import json
import os
import subprocess
import sys

TOP = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
DATA = os.path.join(TOP, "bench", "performance.json")
PAGE = os.path.join(TOP, "docs", "performance.md")
BEGIN = "<!-- figures: ./dev bench writes what stands between these lines -->"
END = "<!-- end of figures -->"
COLORS = {"wex": "#c00000", "wex-no-pauses": "#e89090", "floor-wait": "#404040", "floor-connector": "#909090"}
OTHER_COLORS = ("#1f77b4", "#2ca02c", "#9467bd", "#e0a000", "#17becf", "#8c564b", "#4040ff")
CHARTS = ("performance-latency.svg", "performance-services.svg")

LATENCY_CHART = """set terminal svg size 900,480 font "sans,12" background "white"
set output "%(output)s"
set title "From SIGKILL of one of 100 services to main() of its replacement"
set xlabel "microseconds"
set ylabel "share of the restarts that were quicker, in percent"
set logscale x
set xrange [%(low)g:%(high)g]
set yrange [0:100]
set grid
set key outside right
plot %(plots)s
"""

SERVICES_CHART = """set terminal svg size 900,720 font "sans,12" background "white"
set output "%(output)s"
set multiplot layout 2,1
set logscale xy
set xlabel "services"
set xrange [*:1100]
set grid
set key outside right
set title "Memory of the supervisor (PSS)"
set ylabel "KiB"
plot %(memory)s
set title "All services killed at once: until all are back"
set ylabel "milliseconds"
plot %(mass)s
unset multiplot
"""


# ---- Numbers and tables --------------------------------------------------------------------------------------

def number(value, digits=None):
    if value is None:
        return "-"
    if digits is None:
        digits = 0 if abs(value) >= 100 else 1 if abs(value) >= 10 else 2
    return "{:,.{}f}".format(value, digits)


def times(value, floor):
    return number(value / floor, 2) if value and floor else "-"


def table(head, rows):
    if not rows:
        return ""
    right = [all(str(row[at])[:1] in "0123456789-" for row in rows) for at in range(len(head))]
    lines = ["| " + " | ".join(head) + " |", "|" + "".join("---:|" if one else "---|" for one in right)]
    lines += ["| " + " | ".join(str(cell) for cell in row) + " |" for row in rows]
    return "\n".join(lines) + "\n\n"


def pick(tree, *keys):
    for key in keys:
        tree = tree.get(key) if isinstance(tree, dict) else None
    return tree


def mass_median(result, name, size):
    entry = pick(result, "mass_ms", name, size)
    back = sorted(entry["all_back"]) if entry else []
    return back[len(back) // 2] if back and not entry["lost"] else None


def names(result, kind):
    return [name for name, about in result["supervisors"].items() if about["kind"] == kind]


# ---- One line for each question ------------------------------------------------------------------------------

def questions(result):
    """The question, how many digits, and the figure of a supervisor: less is better."""
    yield "death of one of 100 to `main()` of its replacement, us", lambda n: pick(result, "latency_us", n, "median")
    yield "the same, 99th percentile, us", lambda n: pick(result, "latency_us", n, "p99")
    yield "the same, killed right after its start, us", lambda n: pick(result, "young_us", n, "median")
    for size in ("200", "1000"):
        yield ("%s services killed at once, all back, ms" % size, lambda n, size=size: mass_median(result, n, size))
    for size in ("100", "1000"):
        yield ("start of the supervisor to the %sth service, ms" % size,
               lambda n, size=size: pick(result, "startup_ms", n, size, "median"))
    for rate, text in (("250", "250 forks a second"), ("1000", "1,000 forks a second"), ("0", "forks flat out")):
        yield ("death of one, strangers: %s, us" % text,
               lambda n, rate=rate: pick(result, "storm_us", n, rate, "median"))
    for size in ("100", "1000"):
        yield ("memory with %s services, KiB (PSS)" % size,
               lambda n, size=size: pick(result, "memory_kib", n, size, "pss"))
    yield "context switches a second, 100 idle services", lambda n: pick(result, "idle", n, "switches_per_s")


def glance(result):
    rows = []
    peers = names(result, "peer")
    for question, figure in questions(result):
        floor, wex = figure("floor-wait"), figure("wex")
        best = min(((figure(name), name) for name in peers if figure(name) is not None), default=None)
        if floor is None and wex is None and best is None:
            continue
        rows.append([question, number(floor), number(wex), times(wex, floor),
                     "%s (%s)" % (number(best[0]), best[1]) if best else "-"])
    return table(["measure", "floor", "wex", "wex / floor", "best other"], rows)


# ---- All figures ---------------------------------------------------------------------------------------------

def latency_rows(result):
    floor = pick(result, "latency_us", "floor-wait", "median")
    for name, one in sorted(result.get("latency_us", {}).items(), key=lambda item: item[1]["median"]):
        spread = [median for median in one["medians"] if median]
        yield [name, one["n"], number(one["median"]), number(one["p95"]), number(one["p99"]), number(one["max"]),
               times(one["median"], floor), "%.0f %%" % (100 * (max(spread) - min(spread)) / one["median"]),
               number(pick(result, "young_us", name, "median"))]


def mass_rows(result):
    for name, by_size in result.get("mass_ms", {}).items():
        for size, one in by_size.items():
            back = mass_median(result, name, size)
            yield [name, one["services"], number(back), times(back, mass_median(result, "floor-wait", size)),
                   number(back / one["services"], 2) if back else "-", one["lost"], one["never_started"]]


def storm_rows(result):
    for name, by_rate in result.get("storm_us", {}).items():
        for one in by_rate.values():
            yield [name, number(one["forks"], 0), *(number(one.get(key)) for key in ("median", "p99", "max")),
                   times(one.get("median"), pick(result, "latency_us", name, "median")),
                   "%d of %d" % (one["lost"], one["killed"])]


def memory_rows(result):
    for name, by_size in result.get("memory_kib", {}).items():
        for size, one in sorted(by_size.items(), key=lambda item: int(item[0])):
            yield [name, size, one["processes"], *(number(one[key], 0) for key in ("pss", "resident", "kernel"))]


def idle_rows(result):
    for name, one in sorted(result.get("idle", {}).items(), key=lambda item: item[1]["switches_per_s"]):
        yield [name, number(one["switches_per_s"], 2), number(one["cpu_ppm"], 1)]


def request_rows(result):
    for name, one in result.get("requests", {}).items():
        for clients in ("1", "16"):
            yield [name, one["what"], clients, number(one[clients]["per_second"], 0), number(one[clients]["median_us"]),
                   number(one[clients]["max_us"]), one[clients]["errors"]]


def report_rows(result):
    for name, one in result.get("report_ns", {}).items():
        yield [name, number(one["median"]), number(one["p99"]), number(one["max"])]


def who(result):
    return [[name, about["version"] or "-", about["how"]] for name, about in result["supervisors"].items()]


def noise(result):
    told = []
    for when in ("before", "after"):
        one = result["noise"][when]
        late = one["late_us"]
        told.append("%s the run a sleep of 1 ms ended %s us late (median; 99th percentile %s), and %.2f %% of the time "
                    "was taken from a busy loop" % (when, number(late["median"]), number(late["p99"]),
                                                    100 * one["taken_share"]))
    busy = max(result["busy_before"].values(), default=0)
    return "Noise: %s. Others kept the machine busy by at most %.0f %% when a measurement began." % (
        "; ".join(told), 100 * busy)


SECTIONS = (
    ("Restart of one of 100 (us)", ["supervisor", "n", "median", "p95", "p99", "max", "/ floor", "spread of the rounds",
                                    "killed right after its start"], latency_rows),
    ("All killed at once (ms)", ["supervisor", "services", "all back", "/ floor", "a death", "lost", "never started"],
     mass_rows),
    ("Restart while strangers fork (us)", ["supervisor", "forks a second", "median", "p99", "max", "/ quiet", "lost"],
     storm_rows),
    ("Memory (KiB)", ["supervisor", "services", "processes", "PSS", "resident", "page tables and kernel stacks"],
     memory_rows),
    ("100 idle services, all supervisors at once", ["supervisor", "context switches a second",
                                                    "millionths of a processor"], idle_rows),
    ("Requests on the control channel", ["supervisor", "request", "clients", "a second", "median us", "max us",
                                         "errors"], request_rows),
    ("One report of a supervised thread (ns)", ["way", "median", "p99", "max"], report_rows),
    ("Who was measured", ["name", "version", "how"], who),
)


def text(result):
    about = result["machine"]
    told = ["Measured on %s by a %s run of `./dev bench`, on %d cores of %s%s, %s MiB of memory, Linux %s.\n\n" % (
        about["date"], result["mode"], about["cores"], about["cpu"], " (virtual)" if about["virtual"] else "",
        number(about["memory_mib"], 0), about["kernel"]), noise(result) + "\n\n", glance(result)]
    for title, head, rows in SECTIONS:
        made = table(head, list(rows(result)))
        if made:
            told.append("### %s\n\n%s" % (title, made))
    for name, failure in result.get("failures", {}).items():
        told.append("%s: %s.\n\n" % (name, failure))
    if result["skipped"]:
        told.append("Not found on this machine: %s.\n\n" % ", ".join(result["skipped"]))
    return "".join(told)


# ---- Charts --------------------------------------------------------------------------------------------------

def plots(label, result, points):
    """Inline data: an SVG needs no file beside it."""
    parts, blocks = [], []
    for at, (name, about) in enumerate(result["supervisors"].items()):
        lines = points(name)
        if lines:
            block = "$%s%d" % (label, at)
            blocks.append("%s << EOD\n%s\nEOD\n" % (block, "\n".join("%g %g" % point for point in lines)))
            parts.append('%s with linespoints linecolor "%s" linewidth %d %s pointtype 7 pointsize 0.4 title "%s"' % (
                block, COLORS.get(name, OTHER_COLORS[at % len(OTHER_COLORS)]), 3 if name == "wex" else 1,
                "dashtype 2" if about["kind"] == "floor" else "", name))
    return "".join(blocks), ", ".join(parts)


def draw(script):
    try:
        subprocess.run(["gnuplot"], input=script.encode(), check=True)
    except FileNotFoundError:
        print("gnuplot is not here, so there are no charts (Debian: gnuplot-nox)", file=sys.stderr)


def draw_charts(result, folder):
    from measures import QUANTILES
    latency = {name: [(value, share) for value, share in zip(one["quantiles"], QUANTILES)]
               for name, one in result.get("latency_us", {}).items()}
    data, curves = plots("latency", result, lambda name: latency.get(name, []))
    if curves:                               # those that look once a second would squeeze all others
        low = min(one["min"] for one in result["latency_us"].values())
        high = max(one["p95"] for one in result["latency_us"].values() if one["median"] < 20 * low)
        draw(data + LATENCY_CHART % dict(output=os.path.join(folder, CHARTS[0]), plots=curves, low=low * 0.9,
                                         high=high * 1.3))
    memory_data, memory = plots("memory", result, lambda name: sorted(
        (int(size), one["pss"]) for size, one in result.get("memory_kib", {}).get(name, {}).items()))
    mass_data, mass = plots("mass", result, lambda name: [
        (one["services"], mass_median(result, name, size))
        for size, one in result.get("mass_ms", {}).get(name, {}).items() if mass_median(result, name, size)])
    if memory and mass:
        draw(memory_data + mass_data + SERVICES_CHART % dict(output=os.path.join(folder, CHARTS[1]), memory=memory,
                                                             mass=mass))


# ---- The page ------------------------------------------------------------------------------------------------

def between(page):
    """What stands before the figures, the figures, and what stands behind them."""
    before, _, rest = page.partition(BEGIN + "\n\n")
    figures, _, behind = rest.partition(END)
    return before, figures, behind


def compact(result):
    """JSON with a line for each supervisor of a measurement."""
    parts = []
    for key, value in result.items():
        if isinstance(value, dict) and any(isinstance(one, dict) for one in value.values()):
            inner = ",\n".join("  %s: %s" % (json.dumps(name), json.dumps(one)) for name, one in value.items())
            parts.append("%s: {\n%s}" % (json.dumps(key), inner))
        else:
            parts.append("%s: %s" % (json.dumps(key), json.dumps(value)))
    return "{\n" + ",\n".join(parts) + "\n}\n"


def write(result, data, page):
    with open(data, "w") as file:
        file.write(compact(result))
    with open(page if os.path.exists(page) else PAGE) as file:
        before, _, behind = between(file.read())
    with open(page, "w") as file:
        file.write(before + BEGIN + "\n\n" + text(result) + END + behind)
    draw_charts(result, os.path.dirname(page))


def main():
    with open(DATA) as file:
        result = json.load(file)
    if sys.argv[1:] == ["write"]:
        write(result, DATA, PAGE)
        return
    with open(PAGE) as file:
        shown = between(file.read())[1]
    if shown != text(result):
        sys.exit("docs/performance.md does not show what bench/performance.json holds. "
                 "What to do: bench/peers/report.py write")
    missing = [chart for chart in CHARTS if not os.path.exists(os.path.join(os.path.dirname(PAGE), chart))]
    if missing:
        sys.exit("missing in docs: " + ", ".join(missing))
    print("docs/performance.md shows bench/performance.json")


if __name__ == "__main__":
    main()
