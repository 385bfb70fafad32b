"""The PNG of an analysis: written, of a sensible size, and not blank; also from the command line."""
import sys

import numpy as np

import kestrel
from conftest import run, sh, wav

REC = wav("f_vctk_p225_001")


def picture(path, min_height):
    import matplotlib.image
    img = matplotlib.image.imread(str(path))
    assert img.shape[1] >= 1000 and img.shape[0] >= min_height
    # A spectrogram has many colours; a blank or failed canvas has a handful.
    assert len(np.unique((img[..., :3].reshape(-1, 3) * 255).astype(np.uint8), axis=0)) > 500
    return img


def test_plot_with_resynthesis_and_from_the_command_line(tmp_path):
    x, fs = kestrel.read_wav(REC)
    feats = kestrel.analyse(x, fs)
    kestrel.plot(x, feats, str(tmp_path / "two.png"), kestrel.synthesise(feats), fs=fs)
    two = picture(tmp_path / "two.png", 600)
    # On the recording's scale a copy synthesis looks about as bright, not black.
    half = two.shape[0] // 2
    assert two[half:, :, :3].mean() > 0.85 * two[:half, :, :3].mean()
    out = tmp_path / "c.png"
    run(sys.executable, "-m", "kestrel.plot", REC, out)
    assert picture(out, 300).shape[0] < 0.7 * two.shape[0]  # one panel fewer
    assert sh(sys.executable, "-m", "kestrel.plot", REC, tmp_path / "none", out, status=1).startswith(
        "Error: could not open")
