"""The figures of peers.py as a text in docs/benchmark.md, and as a plot beside it."""

import os
import platform
import subprocess
from pathlib import Path

from harness import AGENT, RELAYS, ROOT

DOCUMENT = ROOT / "docs" / "benchmark.md"
PLOT = ROOT / "docs" / "benchmark.png"
BEGIN, END = "<!-- figures, written by bench/run.sh -->\n", "<!-- end of the figures -->\n"
HIGHLIGHT, PLAIN, PEER = "#d9480f", "#adb5bd", "#4a7ba6"


def machine() -> str:
    packages = sorted({relay.package for relay in RELAYS.values() if relay.package})
    versions = subprocess.run(["dpkg-query", "-W", "-f", "${Package} ${Version}, ", *packages],
                              check=False, capture_output=True, text=True).stdout
    version = subprocess.run([AGENT, "-V"], check=False, capture_output=True, text=True)
    agent = (version.stdout + version.stderr).split("\n")[0]
    return (f"Linux {platform.release()}, {platform.machine()}, {os.cpu_count()} processors, "
            f"{platform.libc_ver()[0]} {platform.libc_ver()[1]}; {versions}agent `{agent}`.")


def row(cells: list[str]) -> str:
    return f"| {' | '.join(cells)} |\n"


def text(machine_line: str, table: dict, wishes: list) -> str:
    kinds = list(next(iter(table.values())))
    out = f"{machine_line}\n\n" + row(["", "", *kinds]) + row(["---"] * 2 + ["--:"] * len(kinds))
    for figure, values in table.items():
        numbers = [f"{values[kind]:,.{figure.digits}f}" for kind in kinds]
        out += row([f"{figure.name}, {figure.unit}", figure.workload, f"**{numbers[0]}**",
                    *numbers[1:]])
    out += "\n" + row(["the agent's", "traffic", "beside", "ratio", "wanted at most", ""])
    out += row(["---"] * 3 + ["--:"] * 2 + ["---"])
    for wish in wishes:
        out += row([wish.figure.name, wish.figure.workload, wish.against, f"{wish.ratio:.2f}",
                    f"{wish.wanted:.2f}", "" if wish.ratio <= wish.wanted else "**short**"])
    return out


def write(report: str, table: dict) -> None:
    before, _, rest = DOCUMENT.read_text().partition(BEGIN)
    after = rest.partition(END)[2]
    DOCUMENT.write_text(f"{before}{BEGIN}\n{report}\n{END}{after}")
    plot(table, PLOT)


def plot(table: dict, path: Path) -> None:
    """One panel for each figure but the throughput, one bar for each relay."""
    import matplotlib
    matplotlib.use("Agg")
    from matplotlib import pyplot

    figures = [figure for figure in table if figure.name != "throughput"]
    columns = 4
    rows = -(-len(figures) // columns)
    canvas, panels = pyplot.subplots(rows, columns, figsize=(15, 2.7 * rows), squeeze=False)
    for panel, figure in zip(panels.flat, figures):
        draw(panel, figure, table[figure])
    for panel in list(panels.flat)[len(figures):]:
        panel.set_visible(False)
    canvas.suptitle("The agent's relay beside others (shorter bars are better, if not noted)",
                    fontsize=13)
    canvas.tight_layout(rect=(0, 0, 1, 0.985))
    canvas.savefig(path, dpi=90)


def draw(panel, figure, values: dict[str, float]) -> None:
    colours = {"agent": HIGHLIGHT, "plain": PLAIN}
    bars = panel.barh(list(values), list(values.values()), height=0.7,
                      color=[colours.get(kind, PEER) for kind in values])
    panel.bar_label(bars, [f"{value:,.{figure.digits}f}" for value in values.values()], padding=3,
                    fontsize=9)
    panel.invert_yaxis()
    panel.set_title(f"{figure.workload}: {figure.name}, {figure.unit}", fontsize=10, loc="left")
    panel.set_xlim(0, 1.22 * max(values.values()))
    panel.set_xticks([])
    panel.tick_params(axis="y", length=0, labelsize=9)
    panel.get_yticklabels()[0].set(weight="bold", color=HIGHLIGHT)
    for side in ("top", "right", "bottom"):
        panel.spines[side].set_visible(False)
