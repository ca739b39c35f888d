#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Draws detection rate within 10 frames and median latency per condition, compiled-in tuning
against the recommended one, from a detection-quality CSV (one row per family, state, light,
exposure and tuning). Usage: scripts/plot_detection.py IN.csv OUT.png"""
import csv
import sys

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402

FAMILIES = {"0": "standard (+zHDR)", "1": "SONY", "2": "2x5"}


def main(src, dst):
    rows = [r for r in csv.DictReader(open(src)) if int(r["runs"]) > 0]
    fig, axes = plt.subplots(2, 3, figsize=(13, 7), sharey="row")
    for col, (fam, title) in enumerate(FAMILIES.items()):
        cells = sorted({(r["state"], r["exposure"]) for r in rows if r["family"] == fam})
        labels = [f"{s} Hz state\n{e}" for s, e in cells]
        for tuning, offset, colour in (("defaults", -0.2, "#999999"), ("tuned", 0.2, "#1f77b4")):
            rate, latency = [], []
            for s, e in cells:
                r = next(x for x in rows if x["family"] == fam and x["state"] == s
                         and x["exposure"] == e and x["tuning"] == tuning)
                rate.append(100.0 * int(r["within10"]) / int(r["runs"]))
                latency.append(max(int(r["median_latency"]), 0))
            xs = [i + offset for i in range(len(cells))]
            axes[0][col].bar(xs, rate, width=0.4, color=colour, label=tuning)
            axes[1][col].bar(xs, latency, width=0.4, color=colour, label=tuning)
        axes[0][col].set_title(title)
        for ax in (axes[0][col], axes[1][col]):
            ax.set_xticks(range(len(cells)))
            ax.set_xticklabels(labels, fontsize=7)
    axes[0][0].set_ylabel("other mains detected\nwithin 10 frames (%)")
    axes[1][0].set_ylabel("median latency (frames;\n0: never detected)")
    axes[0][0].axhline(90, color="red", linewidth=0.8, linestyle="--")
    axes[0][0].legend(loc="lower left")
    fig.tight_layout()
    fig.savefig(dst, dpi=90)


if __name__ == "__main__":
    main(sys.argv[1], sys.argv[2])
