# SPDX-License-Identifier: Apache-2.0
"""Figures of what the detector does: a run, a frame, an evaluation.

- ``run_figure(run)``: the nine energies per frame as a heat map, the scored band relative to the
  others, and the frame score and sequential score against the switch threshold, switches marked.
- ``frame_figure(prev_line, cur_line)``: the two line vectors of one DETECT and their log-ratio,
  where the bands show.
- ``evaluation_figure(evaluation)``: detection rate and latency per condition.

From the command line a run is drawn from the tool's CSV (``--csv``) or JSON (``--json``)::

    python3 -m kestrel_flicker.plot run.csv -o run.png

and, with ``--frame N``, a frame of a recording, or an evaluation from its JSON.
"""

import argparse
import csv
import json
import os
import sys

import numpy as np

FREQUENCIES = (70, 80, 90, 100, 120, 130, 140, 160, 170)
#: The sequential test's switch threshold with the compiled-in tuning (whole units).
DEFAULT_THRESHOLD = 8

_RUN_COLUMNS = ("frame", "exposure_ms", "state_hz", "relative", "score", "seq", "result",
                "switched", "next_exposure_ms")


def _pyplot():
    import matplotlib

    # Without a display (scripts, tests, CI) draw off-screen; notebooks set MPLBACKEND themselves.
    if ("matplotlib.pyplot" not in sys.modules and not os.environ.get("DISPLAY")
            and not os.environ.get("MPLBACKEND")):
        matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    return plt



def _number(text):
    return float(text) if text not in ("", None) else np.nan


def _run_from_rows(rows):
    """Columns of per-frame dicts, the layout ``simulate`` returns."""
    run = {}
    for key in _RUN_COLUMNS:
        run[key] = np.array([_number(r.get(key)) for r in rows], dtype=float)
    run["energies"] = np.array([[_number(e) for e in r["energies"]] for r in rows],
                               dtype=float).reshape(len(rows), 9)
    run["note"] = [r.get("note", "") for r in rows]
    return run


def load_run(path):
    """A run from the tool's ``--csv`` file or ``--json`` output, as columns of numpy arrays."""
    with open(path, encoding="utf-8") as f:
        text = f.read()
    if text.lstrip().startswith("{"):
        data = json.loads(text)
        if "per_frame" not in data:
            raise ValueError(f"{path}: a JSON run needs 'per_frame' (kestrel-flicker --json)")
        rows = []
        for r in data["per_frame"]:
            row = {k: r.get(k) for k in _RUN_COLUMNS}
            row["switched"] = 1.0 if r.get("switched") else 0.0
            energies = r.get("energies") or [None] * 9
            if isinstance(energies, dict):  # keyed by frequency
                energies = [energies.get(str(f)) for f in FREQUENCIES]
            row["energies"] = energies
            row["note"] = r.get("note", "")
            rows.append(row)
        run = _run_from_rows(rows)
        run["sensor"] = data.get("sensor", {})
        return run
    reader = csv.DictReader(text.splitlines())
    missing = {"frame", "score", "seq", "e100", "e120"} - set(reader.fieldnames or ())
    if missing:
        raise ValueError(f"{path}: not a kestrel-flicker CSV (missing {', '.join(sorted(missing))})")
    rows = []
    for r in reader:
        r = dict(r)
        r["energies"] = [r.get(f"e{f}") for f in FREQUENCIES]
        rows.append(r)
    return _run_from_rows(rows)


