"""Writes the figures of a full run to docs/performance.md and docs/performance.svg."""

import math
import os

COLOURS = {"backup": "#0b6e4f", "cp -a": "#8fc9b0", "reset": "#8c2f39", "rm -rf": "#e0a0a6"}


def seconds(value):
    return f"{value:.2f} s" if value >= 1 else f"{value * 1000:.3g} ms"


def table(head, rows):
    lines = ["| " + " | ".join(head) + " |", "|" + " --- |" * len(head)]
    return "\n".join(lines + ["| " + " | ".join(row) + " |" for row in rows])


def comparison(title, data):
    ours = data["rows"][0]["name"]
    rows = []
    for row in data["rows"]:
        ratio = "" if row["name"] == ours else f"**{row['ratio']:.2f}** ({row['low']:.2f}–{row['high']:.2f})"
        computing = "" if row["name"] == ours else f"{row['computing']:.2f}"
        rows.append([row["name"], seconds(row["seconds"]), ratio, computing])
    head = ["", "median time", f"{ours} / this (quartiles)", "computing only"]
    return f"### {title}\n\n{data['rounds']} rounds.\n\n{table(head, rows)}\n"


def calls(data):
    rows = [[row["name"], f"{row['file']:.2f}", f"{row['folder']:.2f}"] for row in data["copies"]]
    return "\n".join([
        "### System calls\n", table(["", "per plain file", "per folder"], rows), "",
        f"A wipe makes {data['wipe']:.2f} calls per entry (`rm -rf`: {data['rm']:.2f}), a search "
        f"{data['locate']:.2f} per container.\n"])


def growth(rows):
    names = list(COLOURS)

    def cell(row, name):
        one = row[name]
        return (f"{seconds(one['seconds'])} ({seconds(one['low'])}–{seconds(one['high'])}), "
                f"{one['seconds'] / row['size'] * 1e6:.1f} µs, {one['memory'] / 1024:.1f} MiB")

    body = [[f"{row['size']:,}", str(row["rounds"])] + [cell(row, name) for name in names]
            for row in rows]
    return "\n".join([
        "### Growth\n",
        "A tenth of the entries are folders, a quarter of the files have content. Each cell: median "
        "time (least–most), time per entry, most memory.\n",
        table(["entries", "rounds"] + names, body), "", "![Time by entries](performance.svg)\n"])


HEAD = """# Performance

Made by `make bench` on {date}; not edited by hand. {processor}, {cores} cores, {memory}, Linux
{kernel}; load average {load:.1f} before and {after:.1f} after (a load above zero is other work on
the same machine). Everything is on a file system in memory, so that no disk's journal is measured,
except where the disk ({disk}) is named.

Each round runs every side once, in changing order, and gives one ratio; the median of the ratios
counts. *Computing only* is the same ratio of processor time, which other work on the machine
disturbs less. Before anything is timed, an independent comparison makes sure that all sides did the
same work. *floor* is a bare loop of the system calls that the work takes, without any care for
depth, races or failures: what the tool takes longer than this is its own.

## Goals

{goals}

## Figures

{figures}
"""


def write(results, folder):
    machine, tables = results["machine"], results["tables"]
    goals = table(["", "is", "goal", ""], [
        [goal["what"], goal["is"], goal["goal"], "met" if goal["met"] else "**missed**"]
        for goal in results["goals"]])
    figures = [comparison(title, data) for title, data in tables.items() if "rounds" in data]
    figures += [calls(tables["calls"]), growth(tables["growth"])]
    text = HEAD.format(after=machine["load after"], goals=goals, figures="\n".join(figures),
                       **{key: value for key, value in machine.items() if key != "load after"})
    with open(os.path.join(folder, "performance.md"), "w", encoding="utf-8") as file:
        file.write(text.rstrip() + "\n")
    with open(os.path.join(folder, "performance.svg"), "w", encoding="utf-8") as file:
        file.write(plot(tables["growth"]))


def plot(rows):
    """Time by entries, both on logarithmic scales: what grows as the tree does is parallel to the
    dashed lines."""
    width, height, left, bottom = 640, 420, 70, 50
    low, high = -3.0, max(math.ceil(math.log10(row[name]["high"])) for row in rows for name in COLOURS)

    def x(size):
        return left + (math.log10(size) - 3) / 3 * (width - left - 110)

    def y(value):
        return height - bottom - (math.log10(value) - low) / (high - low) * (height - bottom - 20)

    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" '
             'font-family="sans-serif" font-size="12">',
             f'<rect width="{width}" height="{height}" fill="white"/>']
    for row in rows:
        at = x(row["size"])
        parts.append(f'<text x="{at:.0f}" y="{height - 28}" text-anchor="middle">{row["size"]:,}</text>')
    for power in range(int(low), high + 1):
        at = y(10 ** power)
        label = seconds(10 ** power).replace(".00", "")
        parts.append(f'<text x="{left - 8}" y="{at + 4:.0f}" text-anchor="end">{label}</text>')
        parts.append(f'<line x1="{left}" y1="{at:.1f}" x2="{width - 110}" y2="{at:.1f}" stroke="#eee"/>')
    first, last = rows[0]["size"], rows[-1]["size"]
    for start in (rows[0]["backup"]["seconds"], rows[0]["reset"]["seconds"] / 4):
        parts.append(f'<line x1="{x(first):.1f}" y1="{y(start):.1f}" x2="{x(last):.1f}" '
                     f'y2="{y(start * last / first):.1f}" stroke="#bbb" stroke-dasharray="4 4"/>')
    for name, colour in COLOURS.items():
        points = " ".join(f'{x(row["size"]):.1f},{y(row[name]["seconds"]):.1f}' for row in rows)
        parts.append(f'<polyline points="{points}" fill="none" stroke="{colour}" stroke-width="2"/>')
        for row in rows:
            one, at = row[name], x(row["size"])
            parts.append(f'<line x1="{at:.1f}" y1="{y(one["low"]):.1f}" x2="{at:.1f}" '
                         f'y2="{y(one["high"]):.1f}" stroke="{colour}" stroke-width="5" opacity="0.4"/>')
    for number, (name, colour) in enumerate(COLOURS.items()):
        at = 40 + 20 * number
        parts.append(f'<rect x="{width - 95}" y="{at - 9}" width="14" height="4" fill="{colour}"/>')
        parts.append(f'<text x="{width - 75}" y="{at - 3}">{name}</text>')
    parts.append(f'<text x="{(left + width - 110) / 2:.0f}" y="{height - 8}" text-anchor="middle">'
                 "entries</text>")
    parts.append(f'<text x="{width - 95}" y="125" fill="#888">dashed: as</text>'
                 f'<text x="{width - 95}" y="140" fill="#888">the entries</text></svg>\n')
    return "\n".join(parts)
