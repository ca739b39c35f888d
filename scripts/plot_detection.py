#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Draws, per sensor family and condition of the evaluation matrix, the share of detectable runs
that switched within 10 frames and the median latency, compiled-in tuning against a recommended
one, from the CSV files of `kestrel-flicker evaluate --csv`.

Usage: scripts/plot_detection.py OUT.png DEFAULTS.csv FAMILY=TUNED.csv [FAMILY=TUNED.csv ...]
(FAMILY as the cells' names start: standard, zHDR, SONY, 2x5)."""
import csv
import statistics
import sys

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402


def by_condition(path, family):
    """{condition: (detectable, within10, [median latencies])} for one family's cells."""
    out = {}
    for row in csv.DictReader(open(path)):
        parts = [p.strip() for p in row["cell"].split(",")]
        if parts[0] != family or len(parts) < 4:
            continue
        d = out.setdefault(parts[3], [0, 0, []])
        d[0] += int(row["detectable_runs"])
        d[1] += int(row["within10"])
        if row["latency_median"]:
            d[2].append(float(row["latency_median"]))
    return {k: v for k, v in out.items() if v[0] > 0}


def main(dst, defaults, tuned):
    fig, axes = plt.subplots(len(tuned), 2, figsize=(14, 3.2 * len(tuned)), squeeze=False)
    for row, (family, path) in enumerate(tuned):
        base, fit = by_condition(defaults, family), by_condition(path, family)
        names = [c for c in base if c in fit]
        xs = range(len(names))
        for label, data, offset, colour in (("compiled-in", base, -0.2, "#999999"),
                                            ("recommended", fit, 0.2, "#1f77b4")):
            rate = [100.0 * data[c][1] / data[c][0] for c in names]
            latency = [statistics.median(data[c][2]) if data[c][2] else 0 for c in names]
            axes[row][0].bar([x + offset for x in xs], rate, width=0.4, color=colour, label=label)
            axes[row][1].bar([x + offset for x in xs], latency, width=0.4, color=colour,
                             label=label)
        axes[row][0].axhline(90, color="red", linewidth=0.8, linestyle="--")
        axes[row][0].set_ylabel(f"{family}\nswitched within\n10 frames (%)")
        axes[row][1].set_ylabel("median latency\n(frames; 0: none)")
        for ax in axes[row]:
            ax.set_xticks(list(xs))
            ax.set_xticklabels(names, rotation=40, ha="right", fontsize=7)
    axes[0][0].legend(loc="lower left", fontsize=8)
    fig.tight_layout()
    fig.savefig(dst, dpi=80)


if __name__ == "__main__":
    main(sys.argv[1], sys.argv[2], [a.split("=", 1) for a in sys.argv[3:]])
