"""Turns samples into results, and results into tables for the terminal and for the page."""

import statistics
from pathlib import Path

METRICS = ("rate", "cpu_us", "p50", "p99", "p99.9")
BEGIN, END = "<!-- bench: begin -->", "<!-- bench: end -->"
REFERENCE = "tavlo"


def spread(values):
    return {"median": statistics.median(values), "min": min(values), "max": max(values)}


def summarise(samples):
    """From a list of one dict a round for each server: the spread of each metric, and the median
    of the ratios to the reference that the same rounds give."""
    results = {}
    reference = samples.get(REFERENCE)
    for server, rounds in samples.items():
        results[server] = {metric: spread([sample[metric] for sample in rounds])
                           for metric in METRICS}
        if reference:
            results[server]["ratio"] = {
                metric: statistics.median(mine[metric] / its[metric]
                                          for mine, its in zip(rounds, reference))
                for metric in METRICS}
    return results


# --- the terminal ---

def row_text(row):
    lines = [f"{row['title']:<36}{'requests/s':>12}{'(lowest .. highest)':>22}{'to tavlo':>10}"
             f"{'CPU us':>9}{'p50 us':>9}{'p99 us':>9}{'p99.9 us':>10}"]
    for server, result in row["servers"].items():
        rate = result["rate"]
        ratio = f"{result['ratio']['rate']:.2f}" if "ratio" in result else ""
        lines.append(f"  {server:<34}{rate['median']:>12,.0f}"
                     f"{rate['min']:>11,.0f} ..{rate['max']:>8,.0f}{ratio:>10}"
                     + "".join(f"{result[metric]['median']:>{width}.0f}"
                               for metric, width in zip(METRICS[1:], (9, 9, 9, 10))))
    return "\n".join(lines)


def resources_text(resources):
    lines = [f"{'':<14}{'Pss at rest':>13}{'under load':>12}{'start':>10}{'program':>11}"
             f"{'libraries':>14}"
             f"{'calls plain':>13}{'calls TLS':>11}"]
    for server, own in resources.items():
        lines.append(f"  {server:<12}{own['rest_kib'] / 1024:>9.1f} MiB"
                     f"{own['load_kib'] / 1024:>8.1f} MiB{own['start_ms']['median']:>7.1f} ms"
                     f"{own['program_bytes'] / 1000:>8.0f} KB"
                     f"{sum(own['libraries'].values()) / 1000:>8.0f} KB"
                     f"{' (' + str(len(own['libraries'])) + ')':<5}"
                     f"{own['calls']['plain']:>11.1f}{own['calls']['tls']:>11.1f}")
    return "\n".join(lines)


def instructions_text(resources):
    return "\n".join(f"  {server:<12}{own['instructions']['plain']:>12,.0f} plain"
                     f"{own['instructions']['tls']:>12,.0f} over TLS"
                     for server, own in resources.items() if "instructions" in own)


def micro_text(micro):
    return "\n".join(f"  {name:<24}{nanoseconds:>12,.0f} ns" for name, nanoseconds in micro.items())


def text(results):
    parts = [row_text(row) for row in results["rows"]]
    if results["resources"]:
        parts.append("Memory of all processes, time until the first answer, sizes (libraries and "
                     "modules besides\nthe C library and OpenSSL), system calls a small GET:\n"
                     + resources_text(results["resources"]))
        counted = instructions_text(results["resources"])
        if counted:
            parts.append("Instructions a small GET, without the kernel's:\n" + counted)
        parts.append("Inner pieces of tavlo:\n" + micro_text(results["micro"]))
    parts.append("Where the set-ups differ:\n" + "\n".join(
        f"  {name}: {difference}" for name, difference in results["differences"].items()))
    return "\n\n".join(parts)


# --- the page ---

def _table(head, lines):
    return "\n".join(["| " + " | ".join(cells) + " |"
                      for cells in (head, ["---"] + ["---:"] * (len(head) - 1), *lines)])


