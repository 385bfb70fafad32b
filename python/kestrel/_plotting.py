"""Pictures of an analysis: spectrogram, f0 track and maximum voiced frequency (kestrel.plot,
and the command python3 -m kestrel.plot in kestrel/plot.py)."""
from __future__ import annotations

import argparse
from typing import Optional

import numpy as np

from .features import Features, read_wav

_TOP_HZ = 8000.0
_RANGE_DB = 80.0


def _spectrogram(x: np.ndarray, fs: float):
    """Power in dB of 25 ms Hann frames every 5 ms; (times s, freqs Hz, dB[freq, time])."""
    x = np.asarray(x)
    # Integer samples at their full scale, as analyse reads them (int16 32768 = 1.0).
    scale = {np.dtype(np.int16): 32768.0, np.dtype(np.int32): 2147483648.0}.get(x.dtype, 1.0)
    x = x.astype(np.float64) / scale
    x = x.reshape(len(x), -1).mean(axis=1)
    win = int(round(0.025 * fs))
    hop = max(1, int(round(0.005 * fs)))
    nfft = 1 << int(np.ceil(np.log2(max(win, 2))))
    pad = np.concatenate([np.zeros(win // 2), x, np.zeros(win)])
    nfr = max(1, (len(x) + hop - 1) // hop)
    idx = np.arange(win)[None, :] + hop * np.arange(nfr)[:, None]
    frames = pad[idx] * np.hanning(win)[None, :]
    power = np.abs(np.fft.rfft(frames, nfft, axis=1)) ** 2
    db = 10.0 * np.log10(power + 1e-12).T
    return np.arange(nfr) * hop / fs, np.arange(nfft // 2 + 1) * fs / nfft, db


def plot(x, features: Features, path: str, resynthesis: Optional[np.ndarray] = None, *,
         fs: float = 16000.0, title: Optional[str] = None) -> None:
    """Writes a PNG: the spectrogram of x (dB colour bar, Hz and seconds), the f0 track of the
    features on a right axis in Hz, and the maximum voiced frequency drawn over the
    spectrogram. With a resynthesis (16 kHz), its spectrogram goes below on the same scale.

    x: audio as analyse takes it, at rate fs; features: from analyse or Features.load.
    """
    import matplotlib
    matplotlib.use("Agg", force=False)
    import matplotlib.pyplot as plt

    panels = [("recording", x, fs)]
    if resynthesis is not None:
        panels.append(("resynthesis", resynthesis, 16000.0))
    specs = [(label,) + _spectrogram(sig, rate) for label, sig, rate in panels]
    # dB relative to the loudest bin of all panels: one scale for the recording and its resynthesis.
    peak = max(float(db.max()) for _, _, _, db in specs)
    specs = [(label, times, freqs, db - peak) for label, times, freqs, db in specs]
    f0 = features.f0
    t = features.times
    voiced = f0 > 0
    f0max = max(400.0, float(f0.max()) * 1.15) if voiced.any() else 400.0

    fig, axes = plt.subplots(len(specs), 1, figsize=(11, 3.6 * len(specs) + 0.6), sharex=True, squeeze=False,
                             constrained_layout=True)
    for ax, (label, times, freqs, db) in zip(axes[:, 0], specs):
        shown = freqs <= _TOP_HZ
        mesh = ax.pcolormesh(times, freqs[shown], db[shown], shading="nearest", cmap="magma", vmin=-_RANGE_DB,
                             vmax=0.0, rasterized=True)
        ax.set_ylabel("frequency (Hz)")
        ax.set_ylim(0, min(_TOP_HZ, freqs[shown][-1]))
        ax.set_title(label if title is None else f"{title}: {label}", loc="left", fontsize=11)
        handles = []
        if features.fv is not None:
            fv = np.where(voiced, features.fv, np.nan)
            handles += ax.plot(t, fv, color="#4fc3f7", lw=1.6, label="max. voiced frequency (left axis)")
        right = ax.twinx()
        handles += right.plot(t, np.where(voiced, f0, np.nan), color="#7CFC00", lw=2.2,
                              label="f0 (right axis)")
        right.set_ylim(0, f0max)
        right.set_ylabel("f0 (Hz)", color="#3a7d00")
        right.tick_params(axis="y", colors="#3a7d00")
        ax.legend(handles=handles, loc="lower right", bbox_to_anchor=(1.0, 1.0), ncol=2, fontsize=9,
                  frameon=False, borderaxespad=0.2)
        fig.colorbar(mesh, ax=[ax, right], label="level (dB re. loudest)", pad=0.01, fraction=0.04)
    axes[-1, 0].set_xlabel("time (s)")
    axes[-1, 0].set_xlim(0, max(specs[0][1][-1], t[-1] if len(t) else 0.0))
    fig.savefig(path, dpi=100)
    plt.close(fig)


def main(argv=None) -> int:
    p = argparse.ArgumentParser(prog="python3 -m kestrel.plot",
                                description="Spectrogram with f0 and maximum voiced frequency, as a PNG.")
    p.add_argument("wav", help="recording (PCM WAV, any rate)")
    p.add_argument("files", nargs="+", metavar="[prefix] out.png",
                   help="feature prefix (prefix.lf0/.cc/.fv, as kestrelana writes them; default: analyse "
                        "the recording) and the PNG to write")
    p.add_argument("--resynthesis", metavar="WAV", help="a resynthesis to show below, on the same scale")
    a = p.parse_args(argv)
    if len(a.files) > 2:
        p.error("expected in.wav [prefix] out.png")
    from . import analyse
    try:
        x, fs = read_wav(a.wav)
        feats = Features.load(a.files[0]) if len(a.files) == 2 else analyse(x, fs)
        resyn = None
        if a.resynthesis:
            resyn, rfs = read_wav(a.resynthesis)
            if rfs != 16000:
                raise ValueError(f"{a.resynthesis} is not at 16 kHz.")
        plot(x, feats, a.files[-1], resyn, fs=fs, title=a.wav.rsplit("/", 1)[-1])
    except (OSError, ValueError, TypeError) as e:
        print(f"Error: {e}")
        return 1
    return 0

