"""The PNG of an analysis: written, of a sensible size, and not blank; also from the command line."""
import subprocess
import sys

import numpy as np
import pytest

import kestrel
from conftest import wav

REC = wav("f_vctk_p225_001")


def image(path):
    import matplotlib.image
    return matplotlib.image.imread(str(path))


def check_picture(path, min_height):
    img = image(path)
    assert img.shape[1] >= 1000 and img.shape[0] >= min_height
    rgb = img[..., :3].reshape(-1, 3)
    # A spectrogram has many colours; a blank or failed canvas has a handful.
    assert len(np.unique((rgb * 255).astype(np.uint8), axis=0)) > 500
    return img


def test_plot_with_and_without_resynthesis(tmp_path):
    x, fs = kestrel.read_wav(REC)
    feats = kestrel.analyse(x, fs)
    kestrel.plot(x, feats, str(tmp_path / "one.png"), fs=fs)
    one = check_picture(tmp_path / "one.png", 300)
    kestrel.plot(x, feats, str(tmp_path / "two.png"), kestrel.synthesise(feats), fs=fs)
    two = check_picture(tmp_path / "two.png", 600)
    assert two.shape[0] > 1.5 * one.shape[0]  # the resynthesis below, not squeezed in
    # On the recording's scale a copy synthesis looks about as bright, not black.
    half = two.shape[0] // 2
    assert two[half:, :, :3].mean() > 0.85 * two[:half, :, :3].mean()


def test_plot_command(tmp_path):
    out = tmp_path / "c.png"
    r = subprocess.run([sys.executable, "-m", "kestrel.plot", REC, str(out)], capture_output=True, text=True)
    assert r.returncode == 0 and r.stdout == "" and r.stderr == "", r
    check_picture(out, 300)
    r = subprocess.run([sys.executable, "-m", "kestrel.plot", REC, str(tmp_path / "none"), str(out)],
                       capture_output=True, text=True)
    assert r.returncode == 1 and r.stdout.startswith("Error: could not open"), r
