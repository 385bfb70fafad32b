"""Feature tracks of an utterance, their files, and WAV input and output."""
from __future__ import annotations

import os
import tempfile
import warnings
import wave
from dataclasses import dataclass
from typing import Optional, Tuple

import numpy as np

from . import _kestrel

def _replace(path: str, write) -> None:
    """Writes through a temporary beside path, renamed into place when complete. An existing
    device or pipe (such as /dev/null) cannot be replaced by a rename and is written directly."""
    if os.path.isdir(path):
        raise IsADirectoryError(f"could not create {path} (it is a directory).")
    try:
        if os.path.exists(path) and not os.path.isfile(path):
            fd = os.open(path, os.O_WRONLY | os.O_NONBLOCK)  # a pipe without a reader is refused, not waited for
            os.set_blocking(fd, True)
            with os.fdopen(fd, "wb") as f:
                write(f)
            return
        d = os.path.dirname(os.path.abspath(path))
        fd, tmp = tempfile.mkstemp(dir=d, prefix=os.path.basename(path) + ".tmp")
    except OSError as e:
        raise type(e)(f"could not create {path}.") from None
    try:
        with os.fdopen(fd, "wb") as f:
            write(f)
        os.chmod(tmp, 0o666 & ~_umask())
        os.replace(tmp, path)
    except BaseException:
        if os.path.exists(tmp):
            os.unlink(tmp)
        raise


def _umask() -> int:
    mask = os.umask(0)
    os.umask(mask)
    return mask


def _readfloats(path: str) -> np.ndarray:
    try:
        return np.fromfile(path, dtype=np.float32).astype(np.float64)
    except (FileNotFoundError, IsADirectoryError, PermissionError):
        raise FileNotFoundError(f"could not open {path}.") from None


