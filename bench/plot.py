"""The results at a glance: where the others stand beside tavlo."""

import matplotlib

matplotlib.use("svg")
matplotlib.rcParams["svg.hashsalt"] = "tavlo"  # the same results give the same file
matplotlib.rcParams["svg.fonttype"] = "none"  # text stays text
from matplotlib import pyplot  # noqa: E402
from matplotlib.ticker import FixedLocator, FuncFormatter, NullLocator  # noqa: E402

REFERENCE = "tavlo"
LOOKS = {"nginx": ("o", "tab:green"), "HAProxy": ("s", "tab:blue"),
         "HAProxy with one connection": ("+", "tab:blue"), "lighttpd": ("D", "tab:orange"),
         "floor": ("|", "black"), "destination": ("x", "lightgrey")}
PANELS = [("rate", "requests/s, to tavlo's\n(left of the line: tavlo leads)"),
          ("cpu_us", "processor time a request, to tavlo's\n(right of the line: tavlo leads)"),
          ("p99", "latency p99, to tavlo's\n(right of the line: tavlo leads)")]
TICKS = (0.1, 0.2, 0.5, 1, 2, 5, 10, 20)


def _ratios(axes, rows, metric, caption):
    positions = range(len(rows))
    for server, (marker, colour) in LOOKS.items():
        if server == "destination" and metric != "rate":
            continue
        points = [(row["servers"][server]["ratio"][metric], position)
                  for row, position in zip(rows, positions) if server in row["servers"]]
        if points:
            axes.scatter(*zip(*points), marker=marker, color=colour, label=server, zorder=3,
                         s=110 if marker == "|" else 34)
    axes.axvline(1, color="tab:red", linewidth=1.2)
    axes.set_xscale("log")
    axes.xaxis.set_major_locator(FixedLocator(TICKS))
    axes.xaxis.set_minor_locator(NullLocator())
    axes.xaxis.set_major_formatter(FuncFormatter(lambda value, _: f"{value:g}"))
    axes.set_yticks(list(positions), [row["title"] for row in rows])
    axes.invert_yaxis()
    axes.grid(axis="both", color="0.9")
    axes.set_xlabel(caption)


def _memory(axes, resources):
    names = list(resources)
    for offset, kind, label, colour in ((-0.2, "rest_kib", "at rest", "0.75"),
                                        (0.2, "load_kib", "under load", "0.45")):
        axes.barh([position + offset for position in range(len(names))],
                  [resources[name][kind] / 1024 for name in names], 0.38, color=colour, label=label)
    axes.set_yticks(range(len(names)), names)
    axes.invert_yaxis()
    axes.set_xlabel("memory (Pss), MiB")
    axes.legend(fontsize="small")


def draw(results, path):
    rows = [row for row in results["rows"] if REFERENCE in row["servers"]
            and len(row["servers"]) > 1]
    figure, axes = pyplot.subplots(2, 2, figsize=(12, 9), layout="constrained")
    panels = axes.flat
    for (metric, caption), panel in zip(PANELS, panels):
        _ratios(panel, rows, metric, caption)
    panels[0].legend(fontsize="small")
    _memory(panels[3], results["resources"])
    machine = results["machine"]
    figure.suptitle(f"tavlo is the red line. {machine['processor']}, {machine['cores']} cores, "
                    f"{machine['date']}", fontsize="medium")
    figure.savefig(path, metadata={"Date": None})
    pyplot.close(figure)
