# SPDX-License-Identifier: Apache-2.0
"""kestrel_flicker: the flicker detector libkestrel.flicker and its host tool, for numpy users.

The arithmetic is the library's and the host tool's own (C++); this package only moves numpy
arrays and dicts in and out.

- ``Detector``: drives the library command by command (INIT, SET_EXT_PARA, SET_STATE,
  RESET_QUEUE, DETECT) on statistics grids given as numpy arrays.
- ``Scene``, ``simulate``: the tool's rolling-shutter simulator, frame by frame or as a closed-loop
  run with the tool's auto-exposure policy; ``evaluate``: the tool's evaluation of a tuning over a
  matrix of scenes; ``load_ext_para``, ``format_ext_para``: tuning files.
- ``read_recording``, ``write_recording``, ``parse_recording``, ``format_recording``, ``replay``:
  recordings of statistics, as the tool reads and writes them.
- ``kestrel_flicker.plot``: matplotlib figures of a run, a frame and an evaluation.

A run (from ``simulate`` or ``replay``) is a dict of numpy arrays with one entry per DETECT
(``frame``, ``exposure_ms``, ``state_hz``, ``energies`` (N x 9), ``relative``, ``score``, ``seq``,
``result``, ``switched``, ``counted``; NaN where the library reported no figure), the run's
summary fields, and the tool's own ``table``, ``summary``, ``csv`` and ``json`` texts.
"""

from ._kestrel_flicker import (  # noqa: F401
    Detector,
    HostError,
    Scene,
    default_ext_para,
    default_sensor,
    evaluate,
    format_ext_para,
    format_recording,
    frame_period_ms,
    load_ext_para,
    parse_recording,
    read_recording,
    replay,
    simulate,
    write_recording,
)

#: Candidate frequencies of the nine energies, in Hz (the compiled-in tuning).
FREQUENCIES = (70, 80, 90, 100, 120, 130, 140, 160, 170)

#: DETECT result codes.
RESULT_50HZ = 2
RESULT_60HZ = 3

__all__ = [
    "Detector",
    "FREQUENCIES",
    "HostError",
    "RESULT_50HZ",
    "RESULT_60HZ",
    "Scene",
    "default_ext_para",
    "default_sensor",
    "evaluate",
    "format_ext_para",
    "format_recording",
    "frame_period_ms",
    "load_ext_para",
    "parse_recording",
    "read_recording",
    "replay",
    "simulate",
    "write_recording",
]
