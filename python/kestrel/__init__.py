"""Kestrel: harmonic-plus-noise analysis and synthesis of 16 kHz speech, on numpy arrays.

The five calls most people need::

    import kestrel
    x, fs = kestrel.read_wav("in.wav")             # any rate, mono or (samples, channels)
    feats = kestrel.analyse(x, fs)                  # what kestrelana computes
    y = kestrel.synthesise(feats, fpitch=1.5)       # what kestrelsyn computes (float64, +-1.0)
    kestrel.write_wav("out.wav", kestrel.synthesise(feats, dtype="int16"))
    kestrel.plot(x, feats, "out.png", fs=fs)        # spectrogram with f0 and fv

Results are those of the commands to the last bit: ``synthesise(..., dtype="int16")``
gives the samples ``kestrelsyn`` writes, ``analyse(x, fs).save(prefix)`` the files
``kestrelana`` writes. Every computation releases the GIL, so threads run in parallel.
"""
from __future__ import annotations

import os
import operator
import warnings
from typing import Optional, Sequence, Tuple, Union

import numpy as np

from . import _kestrel
from .features import Features, read_wav, write_wav

__all__ = [
    "Features", "Stream", "analyse", "synthesise", "getpitch", "getfvoicing", "waveform2cc", "cc2waveform",
    "read_wav", "write_wav", "batch", "plot", "countframes",
]

FS = 16000.0
"""The rate of every feature track and of synthesis, Hz."""

# Full scale of the integer dtypes: int16 32768 = 1.0, int32 2^31 = 1.0 (as audio files hold them).
_FULL_SCALE = {np.dtype(np.int16): 32768.0, np.dtype(np.int32): 2147483648.0}
_AUDIO_DTYPES = "int16, int32, float32 or float64"
# A recording with more than this fraction of its samples on the rails is clipped.
_CLIPPED_FRACTION = 0.001

ArrayLike = Union[np.ndarray, Sequence[float]]


# --- argument checking --------------------------------------------------------

def _int(name: str, v, lo: int, hi: int) -> int:
    try:
        i = operator.index(v)
    except TypeError:
        raise TypeError(f"{name} must be an integer, not {type(v).__name__}.") from None
    if not lo <= i <= hi:
        raise ValueError(f"{name}={i} is out of range [{lo}...{hi}].")
    return i


def _real(name: str, v) -> float:
    if isinstance(v, (complex, np.complexfloating)) or not isinstance(v, (int, float, np.integer, np.floating)):
        raise TypeError(f"{name} must be a real number, not {type(v).__name__}.")
    return float(v)


def _ranged(name: str, v, lo: float, hi: float) -> float:
    f = _real(name, v)
    if not lo <= f <= hi:  # NaN fails too
        raise ValueError(f"{name}={f:g} is out of range [{lo:g}...{hi:g}].")
    return f


def _numeric(x, name: str) -> np.ndarray:
    a = np.asarray(x)
    if a.dtype.kind not in "iuf":
        raise TypeError(f"{name} must be an array of real numbers, not {a.dtype}.")
    return a


def _audio(x, name: str, allow2d: bool = True) -> np.ndarray:
    """Audio of a listed dtype as float64 at full scale +-1.0, shape (samples, channels)."""
    a = np.asarray(x)
    if a.dtype not in _FULL_SCALE and a.dtype not in (np.float32, np.float64):
        raise TypeError(f"{name} must be {_AUDIO_DTYPES} audio, not {a.dtype}.")
    if a.ndim == 1:
        a = a.reshape(-1, 1)
    elif a.ndim != 2 or not allow2d:
        want = "1-D or (samples, channels)" if allow2d else "1-D"
        raise ValueError(f"{name} must be {want}, not {a.ndim}-D.")
    if a.size == 0:
        raise ValueError(f"{name} holds no samples.")
    if a.shape[1] > a.shape[0]:
        raise ValueError(f"{name} has more channels ({a.shape[1]}) than samples ({a.shape[0]}): "
                         "give it as (samples, channels).")
    if a.dtype in _FULL_SCALE:
        return a.astype(np.float64) / _FULL_SCALE[a.dtype]  # exact: a power of two
    return np.ascontiguousarray(a, dtype=np.float64)


def _mono16k(x, fs, name: str) -> np.ndarray:
    a = _audio(x, name)
    fs = _real("fs", fs)
    y, clipped = _kestrel.to16k(a, fs, name)
    if clipped > _CLIPPED_FRACTION * a.size:
        warnings.warn(f"{name} is clipped ({100.0 * clipped / a.size:.2f} % of its samples at full scale).",
                      RuntimeWarning, stacklevel=3)
    return y


