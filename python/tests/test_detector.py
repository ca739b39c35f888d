# SPDX-License-Identifier: Apache-2.0
"""The Detector against the tool's C++ host, and the contracts of the Python layer."""

import json

import numpy as np
import pytest

import kestrel_flicker as kf

FAMILIES = [(0, False), (0, True), (1, False), (2, False)]
FAMILY_IDS = ["standard", "zhdr", "sony", "2x5"]


def run_through_detector(recording):
    """The host policy of the tool, in Python: on the other state's code, SET_STATE + RESET_QUEUE."""
    frames = recording["frames"]
    out = []
    with kf.Detector(recording["sensor"], state_hz=recording["initial_state_hz"]) as det:
        for k in range(1, len(frames)):
            r = det.detect(frames[k - 1]["grid"], frames[k]["grid"])
            out.append(r)
            other = {2: 50, 3: 60}.get(r["result"], det.state_hz)
            if other != det.state_hz:
                det.set_state(other)
                det.reset_queue()
    return out


@pytest.mark.parametrize("family,zhdr", FAMILIES, ids=FAMILY_IDS)
def test_detector_gives_the_hosts_results(family, zhdr):
    run = kf.simulate(kf.default_sensor(family, zhdr), {"mains_hz": 60}, frames=8, record=True)
    rec = run["recording"]
    before = [f["grid"].copy() for f in rec["frames"]]
    got = run_through_detector(rec)

    assert [r["result"] for r in got] == run["result"].tolist()
    assert [r["score"] for r in got] == [int(v) for v in run["score"]]
    seq = [np.nan if r["seq"] is None else r["seq"] for r in got]
    np.testing.assert_array_equal(seq, run["seq"])
    energies = np.array([r["energies"] for r in got], dtype=float)
    np.testing.assert_array_equal(energies, run["energies"])
    # The library worked on copies: the caller's grids are as captured.
    for a, b in zip(before, rec["frames"]):
        np.testing.assert_array_equal(a, b["grid"])


@pytest.fixture
def standard_pair():
    scene = kf.Scene(kf.default_sensor(0), {"mains_hz": 60}, frames=2)
    return scene.generate(0, 10.0), scene.generate(1, 10.0)


@pytest.mark.parametrize(
    "family,mangle,expected",
    [
        (0, lambda a: a.astype(np.int32), "expected dtype int64"),
        (0, lambda a: a.astype(np.float64), "expected dtype int64"),
        (1, lambda a: a, "expected dtype int32"),
        (0, lambda a: a.reshape(a.shape[0] * a.shape[1], a.shape[2]), "bands x rows x columns"),
        (0, lambda a: np.asfortranarray(a), "C-contiguous"),
    ],
    ids=["int32-for-standard", "float", "int64-for-sony", "2d", "fortran-order"],
)
def test_bad_grids_raise_value_error_naming_the_expected(standard_pair, family, mangle, expected):
    prev, cur = standard_pair
    with kf.Detector(kf.default_sensor(family), log=lambda line: None) as det:
        with pytest.raises(ValueError, match=expected):
            det.detect(mangle(prev), mangle(cur))


def test_one_live_detector_per_process():
    first = kf.Detector()
    with pytest.raises(RuntimeError, match="another Detector is live"):
        kf.Detector()
    with pytest.raises(RuntimeError, match="Detector holds it"):
        kf.simulate(frames=3)
    first.close()
    with kf.Detector():
        pass


def test_log_lines_go_to_the_callback_not_to_stderr(standard_pair, capfd):
    lines = []
    with kf.Detector(log=lines.append) as det:
        det.detect(*standard_pair)
    out, err = capfd.readouterr()
    assert out == "" and err == ""
    assert "[SendCmdFlk] CMD_INIT" in lines
    assert "[DoCmdDetect] type(0) n_win_h(3) n_win_w(8) win_wd(64) win_ht(800) cur_freq(50)" in lines
    assert any(line.startswith("Freq_out = ") for line in lines)


def test_tuning_from_a_json_file(tmp_path, standard_pair):
    path = tmp_path / "tuning.json"
    path.write_text(json.dumps({"min_past_frames": 150}))
    with kf.Detector(ext_para=path, log=lambda line: None) as det:
        for _ in range(4):
            r = det.detect(*standard_pair)
        assert r["seq"] is None and r["note"].startswith("warming up")
    with pytest.raises(ValueError, match="unknown tuning key"):
        kf.Detector(ext_para={"min_past_frame": 3})
    with pytest.raises(ValueError, match="expected a dict or the path"):
        kf.Detector(ext_para=3)
    with pytest.raises(ValueError, match="flicker_freq takes 9 values"):
        kf.Detector(ext_para={"flicker_freq": [100, 120]})


def test_recording_round_trip_and_replay(tmp_path):
    run = kf.simulate(kf.default_sensor(1), frames=5, record=True)
    path = str(tmp_path / "scene.kfr")
    kf.write_recording(path, run["recording"])
    back = kf.read_recording(path)
    assert back["sensor"] == run["recording"]["sensor"]
    for a, b in zip(back["frames"], run["recording"]["frames"]):
        assert a["grid"].dtype == np.int32 and a["grid"].shape == (3, 300, 8)
        np.testing.assert_array_equal(a["grid"], b["grid"])
    replayed = kf.replay(path)
    np.testing.assert_array_equal(replayed["result"], run["result"])
    assert replayed["csv"] == run["csv"]