def run_figure(run, threshold=DEFAULT_THRESHOLD, title=None, figsize=(10, 7.5), dpi=100):
    """The figure of a run (a dict from ``simulate``/``replay``/``load_run``)."""
    plt = _pyplot()
    from matplotlib.ticker import MaxNLocator

    frames = np.asarray(run["frame"], dtype=float)
    energies = np.asarray(run["energies"], dtype=float)
    switched = np.asarray(run["switched"], dtype=bool)
    fig, (ax_e, ax_r, ax_s) = plt.subplots(3, 1, sharex=True, figsize=figsize, dpi=dpi,
                                           gridspec_kw={"height_ratios": [3, 2, 3]})
    # Energies span decades between a flickering and a steady frame: colour by log10.
    shown = np.log10(np.where(energies > 0, energies, np.nan))
    half = 0.5 if len(frames) else 0
    extent = (frames.min() - half, frames.max() + half, -0.5, 8.5) if len(frames) else None
    image = ax_e.imshow(shown.T, aspect="auto", origin="lower", extent=extent,
                        cmap="magma", interpolation="nearest")
    ax_e.set_yticks(range(9), [f"{f}" for f in FREQUENCIES])
    ax_e.set_ylabel("frequency (Hz)")
    # The colour bar sits beside the heat map without narrowing it, so the frames line up.
    fig.colorbar(image, cax=ax_e.inset_axes([1.01, 0, 0.015, 1]), label="log10 energy")

    ax_r.plot(frames, run["relative"], "o-", color="tab:purple", ms=3)
    ax_r.axhline(0, color="grey", lw=0.5)
    ax_r.set_ylabel("scored band /\nothers - 1")

    ax_s.bar(frames, run["score"], color="tab:blue", alpha=0.6, label="frame score")
    ax_s.plot(frames, run["seq"], "s-", color="tab:orange", ms=3, label="sequential score")
    ax_s.axhline(threshold, color="tab:red", ls="--", lw=1, label=f"threshold {threshold}")
    ax_s.axhline(0, color="grey", lw=0.5)
    ax_s.set_ylabel("score")
    ax_s.set_xlabel("frame")
    ax_s.xaxis.set_major_locator(MaxNLocator(integer=True))
    for ax in (ax_e, ax_r, ax_s):
        for f in frames[switched]:
            ax.axvline(f, color="tab:green", lw=1.5, ls=":")
    if switched.any():
        ax_s.plot([], [], color="tab:green", ls=":", label="switch")
    ax_s.legend(loc="best", fontsize="small")
    for ax in (ax_r, ax_s):
        ax.grid(True, alpha=0.3)
    fig.suptitle(title or "kestrel-flicker run")
    fig.subplots_adjust(left=0.1, right=0.9, top=0.93, bottom=0.08, hspace=0.15)
    return fig


def frame_figure(prev_line, cur_line, title=None, figsize=(10, 6), dpi=100):
    """The two line vectors of one DETECT (``Detector.line_vectors()``) and their log-ratio."""
    plt = _pyplot()
    prev_line = np.asarray(prev_line, dtype=float)
    cur_line = np.asarray(cur_line, dtype=float)
    rows = np.arange(len(cur_line))
    fig, (ax_v, ax_l) = plt.subplots(2, 1, sharex=True, figsize=figsize, dpi=dpi)
    ax_v.plot(rows, prev_line, lw=0.8, label="previous frame")
    ax_v.plot(rows, cur_line, lw=0.8, label="current frame")
    ax_v.set_ylabel("line vector")
    ax_v.legend(loc="best", fontsize="small")
    # The ratio of the frames cancels the scene and leaves the bands.
    with np.errstate(divide="ignore", invalid="ignore"):
        ratio = np.log(np.where((prev_line > 0) & (cur_line > 0), cur_line / prev_line, np.nan))
    ax_l.plot(rows, ratio, lw=0.8, color="tab:red")
    ax_l.axhline(0, color="grey", lw=0.5)
    ax_l.set_ylabel("log(current / previous)")
    ax_l.set_xlabel("statistics row")
    for ax in (ax_v, ax_l):
        ax.grid(True, alpha=0.3)
    fig.suptitle(title or "one frame: line vectors and their log-ratio")
    fig.subplots_adjust(left=0.1, right=0.98, top=0.92, bottom=0.1, hspace=0.1)
    return fig


def _conditions(evaluation):
    if isinstance(evaluation, dict):
        evaluation = evaluation.get("conditions", [])
    return list(evaluation)


def _first(d, *keys):
    for key in keys:
        if d.get(key) is not None:
            return d[key]
    return None