@dataclass(eq=False)
class Features:
    """The features of one utterance on the 16 kHz frame grid (frame i centred on (i + 1) * shift).

    lf0: natural log of f0 in Hz, -1e10 for unvoiced frames (frames,).
    cc: warped cepstra c0 ... c_order per frame (frames, order + 1).
    fv: maximum voiced frequency in Hz (frames,), or None.
    shift: frame shift in samples at 16 kHz; alpha: the cepstra's all-pass factor.
    hts_scale: True when cc holds the HTS scaling (c0 + 5, other coefficients doubled),
    as the commands' files do by default.
    """

    lf0: np.ndarray
    cc: np.ndarray
    fv: Optional[np.ndarray] = None
    shift: int = 80
    alpha: float = 0.42
    hts_scale: bool = False

    @property
    def nframes(self) -> int:
        return int(self.lf0.shape[0])

    @property
    def order(self) -> int:
        return int(self.cc.shape[1]) - 1

    @property
    def f0(self) -> np.ndarray:
        """f0 in Hz, 0 for unvoiced frames."""
        return _kestrel.logf02f0(np.ascontiguousarray(self.lf0, dtype=np.float64))

    @property
    def times(self) -> np.ndarray:
        """Frame centres in seconds."""
        return (np.arange(self.nframes) + 1.0) * self.shift / 16000.0

    def save(self, prefix: str, *, hts_scale: bool = True) -> None:
        """Writes prefix.lf0, prefix.cc and (with an fv track) prefix.fv as 32-bit floats.

        With hts_scale=True (the default) the cepstra are written HTS-scaled, as kestrelana
        writes them by default, whatever this object holds; hts_scale=False writes them as
        analysed (for kestrelsyn --htsscale=0). Each file is complete or not there.
        """
        cc = np.array(self.cc, dtype=np.float64)
        if hts_scale and not self.hts_scale:
            cc[:, 0] = cc[:, 0] + 5.0
            cc[:, 1:] = cc[:, 1:] * 2.0
        elif self.hts_scale and not hts_scale:
            cc[:, 0] = cc[:, 0] - 5.0
            cc[:, 1:] = cc[:, 1:] * 0.5
        tracks = [(".lf0", self.lf0), (".cc", cc)]
        if self.fv is not None:
            tracks.append((".fv", self.fv))
        for ext, v in tracks:
            data = np.asarray(v, dtype=np.float64).astype(np.float32).tobytes()
            _replace(prefix + ext, lambda f, data=data: f.write(data))

    @classmethod
    def load(cls, prefix: str, order: Optional[int] = None, *, shift: int = 80, alpha: float = 0.42,
             hts_scale: bool = True) -> "Features":
        """Reads prefix.lf0, prefix.cc and, when it exists, prefix.fv (32-bit floats, host order).

        The order comes from the file sizes (values / frames - 1), as kestrelsyn finds it;
        when given, it is checked. hts_scale tells how the cepstra were written (True for
        the commands' default). An fv track longer than lf0 is cut, a shorter one is left
        out with a warning, as kestrelsyn does.
        """
        lf0 = _readfloats(prefix + ".lf0")
        cc = _readfloats(prefix + ".cc")
        n = lf0.size
        if n == 0:
            raise ValueError(f"{prefix}.lf0 holds no frames.")
        if cc.size == 0 or cc.size % n:
            raise ValueError(f"{prefix}.lf0 and {prefix}.cc have incompatible dimensions.")
        cc = cc.reshape(n, cc.size // n)
        if order is not None and cc.shape[1] != int(order) + 1:
            raise ValueError(f"{prefix}.cc holds order {cc.shape[1] - 1}, not {order}.")
        fv = None
        if os.path.exists(prefix + ".fv"):
            fv = _readfloats(prefix + ".fv")
            if fv.size < n:
                warnings.warn(f"{prefix}.lf0 and {prefix}.fv have incompatible dimensions.", RuntimeWarning,
                              stacklevel=2)
                fv = None
            else:
                fv = fv[:n].copy()
        return cls(lf0, cc, fv, shift=shift, alpha=alpha, hts_scale=hts_scale)


def read_wav(path: str) -> Tuple[np.ndarray, int]:
    """Reads a PCM WAV file: (samples, rate). 16-bit as int16, 24- and 32-bit as int32 (full
    scale 2^31), 8-bit as float64; several channels as (samples, channels).
    For other formats (float WAV, FLAC, ...) read the samples with another library, or use
    the kestrelana command.
    """
    # Regular files only, as the commands read them: a directory or a FIFO is no recording.
    if not os.path.isfile(path):
        raise FileNotFoundError(f"could not open {path}.")
    try:
        w = wave.open(path, "rb")
    except OSError:
        raise FileNotFoundError(f"could not open {path}.") from None
    except (wave.Error, EOFError) as e:
        reason = str(e) or "it ends within its header"
        raise ValueError(f"{path} is not a PCM WAV file that can be read ({reason}).") from None
    with w:
        nch, width, fs, n = w.getnchannels(), w.getsampwidth(), w.getframerate(), w.getnframes()
        raw = w.readframes(n)
    # A cut-off file gives the whole frames it holds, as kestrelana analyses them.
    if len(raw) < n * nch * width:
        warnings.warn(f"{path} is cut short (its header announces {n * nch * width - len(raw)} more bytes of samples "
                      "than it holds).", RuntimeWarning, stacklevel=2)
        raw = raw[: len(raw) - len(raw) % (nch * width)]
    if width == 1:
        x = (np.frombuffer(raw, dtype=np.uint8).astype(np.float64) - 128.0) / 128.0
    elif width == 2:
        x = np.frombuffer(raw, dtype="<i2").astype(np.int16)
    elif width == 3:
        b = np.frombuffer(raw, dtype=np.uint8).reshape(-1, 3).astype(np.uint32)
        x = ((b[:, 0] << 8) | (b[:, 1] << 16) | (b[:, 2] << 24)).view(np.int32)
    elif width == 4:
        x = np.frombuffer(raw, dtype="<i4").astype(np.int32)
    else:
        raise ValueError(f"{path} has {8 * width}-bit samples, which cannot be read.")
    x = x[: (x.size // nch) * nch]
    return (x.reshape(-1, nch) if nch > 1 else x), fs


def write_wav(path: str, y: np.ndarray) -> None:
    """Writes int16 samples as a mono 16 kHz 16-bit PCM WAV file (the layout kestrelsyn writes)."""
    y = np.asarray(y)
    if y.dtype != np.int16 or y.ndim != 1:
        raise TypeError("write_wav takes a 1-D int16 array: synthesise(..., dtype='int16').")
    data = y.astype("<i2").tobytes()

    def write(f):
        with wave.open(f, "wb") as w:
            w.setnchannels(1)
            w.setsampwidth(2)
            w.setframerate(16000)
            w.writeframes(data)

    _replace(path, write)
