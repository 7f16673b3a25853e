#!/usr/bin/env python3
"""Brings what orbix_bench --all has measured into the documents.

    bench/report.py RESULTS.json [NOTE]

takes the file of --benchmark_out and writes docs/bench-results.json (the figures alone),
docs/line-rate.svg (the plot) and the tables between the markers in docs/bench.md, with the note if
there is something to say about the circumstances.
"""
import datetime
import json
import os
import pathlib
import re
import sys

docs = pathlib.Path(__file__).resolve().parent.parent / "docs"

FIGURES = ("seconds", "over_bound", "loss", "processor_s", "core_share", "peak_MiB")


def machine(context):
    """The processor, its number of cores, and the system."""
    info = pathlib.Path("/proc/cpuinfo").read_text()
    release = pathlib.Path("/etc/os-release").read_text()
    virtual = " (virtual machine)" if re.search(r"^flags.*\bhypervisor\b", info, re.M) else ""
    return {
        "processor": re.search(r"model name\s*: (.*)", info)[1] + virtual,
        "cores": context["num_cpus"],
        "system": re.search(r'PRETTY_NAME="(.*)"', release)[1],
        "kernel": re.match(r"\d+\.\d+", os.uname().release)[0],
        "cpus_awake": context.get("processors") == "kept awake",
        "load_before": context["load_avg"][0] if context["load_avg"] else None,
    }


def gather(report):
    """The figures of all runs: one entry for each transfer and rate, one for each peer and rate."""
    transfers, peers, failed = {}, [], []
    for run in report["benchmarks"]:
        if run.get("error_occurred"):
            failed.append(run["name"].split("/iterations")[0] + ": " +
                          run["error_message"].strip().splitlines()[-1])
        elif "ratio" in run:
            transfer, peer = run["label"].split(" / ")
            peers.append({"transfer": transfer, "peer": peer, "baud": int(run["baud"]),
                          "bytes": int(run["bytes"]), "tool_s": round(run["seconds"], 3),
                          "peer_s": round(run["peer_s"], 3), "ratio": round(run["ratio"], 4),
                          "same_bytes_ratio": round(run["same_bytes_ratio"], 4)})
        else:
            entry = transfers.setdefault((run["label"], int(run["baud"])), {
                "transfer": run["label"], "baud": int(run["baud"]), "bytes": int(run["bytes"]),
                "line_s": round(run["line_s"], 3), "delay_s": round(run["delay_s"], 3),
                "bound_s": round(run["bound_s"], 3), "modules": {}})
            entry["modules"][str(int(run["modules"]))] = {
                name: round(run[name], 4) for name in FIGURES if name in run}
    measured = [entry for entry in transfers.values() if "1" in entry["modules"]]
    return {"taken": datetime.date.today().isoformat(), "machine": machine(report["context"]),
            "transfers": measured, "peers": peers, "failed": failed}


# --- the tables ----------------------------------------------------------------------------------

def percent(value):
    return "-" if value is None else f"{value * 100:.2f} %"


def table(rows):
    head, *body = rows
    lines = ["| " + " | ".join(head) + " |",
             "|" + "|".join("---" if column == 0 else "---:" for column in range(len(head))) + "|"]
    return "\n".join(lines + ["| " + " | ".join(row) + " |" for row in body])


def tables(results):
    system = results["machine"]
    rows = [("Transfer", "baud", "bytes", "line s", "bound s", "took s", "over the bound",
             "processor s", "of a core", "MiB", "8 modules lose", "32 modules lose")]
    for entry in results["transfers"]:
        alone = entry["modules"]["1"]
        beside = [entry["modules"].get(count, {}).get("loss") for count in ("8", "32")]
        rows.append((entry["transfer"], str(entry["baud"]), str(entry["bytes"]),
                     f"{entry['line_s']:.2f}", f"{entry['bound_s']:.2f}",
                     f"{alone['seconds']:.2f}", percent(alone["over_bound"]),
                     f"{alone['processor_s']:.3f}", percent(alone["core_share"]),
                     f"{alone['peak_MiB']:.1f}", *map(percent, beside)))
    peer_rows = [("Transfer", "baud", "bytes", "orbix_flash s", "peer", "peer s", "ratio",
                  "for the same bytes")]
    for entry in results["peers"]:
        peer_rows.append((entry["transfer"], str(entry["baud"]), str(entry["bytes"]),
                          f"{entry['tool_s']:.3f}", entry["peer"], f"{entry['peer_s']:.3f}",
                          f"{entry['ratio']:.4f}", f"{entry['same_bytes_ratio']:.4f}"))
    awake = "were kept from halting" if system["cpus_awake"] else "were free to halt"
    load = "" if system["load_before"] is None else (
        f" The load of the machine was {system['load_before']:.1f} when the bench began.")
    text = (f"Measured on {results['taken']}: {system['processor']}, {system['cores']} cores, "
            f"{system['system']}, Linux {system['kernel']}. The processors {awake}.{load} {results.get('note', '')}\n\n"
            f"{table(rows)}\n\nBeside other programs:\n\n{table(peer_rows)}\n")
    if results["failed"]:
        text += "\nFailed:\n\n" + "\n".join("- " + line for line in results["failed"]) + "\n"
    return text


