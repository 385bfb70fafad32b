"""The shared library is callable from Python through ctypes: one voiced
utterance synthesised with cc2waveform, into a buffer of getwaveformlength."""
import ctypes
import math
import sys

lib = ctypes.CDLL(sys.argv[1])
dp, u32 = ctypes.POINTER(ctypes.c_double), ctypes.c_uint32
lib.getwaveformlength.restype = u32
lib.getwaveformlength.argtypes = [u32, u32]
lib.cc2waveform.argtypes = [dp, u32, ctypes.c_double, u32, u32, dp, dp, u32, dp, ctypes.c_double]
lib.hanoharms.restype = u32
lib.hanoharms.argtypes = [ctypes.c_double] * 3

nframes, order = 40, 24
n = lib.getwaveformlength(80, nframes)
f0 = (ctypes.c_double * nframes)(*([150.0] * nframes))
cc = (ctypes.c_double * (nframes * (order + 1)))(*([-6.0] + [0.0] * order) * nframes)
out = (ctypes.c_double * n)()
status = lib.cc2waveform(out, n, 16000.0, 80, nframes, f0, None, order, cc, 0.42)
y = list(out)
ok = (lib.hanoharms(16000.0, 16000.0, 100.0) == 79 and n == 41 * 80 + 1 and status == 0 and y[0] == y[-1] == 0.0
      and all(math.isfinite(v) for v in y) and max(map(abs, y)) > 0.0)
print("1 passed, 0 failed" if ok else "0 passed, 1 failed")
sys.exit(0 if ok else 1)
