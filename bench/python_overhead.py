"""Cost of the Python layer: the same work through the kestrel package and through the C
library's routines called directly (ctypes into libkestrel.so, on ready float64 buffers), on
a 3 s utterance. The last rows set the package against its own compiled binding called on
ready arrays (the same machine code), which isolates the argument checks and conversions.

    PYTHONPATH=build/python /usr/bin/python3 bench/python_overhead.py [build/libkestrel.so] [rounds]

Rounds alternate the two sides; the table shows median times and the overhead of the
Python call (median Python time / median C time - 1).
"""
import ctypes
import os
import statistics
import sys
import time

import numpy as np

import kestrel

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
LIB = sys.argv[1] if len(sys.argv) > 1 else os.path.join(ROOT, "build", "libkestrel.so")
ROUNDS = int(sys.argv[2]) if len(sys.argv) > 2 else 15
FS, SHIFT, ORDER, ALPHA = 16000.0, 80, 39, 0.42

lib = ctypes.CDLL(LIB)
P = ctypes.POINTER(ctypes.c_double)
u32, dbl = ctypes.c_uint32, ctypes.c_double
lib.getpitch.argtypes = [P, u32, dbl, u32, u32, u32, dbl, dbl, P]
lib.getfvoicing.argtypes = [P, u32, dbl, u32, u32, u32, P, P]
lib.waveform2cc.argtypes = [P, u32, dbl, u32, u32, u32, P, u32, P, dbl, ctypes.c_uint8]
lib.f02logf0.argtypes = lib.logf02f0.argtypes = [u32, P]
lib.invhtsadapteradhoc.argtypes = [P, u32, u32]
lib.cc2waveform.argtypes = [P, u32, dbl, u32, u32, P, P, u32, P, dbl]
lib.wavdouble2short.argtypes = [u32, P, ctypes.POINTER(ctypes.c_int16)]


def ptr(a):
    return a.ctypes.data_as(P)


x16, fs = kestrel.read_wav(os.path.join(ROOT, "examples", "speech", "m_aew_arctic_a0001.wav"))
x16 = x16[:48000]  # 3 s
x = x16 / 32768.0
n = len(x)
nframes = kestrel.countframes(n, SHIFT)
feats = kestrel.analyse(x16, fs, hts_scale=True)
length = (nframes + 1) * SHIFT + 1


def c_analysis():
    f0, fv = np.zeros(nframes), np.zeros(nframes)
    cc = np.zeros(nframes * (ORDER + 1))
    lib.getpitch(ptr(x), n, FS, SHIFT, SHIFT, nframes, 60.0, 500.0, ptr(f0))
    lib.getfvoicing(ptr(x), n, FS, SHIFT, SHIFT, nframes, ptr(f0), ptr(fv))
    lib.waveform2cc(ptr(x), n, FS, SHIFT, SHIFT, nframes, ptr(f0), ORDER, ptr(cc), ALPHA, 0)
    lib.f02logf0(nframes, ptr(f0))
    return f0


def c_synthesis():
    lf0, cc = feats.lf0.copy(), feats.cc.copy()
    y = np.zeros(length)
    out = np.empty(length, dtype=np.int16)
    lib.invhtsadapteradhoc(ptr(cc), ORDER, nframes)
    lib.logf02f0(nframes, ptr(lf0))
    lib.cc2waveform(ptr(y), length, FS, SHIFT, nframes, ptr(lf0), ptr(feats.fv), ORDER, ptr(cc), ALPHA)
    lib.wavdouble2short(length, ptr(y), out.ctypes.data_as(ctypes.POINTER(ctypes.c_int16)))
    return out


def c_pitch():
    f0 = np.zeros(nframes)
    lib.getpitch(ptr(x), n, FS, SHIFT, SHIFT, nframes, 60.0, 500.0, ptr(f0))
    return f0


from kestrel import _kestrel  # noqa: E402

lf0c, ccc, fvc = (np.ascontiguousarray(a) for a in (feats.lf0, feats.cc, feats.fv))


def binding_synthesis():
    return _kestrel.synthesise(lf0c, ccc, fvc, SHIFT, ALPHA, 1.0, 1.0, 1.0, 0.0, 0.0, 0.0, 0.0, 1, 0, True)[0]


def binding_analysis():
    y, _ = _kestrel.to16k(x.reshape(-1, 1), FS, "x")
    return _kestrel.analyse(y, SHIFT, ORDER, ALPHA, 0, 60.0, 500.0, False, False, True, "x")[0]


CASES = [
    ("analyse (int16 in)", lambda: kestrel.analyse(x16, fs), c_analysis),
    ("synthesise (int16 out)", lambda: kestrel.synthesise(feats, dtype="int16"), c_synthesis),
    ("getpitch", lambda: kestrel.getpitch(x), c_pitch),
    ("analyse vs binding", lambda: kestrel.analyse(x16, fs), binding_analysis),
    ("synthesise vs binding", lambda: kestrel.synthesise(feats, dtype="int16"), binding_synthesis),
]

# Same results first: the comparison is between equal work.
assert np.array_equal(kestrel.synthesise(feats, dtype="int16"), c_synthesis())
assert np.array_equal(kestrel.analyse(x16, fs).lf0, c_analysis())
assert np.array_equal(kestrel.getpitch(x), c_pitch())
assert np.array_equal(kestrel.synthesise(feats, dtype="int16"), binding_synthesis())
assert np.array_equal(kestrel.analyse(x16, fs).lf0, binding_analysis())


def timed(f):
    t0 = time.perf_counter()
    f()
    return time.perf_counter() - t0


print(f"{n / FS:.1f} s utterance, {nframes} frames, {ROUNDS} alternating rounds, medians")
print(f"{'call':<24} {'Python (ms)':>12} {'C (ms)':>10} {'overhead':>9}")
for name, py, c in CASES:
    py(), c()  # warm-up
    tp, tc = [], []
    for _ in range(ROUNDS):
        tp.append(timed(py))
        tc.append(timed(c))
    mp, mc = statistics.median(tp), statistics.median(tc)
    print(f"{name:<24} {1e3 * mp:12.3f} {1e3 * mc:10.3f} {100 * (mp / mc - 1):8.1f} %")

# The fixed cost of the Python layer per call, free of the noise of long runs: a one-frame
# synthesis through the package and through the binding (best of several batches).
import timeit  # noqa: E402

one = kestrel.Features(np.full(1, -1e10), np.zeros((1, ORDER + 1)), np.zeros(1), hts_scale=True)
args = (one.lf0, one.cc, one.fv, SHIFT, ALPHA, 1.0, 1.0, 1.0, 0.0, 0.0, 0.0, 0.0, 1, 0, True)
tpkg = min(timeit.repeat(lambda: kestrel.synthesise(one, dtype="int16"), number=2000, repeat=7)) / 2000
tbind = min(timeit.repeat(lambda: _kestrel.synthesise(*args), number=2000, repeat=7)) / 2000
tsyn = statistics.median(timed(c_synthesis) for _ in range(ROUNDS))
print(f"fixed cost of the Python layer per call: {1e6 * (tpkg - tbind):.1f} us "
      f"({100 * (tpkg - tbind) / tsyn:.3f} % of the C synthesis of 3 s)")