# --- the plot ------------------------------------------------------------------------------------

STYLE = """
  .paper { fill: #fff; }
  text { font: 12px sans-serif; fill: #333; }
  .title { font-weight: bold; }
  .grid { stroke: #888; stroke-opacity: 0.35; }
  .limit { stroke: #888; stroke-dasharray: 5 4; stroke-width: 1.5; }
  .slow { fill: #0072b2; } .middle { fill: #009e73; } .fast { fill: #d55e00; }
  @media (prefers-color-scheme: dark) {
    .paper { fill: #1c1e21; }
    text { fill: #ddd; }
    .slow { fill: #56b4e9; } .middle { fill: #2fc99a; } .fast { fill: #ff8a3d; }
  }
"""
ROW, TOP, LEFT, PANEL, GAP = 22, 64, 150, 300, 50


def kind(baud):
    return "slow" if baud <= 115200 else "fast" if baud >= 921600 else "middle"


def mark(x, y, baud):
    """A circle, a square or a triangle: the rates are told apart without their colours too."""
    name = kind(baud)
    if name == "slow":
        return f'<circle class="slow" cx="{x:.1f}" cy="{y}" r="5"/>'
    if name == "middle":
        return f'<rect class="middle" x="{x - 4.5:.1f}" y="{y - 4.5}" width="9" height="9"/>'
    return (f'<path class="fast" d="M{x:.1f} {y - 6} L{x + 6:.1f} {y + 5} L{x - 6:.1f} {y + 5} Z"/>')


def panel(left, title, names, points, limits, bottom):
    """Points of (transfer, baud, part) on an axis of per cent that begins at 0."""
    most = max([part * 100 for _, _, part in points] + [limit * 1.1 for limit in limits] + [1])
    step = next(size for size in (0.5, 1, 2, 5, 10, 20, 50, 100, 1000) if most / size <= 8)
    width = PANEL / most
    out = [f'<text class="title" x="{left}" y="{TOP - 18}">{title}</text>']
    for number in range(int(most / step) + 1):
        x = left + number * step * width
        out.append(f'<line class="grid" x1="{x:.1f}" y1="{TOP}" x2="{x:.1f}" y2="{bottom}"/>')
        out.append(f'<text x="{x:.1f}" y="{bottom + 16}" text-anchor="middle">{number * step:g}</text>')
    for limit in limits:
        x = left + limit * width
        out.append(f'<line class="limit" x1="{x:.1f}" y1="{TOP - 8}" x2="{x:.1f}" y2="{bottom}"/>')
    for name, baud, part in points:
        out.append(mark(left + max(part, 0) * 100 * width, TOP + names.index(name) * ROW + ROW // 2,
                        baud))
    out.append(f'<text x="{left + PANEL / 2}" y="{bottom + 34}" text-anchor="middle">per cent</text>')
    return out


def plot(results):
    names = list(dict.fromkeys(entry["transfer"] for entry in results["transfers"]))
    bottom = TOP + len(names) * ROW
    second = LEFT + PANEL + GAP
    width, height = second + PANEL + 30, bottom + 48
    alone = [(e["transfer"], e["baud"], e["modules"]["1"]["over_bound"]) for e in results["transfers"]]
    beside = [(e["transfer"], e["baud"], e["modules"]["32"]["loss"]) for e in results["transfers"]
              if e["baud"] == 115200 and "loss" in e["modules"].get("32", {})]
    out = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" '
           f'width="{width}" height="{height}" role="img" aria-label="Time over the bound">',
           f"<style>{STYLE}</style>", f'<rect class="paper" width="{width}" height="{height}"/>']
    x = LEFT
    for baud, text in ((115200, "115200 baud"), (460800, "between"), (921600, "921600 baud")):
        out.append(mark(x, 18, baud))
        out.append(f'<text x="{x + 12}" y="22">{text}</text>')
        x += 115
    out.append(f'<line class="limit" x1="{x}" y1="18" x2="{x + 24}" y2="18"/>')
    out.append(f'<text x="{x + 30}" y="22">what must hold</text>')
    for number, name in enumerate(names):
        y = TOP + number * ROW + ROW // 2
        out.append(f'<text x="{LEFT - 12}" y="{y + 4}" text-anchor="end">{name}</text>')
    out += panel(LEFT, "One module: time over the bound", names, alone, (1, 3), bottom)
    out += panel(second, "32 modules at 115200: time over one module's", names, beside, (2,), bottom)
    return "\n".join(out + ["</svg>", ""])


def main():
    if len(sys.argv) not in (2, 3):
        sys.exit(__doc__)
    results = gather(json.loads(pathlib.Path(sys.argv[1]).read_text()))
    if len(sys.argv) == 3:
        results["note"] = sys.argv[2]
    (docs / "bench-results.json").write_text(json.dumps(results, indent=1) + "\n")
    (docs / "line-rate.svg").write_text(plot(results))
    page = docs / "bench.md"
    page.write_text(re.sub(r"(<!-- measured -->\n).*(<!-- end -->)",
                           lambda match: match[1] + "\n" + tables(results) + "\n" + match[2],
                           page.read_text(), flags=re.S))
    print("docs/bench.md, docs/bench-results.json and docs/line-rate.svg are written")


if __name__ == "__main__":
    main()