def evaluation_figure(evaluation, title=None, figsize=(10, 6), dpi=100):
    """Detection rate and latency per condition.

    ``evaluation``: what ``evaluate()`` returns or the tool's evaluation JSON (a dict with
    ``conditions``), or a list of dicts, each with ``name`` (or ``condition``),
    ``detection_rate`` (or ``switch_rate``, 0..1) and ``latency_median`` (or ``latency``, frames
    to the switch; None or NaN when nothing switched).
    """
    plt = _pyplot()
    conds = _conditions(evaluation)
    names = [str(_first(c, "name", "condition") or i) for i, c in enumerate(conds)]
    # ``evaluate()`` says detection_rate, the tool's JSON switch_rate; both are fractions.
    rate = np.array([_number(_first(c, "detection_rate", "switch_rate")) for c in conds],
                    dtype=float)
    latency = np.array([_number(_first(c, "latency", "latency_median")) for c in conds],
                       dtype=float)
    x = np.arange(len(conds))
    fig, (ax_r, ax_l) = plt.subplots(2, 1, sharex=True, figsize=figsize, dpi=dpi)
    ax_r.bar(x, rate * 100, color="tab:blue")
    ax_r.set_ylim(0, 105)
    ax_r.set_ylabel("detection rate (%)")
    ax_l.bar(x, np.nan_to_num(latency), color="tab:orange")
    for i in np.flatnonzero(np.isnan(latency)):
        ax_l.annotate("none", (x[i], 0), ha="center", va="bottom", fontsize="small")
    ax_l.set_ylabel("latency (frames)")
    ax_l.set_xticks(x, names, rotation=30, ha="right")
    for ax in (ax_r, ax_l):
        ax.grid(True, axis="y", alpha=0.3)
    fig.suptitle(title or "evaluation")
    fig.subplots_adjust(left=0.1, right=0.98, top=0.92, bottom=0.22, hspace=0.1)
    return fig


def _frame_of_recording(path, index):
    """Line vectors of DETECT number ``index`` (frames index-1 and index) of a recording."""
    from . import Detector, read_recording

    rec = read_recording(path)
    frames = rec["frames"]
    if not 1 <= index < len(frames):
        raise ValueError(f"{path}: --frame must lie in 1..{len(frames) - 1}")
    with Detector(rec["sensor"], state_hz=rec["initial_state_hz"], log=lambda line: None) as det:
        for k in range(1, index + 1):
            det.detect(frames[k - 1]["grid"], frames[k]["grid"])
        return det.line_vectors()


def main(argv=None):
    parser = argparse.ArgumentParser(
        prog="python3 -m kestrel_flicker.plot",
        description="Draw a kestrel-flicker run (the tool's CSV or JSON), a frame of a recording "
        "(--frame N) or an evaluation (its JSON) into an image file.")
    parser.add_argument("input", help="run .csv/.json, recording (with --frame), or evaluation .json")
    parser.add_argument("-o", "--output", required=True, help="image file (.png, .svg, .pdf)")
    parser.add_argument("--frame", type=int, help="draw DETECT number N of a recording")
    parser.add_argument("--threshold", type=int, default=DEFAULT_THRESHOLD,
                        help="switch threshold drawn on a run (default %(default)s)")
    parser.add_argument("--title", help="figure title")
    parser.add_argument("--size", default="10x7.5", help="figure size in inches, WxH")
    parser.add_argument("--dpi", type=int, default=100)
    args = parser.parse_args(argv)
    try:
        w, h = (float(v) for v in args.size.lower().split("x"))
    except ValueError:
        parser.error(f"--size takes WxH in inches, not {args.size!r}")
    size = dict(figsize=(w, h), dpi=args.dpi, title=args.title)
    try:
        if args.frame is not None:
            fig = frame_figure(*_frame_of_recording(args.input, args.frame), **size)
        else:
            with open(args.input, encoding="utf-8") as f:
                head = f.read(4096).lstrip()
            if head.startswith("{") or head.startswith("["):
                with open(args.input, encoding="utf-8") as f:
                    data = json.load(f)
                if isinstance(data, list) or "conditions" in data:
                    fig = evaluation_figure(data, **size)
                else:
                    fig = run_figure(load_run(args.input), threshold=args.threshold, **size)
            else:
                fig = run_figure(load_run(args.input), threshold=args.threshold, **size)
        fig.savefig(args.output, dpi=args.dpi)
    except (OSError, ValueError, KeyError) as e:
        print(f"kestrel_flicker.plot: {e}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