def _ratio_table(rows, servers, unit, own, other):
    """A line a row: the reference's own figure, and what the others have beside it."""
    lines = []
    for row in rows:
        results = row["servers"]
        if REFERENCE in results:
            cells = [other(results[server]["ratio"]) if server in results else ""
                     for server in servers]
            lines.append([row["title"], own(results[REFERENCE]), *cells])
    return _table(["", f"tavlo, {unit}", *servers], lines)


def _resources_table(resources):
    return _table(
        ["", "Pss at rest", "Pss under load", "first answer after", "program", "its libraries",
         "system calls a GET, plain / TLS"],
        [[server, f"{own['rest_kib'] / 1024:.1f} MiB", f"{own['load_kib'] / 1024:.1f} MiB",
          f"{own['start_ms']['median']:.1f} ms", f"{own['program_bytes'] / 1000:.0f} KB",
          f"{sum(own['libraries'].values()) / 1000:.0f} KB ({len(own['libraries'])})",
          f"{own['calls']['plain']:.1f} / {own['calls']['tls']:.1f}"]
         for server, own in resources.items()])


def page_part(results):
    """What docs/performance.md has between its two marks."""
    machine = results["machine"]
    rows = results["rows"]
    servers = [name for name in results["differences"] if name != REFERENCE]
    latencies = METRICS[2:]
    alone = [[row["title"], f"{result['rate']['median']:,.0f}", f"{result['cpu_us']['median']:,.0f}",
              f"{result['p50']['median']:,.0f}", f"{result['p99']['median']:,.0f}"]
             for row in rows for name, result in row["servers"].items()
             if REFERENCE not in row["servers"]]
    return "\n\n".join([
        f"Measured on {machine['date']} at {machine['commit']}: {machine['processor']}, "
        f"{machine['cores']} cores, Linux {machine['kernel']}; {', '.join(machine['versions'])}. "
        f"{results['rounds']} rounds.",
        "Requests a second, and those of the others as a ratio to it (below 1: tavlo leads):",
        _ratio_table(rows, servers, "requests/s",
                     lambda own: f"{own['rate']['median']:,.0f}",
                     lambda ratio: f"{ratio['rate']:.2f}"),
        "Processor time a request, and ratios to it (above 1: tavlo leads):",
        _ratio_table(rows, servers, "µs", lambda own: f"{own['cpu_us']['median']:,.0f}",
                     lambda ratio: f"{ratio['cpu_us']:.2f}"),
        "Latency, p50 / p99 / p99.9, and ratios to them (above 1: tavlo leads):",
        _ratio_table(rows, servers, "µs",
                     lambda own: " / ".join(f"{own[each]['median']:,.0f}" for each in latencies),
                     lambda ratio: " / ".join(f"{ratio[each]:.2f}" for each in latencies)),
        "Memory of all processes of a server, time from its start to its first answer, sizes (of "
        "libraries and modules those besides the C library and OpenSSL, which each of them maps), and "
        "system calls for a request over a kept connection:",
        _resources_table(results["resources"]),
        "Instructions for such a request, without the kernel's, counted under callgrind:",
        _table(["", "plain", "TLS"],
               [[server, *(f"{own['instructions'][each]:,.0f}" for each in ("plain", "tls"))]
                for server, own in results["resources"].items() if "instructions" in own]),
        "What the others have no counterpart to:",
        _table(["", "requests/s", "CPU µs", "p50 µs", "p99 µs"], alone),
        "Inner pieces:",
        _table(["", "ns"], [[name, f"{value:,.0f}"] for name, value in results["micro"].items()]),
        "Where the set-ups differ:",
        "\n".join(f"- {name}: {text}." for name, text in results["differences"].items()),
    ])


PLOT = "![The others beside tavlo, row by row](performance.svg)"


def publish(results, page: Path):
    """Puts the plot and the tables in between the page's two marks."""
    before, _, rest = page.read_text(encoding="utf-8").partition(BEGIN)
    _, mark, after = rest.partition(END)
    if not mark:
        raise ValueError(f"{page} has no marks {BEGIN} and {END}")
    page.write_text(f"{before}{BEGIN}\n\n{PLOT}\n\n{page_part(results)}\n\n{END}{after}", encoding="utf-8")
