"""The results at a glance: where the others stand beside tavlo."""

import matplotlib

matplotlib.use("svg")
matplotlib.rcParams["svg.hashsalt"] = "tavlo"  # the same results give the same file
matplotlib.rcParams["svg.fonttype"] = "none"  # text stays text
from matplotlib import pyplot  # noqa: E402
from matplotlib.ticker import FixedLocator, FuncFormatter, NullLocator  # noqa: E402

REFERENCE = "tavlo"
CONTRACT = "HAProxy with one connection"
LOOKS = {"nginx": ("o", "tab:green"), "nginx with its own curves": ("1", "tab:green"),
         "HAProxy": ("s", "tab:blue"), "HAProxy with its own curves": ("2", "tab:blue"),
         CONTRACT: ("+", "tab:blue"), "lighttpd": ("D", "tab:orange"),
         "floor": ("|", "black"), "destination": ("x", "lightgrey")}
CONTRACT_PANELS = [("rate", "requests/s", "tab:red"), ("cpu_us", "processor time a request", "0.4")]
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


def _contract(axes, rows):
    """tavlo beside the server that promises the same."""
    rows = [row for row in rows if CONTRACT in row["servers"]]
    for metric, label, colour in CONTRACT_PANELS:
        ratios = [1 / row["servers"][CONTRACT]["ratio"][metric] for row in rows]
        axes.plot(ratios, range(len(rows)), "o", color=colour, label=label, zorder=3)
    axes.axvline(1, color="tab:blue", linewidth=1.2)
    axes.set_yticks(range(len(rows)), [row["title"] for row in rows])
    axes.set_ylim(len(rows) - 0.5, -1.5)  # room for the legend above all points
    axes.set_xlim(left=0)
    axes.grid(axis="both", color="0.9")
    axes.set_xlabel(f"tavlo's, to that of {CONTRACT}\n(the line: what the same promise costs it)")
    axes.legend(fontsize="small", loc="upper left", ncols=2)


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
    figure, axes = pyplot.subplots(3, 2, figsize=(12, 14), layout="constrained")
    panels = axes.flat
    _contract(panels[0], rows)
    _memory(panels[1], results["resources"])
    for (metric, caption), panel in zip(PANELS, panels[2:]):
        _ratios(panel, rows, metric, caption)
    panels[5].axis("off")
    panels[5].legend(*panels[2].get_legend_handles_labels(), loc="upper left",
                     title="In the three panels beside and above")
    machine = results["machine"]
    figure.suptitle(f"{machine['processor']}, {machine['cores']} cores, "
                    f"{machine['date']}", fontsize="medium")
    figure.savefig(path, metadata={"Date": None})
    pyplot.close(figure)