def _track(v, name: str) -> np.ndarray:
    a = _numeric(v, name)
    if a.ndim != 1:
        raise ValueError(f"{name} must be 1-D, not {a.ndim}-D.")
    return np.ascontiguousarray(a, dtype=np.float64)


def _cepstra(cc, nframes: int, name: str = "cc") -> np.ndarray:
    a = _numeric(cc, name)
    if a.ndim == 1:  # one frame after another, as in a feature file
        if nframes == 0 or a.size % nframes or a.size < nframes:
            raise ValueError(f"lf0 and {name} have incompatible dimensions.")
        a = a.reshape(nframes, a.size // nframes)
    elif a.ndim != 2 or a.shape[0] != nframes or a.shape[1] == 0:
        raise ValueError(f"lf0 and {name} have incompatible dimensions "
                         f"({nframes} frames, {name} of shape {a.shape}).")
    return np.ascontiguousarray(a, dtype=np.float64)


def _finite(x: np.ndarray, name: str) -> None:
    if not np.isfinite(x).all():
        raise ValueError(f"{name} holds samples that are not finite numbers.")


# --- analysis and synthesis ---------------------------------------------------

def countframes(nsamples: int, shift: int = 80) -> int:
    """Frames analysed in a recording of nsamples at 16 kHz: max(1, ceil((n - 1)/shift) - 1).

    Frame i is centred on sample (i + 1) * shift; the resynthesis of that many frames,
    (frames + 1) * shift + 1 samples, is never shorter than the recording.
    """
    return _kestrel.countframes(_int("nsamples", nsamples, 1, 2**32 - 1), _int("shift", shift, 1, 2**32 - 1))


def analyse(x: ArrayLike, fs: float, *, shift: int = 80, order: int = 59, alpha: float = 0.42,
            method: int = 0, pitch: int = 1, f0min: float = 60.0, f0max: float = 500.0, refine: bool = False,
            hts_scale: bool = False, fv: bool = True, threads: int = 1, match: int = 0) -> Features:
    """Analyses a recording into log f0, warped cepstra and maximum voiced frequency.

    x: 1-D or (samples, channels) array of int16 (full scale 32768), int32 (2^31), float32
    or float64 (+-1.0), at any rate fs; channels are averaged and the result resampled to
    16 kHz as kestrelana does. Options are kestrelana's (shift is its --lframe, 1 ... 8000
    samples at 16 kHz; method 0 ... 4; pitch 1 the cross-correlation tracker, 0 the
    autocorrelation one; refine its --refine=1; match its --match, 0 ... 2 analysis-by-synthesis
    passes; threads its --threads, 0 = all cores). hts_scale=True gives the
    cepstra as kestrelana writes them by default (c0 + 5, others doubled); either way
    Features.save writes the command's files. fv=False skips the voiced-frequency track.
    """
    shift = _int("shift", shift, 1, 8000)
    order = _int("order", order, 0, 255)
    alpha = _ranged("alpha", alpha, -0.99, 0.99)
    method = _int("method", method, 0, 4)
    pitch = _int("pitch", pitch, 0, 1)
    threads = _int("threads", threads, 0, 1024)
    match = _int("match", match, 0, 2)
    if threads == 0:
        threads = os.cpu_count() or 1
    f0min = _ranged("f0min", f0min, 20.0, 1000.0)
    f0max = _ranged("f0max", f0max, 40.0, 2000.0)
    if not f0max > f0min:
        raise ValueError(f"f0max={f0max:g} must be above f0min={f0min:g}.")
    y = _mono16k(x, fs, "x")
    lf0, cc, fvtrack = _kestrel.analyse(y, shift, order, alpha, method, f0min, f0max, bool(refine),
                                        bool(hts_scale), bool(fv), "x", pitch, threads, match)
    return Features(lf0, cc, fvtrack, shift=shift, alpha=alpha, hts_scale=bool(hts_scale))


_OUT_DTYPES = {np.dtype(t) for t in (np.float64, np.float32, np.int16, np.int32)}


def synthesise(features: Union[Features, Tuple], *, fpitch: float = 1.0, fvpitch: float = 1.0,
               fdur: float = 1.0, fwarp: float = 0.0, floud: float = 0.0, fpfilt: float = 0.0,
               fdrc: float = 0.0, hts_scale: Optional[bool] = None, wavnorm: bool = False,
               dtype=np.float64, shift: Optional[int] = None, alpha: Optional[float] = None) -> np.ndarray:
    """Synthesises 16 kHz speech from features, as kestrelsyn does.

    features: a Features, or a tuple (lf0, cc) or (lf0, cc, fv) of arrays: lf0 natural log
    of f0 (-1e10 unvoiced), cc frames x (order + 1) (or flat, frame after frame), fv in Hz.
    The options are kestrelsyn's, clamped as it clamps them (NaN to the upper bound), and
    applied in its order: pitch shift, pitch range, compression, postfilter, loudness.
    shift (its --lframe) and alpha default to the Features' own, or 80 and 0.42.
    hts_scale: undo the HTS scaling (c0 - 5, others halved); None means the Features' flag,
    or True for arrays (kestrelsyn's default). wavnorm=True scales the peak to 0.99.
    dtype: float64 or float32 (full scale +-1.0), int16 (the samples kestrelsyn writes,
    byte for byte), int32 (those samples times 65536).
    Returns (frames + 1) * trunc(fdur * shift) + 1 samples.
    """
    if isinstance(features, Features):
        lf0, cc, fv = features.lf0, features.cc, features.fv
        shift = features.shift if shift is None else shift
        alpha = features.alpha if alpha is None else alpha
        hts_scale = features.hts_scale if hts_scale is None else hts_scale
    elif isinstance(features, (tuple, list)) and len(features) in (2, 3):
        lf0, cc, fv = (tuple(features) + (None,))[:3]
    else:
        raise TypeError("features must be a Features or a tuple (lf0, cc) or (lf0, cc, fv).")
    shift = 80 if shift is None else _int("shift", shift, 1, 2**31 - 1)
    alpha = 0.42 if alpha is None else _real("alpha", alpha)
    hts_scale = True if hts_scale is None else bool(hts_scale)
    try:
        dt = np.dtype(dtype)
    except TypeError:
        raise TypeError(f"dtype must be one of float64, float32, int16, int32, not {dtype!r}.") from None
    if dt not in _OUT_DTYPES:
        raise TypeError(f"dtype must be one of float64, float32, int16, int32, not {dt}.")
    lf0 = _track(lf0, "lf0")
    if lf0.size == 0:
        raise ValueError("lf0 holds no frames.")
    cc = _cepstra(cc, lf0.size)
    # As kestrelsyn reads its files: -inf log f0 is an unvoiced frame, any other
    # non-finite feature ends the call, and an fv track with one is not used.
    if np.isnan(lf0).any() or np.isposinf(lf0).any():
        raise ValueError("lf0 holds values that are not finite numbers.")
    if not np.isfinite(cc).all():
        raise ValueError("cc holds values that are not finite numbers.")
    if fv is not None:
        fv = _track(fv, "fv")
        if fv.size != lf0.size:
            raise ValueError(f"lf0 and fv have incompatible dimensions ({lf0.size} and {fv.size} frames).")
        if not np.isfinite(fv).all():
            warnings.warn("fv holds values that are not finite numbers.", RuntimeWarning, stacklevel=2)
            fv = None
    factors = [_real(n, v) for n, v in (("fpitch", fpitch), ("fvpitch", fvpitch), ("fdur", fdur),
                                        ("fwarp", fwarp), ("floud", floud), ("fpfilt", fpfilt), ("fdrc", fdrc))]
    asint = dt.kind == "i"
    y, alphadropped, nonfinite = _kestrel.synthesise(lf0, cc, fv, shift, alpha, *factors, int(hts_scale),
                                                     int(bool(wavnorm)), asint)
    if alphadropped:
        warnings.warn("floud, fpfilt and fdrc not applicable for this alpha.", RuntimeWarning, stacklevel=2)
    if nonfinite:
        warnings.warn("the synthesis contains non-finite samples" +
                      (", given as -32768." if asint else "."), RuntimeWarning, stacklevel=2)
    if dt == np.int32:
        return y.astype(np.int32) << 16
    return y if dt == np.float64 or asint else y.astype(dt)


# --- the library's routines ---------------------------------------------------

def _grid(n: int, shift: int, first: Optional[int], nframes: Optional[int]) -> Tuple[int, int]:
    first = shift if first is None else _int("first", first, 0, 2**32 - 1)
    if nframes is None:
        nframes = _kestrel.countframes(max(n, 1), shift)
    return first, _int("nframes", nframes, 0, 2**32 - 1)


def _signal(x, name: str = "x") -> np.ndarray:
    a = _audio(x, name, allow2d=False).reshape(-1)
    _finite(a, name)
    return a


def getpitch(x: ArrayLike, fs: float = FS, *, shift: int = 80, first: Optional[int] = None,
             nframes: Optional[int] = None, f0min: float = 60.0, f0max: float = 500.0) -> np.ndarray:
    """f0 track in Hz (0 = unvoiced) of mono x at rate fs (not resampled).

    Frame k is centred on sample first + k * shift (first defaults to shift); nframes
    defaults to countframes(len(x), shift), the grid of analyse.
    """
    a = _signal(x)
    shift = _int("shift", shift, 1, 2**32 - 1)
    first, nframes = _grid(a.size, shift, first, nframes)
    return _kestrel.getpitch(a, _real("fs", fs), shift, first, nframes, _real("f0min", f0min),
                             _real("f0max", f0max))


def getfvoicing(x: ArrayLike, f0: ArrayLike, fs: float = FS, *, shift: int = 80,
                first: Optional[int] = None) -> np.ndarray:
    """Maximum voiced frequency in Hz per frame of the f0 track (Hz, 0 = unvoiced)."""
    a = _signal(x)
    shift = _int("shift", shift, 1, 2**32 - 1)
    first = shift if first is None else _int("first", first, 0, 2**32 - 1)
    return _kestrel.getfvoicing(a, _track(f0, "f0"), _real("fs", fs), shift, first)


def waveform2cc(x: ArrayLike, f0: ArrayLike, fs: float = FS, *, shift: int = 80, first: Optional[int] = None,
                order: int = 39, alpha: float = 0.42, method: int = 0) -> np.ndarray:
    """Warped cepstra, frames x (order + 1), of x on the frames of the f0 track (Hz)."""
    a = _signal(x)
    shift = _int("shift", shift, 1, 2**32 - 1)
    first = shift if first is None else _int("first", first, 0, 2**32 - 1)
    return _kestrel.waveform2cc(a, _track(f0, "f0"), _real("fs", fs), shift, first,
                                _int("order", order, 0, 4095), _ranged("alpha", alpha, -0.99, 0.99),
                                _int("method", method, 0, 4))


def cc2waveform(f0: ArrayLike, cc: ArrayLike, fv: Optional[ArrayLike] = None, fs: float = FS, *,
                shift: int = 80, alpha: float = 0.42, length: Optional[int] = None) -> np.ndarray:
    """Harmonic-plus-noise synthesis (float64, +-1.0) from f0 (Hz), cepstra and fv (Hz or None).

    Frame i is centred on sample (i + 1) * shift; length defaults to (frames + 1) * shift + 1.
    No HTS rescaling and no modification: see synthesise for kestrelsyn's pipeline.
    """
    f0 = _track(f0, "f0")
    cc = _cepstra(cc, f0.size)
    shift = _int("shift", shift, 1, 2**32 - 1)
    if length is None:
        length = (f0.size + 1) * shift + 1
    length = _int("length", length, 0, 2**28)
    fv = None if fv is None else _track(fv, "fv")
    return _kestrel.cc2waveform(f0, cc, fv, _real("fs", fs), shift, _real("alpha", alpha), length)


class Stream:
    """Streaming synthesis: cc2waveform's samples, frames in and samples out, with bounded memory.

    The stream needs two utterance-wide values before its first frame: the lowest f0 (it sizes
    the harmonic tables) and, without an fv track, the c0 range of the fv estimate.
    Stream.prescan(f0, cc, has_fv) gives them from the whole f0 track and cepstra; pass them
    here. push(f0, cc, fv) takes the next frames (f0 in Hz, cc rows of order + 1) and returns
    the samples that became final (after frame i, samples up to (i + 1) * shift - 1);
    finish() returns the rest. The concatenation equals cc2waveform(...) bit for bit, whatever
    the chunks.
    """

    def __init__(self, *, order: int, f0min: float, c0min: float = 0.0, c0max: float = 0.0,
                 has_fv: bool = True, fs: float = FS, shift: int = 80, alpha: float = 0.42, threads: int = 1):
        self._s = _kestrel.Stream(_real("fs", fs), _int("shift", shift, 1, 2**32 - 1), _int("order", order, 0, 65535),
                                  _real("alpha", alpha), _real("f0min", f0min), bool(has_fv), float(c0min),
                                  float(c0max), _int("threads", threads, 0, 1024))
        self._order = order

    @staticmethod
    def prescan(f0: ArrayLike, cc: ArrayLike, has_fv: bool = True) -> Tuple[float, float, float]:
        """(f0min, c0min, c0max) of an utterance, for the Stream's constructor."""
        f0 = _track(f0, "f0")
        return _kestrel.streamprescan(f0, _cepstra(cc, f0.size), bool(has_fv))

    def push(self, f0: ArrayLike, cc: ArrayLike, fv: Optional[ArrayLike] = None) -> np.ndarray:
        f0 = _track(f0, "f0")
        return self._s.push(f0, _cepstra(cc, f0.size), None if fv is None else _track(fv, "fv"))

    def finish(self) -> np.ndarray:
        return self._s.finish()


from .batch import batch  # noqa: E402
from ._plotting import plot  # noqa: E402
