"""The shared library is callable from Python through ctypes: synthesise one
voiced utterance with cc2waveform and check what the decoder guarantees."""
import ctypes
import math
import sys

lib = ctypes.CDLL(sys.argv[1])
dp = ctypes.POINTER(ctypes.c_double)
u32 = ctypes.c_uint32

lib.getwaveformlength.restype = u32
lib.getwaveformlength.argtypes = [u32, u32]
lib.cc2waveform.restype = ctypes.c_int
lib.cc2waveform.argtypes = [dp, u32, ctypes.c_double, u32, u32, dp, dp, u32, dp, ctypes.c_double]
lib.hanoharms.restype = u32
lib.hanoharms.argtypes = [ctypes.c_double] * 3

failures = []
if lib.hanoharms(16000.0, 16000.0, 100.0) != 79:
    failures.append("hanoharms")

nframes, order, shift = 40, 24, 80
n = lib.getwaveformlength(shift, nframes)
if n != (nframes + 1) * shift + 1:
    failures.append("getwaveformlength")
f0 = (ctypes.c_double * nframes)(*([150.0] * nframes))
cc = (ctypes.c_double * (nframes * (order + 1)))()
for i in range(nframes):
    cc[i * (order + 1)] = -6.0
out = (ctypes.c_double * n)()
if lib.cc2waveform(out, n, 16000.0, shift, nframes, f0, None, order, cc, 0.42) != 0:
    failures.append("cc2waveform result")
first = list(out)
lib.cc2waveform(out, n, 16000.0, shift, nframes, f0, None, order, cc, 0.42)
if list(out) != first:
    failures.append("determinism")
if out[0] != 0.0 or out[n - 1] != 0.0:
    failures.append("end samples")
if not all(math.isfinite(v) for v in first) or max(abs(v) for v in first) == 0.0:
    failures.append("signal")

print("1 passed, 0 failed" if not failures else "0 passed, 1 failed: " + ", ".join(failures))
sys.exit(1 if failures else 0)
