"""The Python API against the commands (byte for byte), across dtypes, layouts and threads,
and its errors on bad input."""
import functools
import threading
import warnings
import wave
from concurrent.futures import ThreadPoolExecutor

import numpy as np
import pytest

import kestrel
from conftest import RECORDINGS, run, same_bytes, wav

SHORT = wav("f_vctk_p225_001")


@pytest.fixture(scope="module")
def recording():
    x, fs = kestrel.read_wav(SHORT)
    return x[:16000], fs  # one second keeps the matrix quick


@pytest.fixture(scope="module")
def reference(recording):
    return kestrel.analyse(*recording)


def features_equal(a, b):
    return all(np.array_equal(u, v) for u, v in ((a.lf0, b.lf0), (a.cc, b.cc), (a.fv, b.fv)))


readonly = functools.partial(np.lib.stride_tricks.as_strided, writeable=False)


# Every dtype and layout holds the same samples, so every one must give the same bits.
LAYOUTS = [lambda a: a, lambda a: readonly(np.repeat(a, 3))[::3], lambda a: np.asfortranarray(np.stack([a, a], 1))]
DTYPES = [lambda x: x, lambda x: x.astype(np.int32) << 16, lambda x: (x / 32768.0).astype(np.float32),
          lambda x: x / 32768.0]


@pytest.mark.parametrize("layout", range(len(LAYOUTS)))
@pytest.mark.parametrize("dtype", range(len(DTYPES)))
def test_every_dtype_and_layout_gives_the_same_features(recording, reference, dtype, layout):
    assert features_equal(kestrel.analyse(LAYOUTS[layout](DTYPES[dtype](recording[0])), recording[1]), reference)


def test_routines_compose_to_analysis_and_synthesis(recording, reference):
    y = kestrel.synthesise(reference)
    assert y.dtype == np.float64 and y.shape == ((reference.nframes + 1) * 80 + 1,)
    assert np.array_equal(kestrel.synthesise(reference, dtype=np.float32), y.astype(np.float32))
    assert np.array_equal(kestrel.synthesise(reference, dtype="int32"),
                          kestrel.synthesise(reference, dtype="int16").astype(np.int32) << 16)
    f = reference  # as arrays: flat cepstra, read-only tracks, HTS-unscaled by request
    assert np.array_equal(kestrel.synthesise((readonly(f.lf0), f.cc.ravel(), f.fv), hts_scale=False), y)
    assert not np.array_equal(kestrel.synthesise((f.lf0, f.cc, f.fv)), y)  # arrays are taken as HTS-scaled
    assert kestrel.synthesise(kestrel.Features(f.lf0, f.cc, shift=100)).size == (f.nframes + 1) * 100 + 1
    pitch0 = kestrel.analyse(*recording, pitch=0)  # getpitch's tracker
    x = recording[0] / 32768.0
    f0 = kestrel.getpitch(x)
    assert np.array_equal(kestrel.getfvoicing(x, f0), pitch0.fv)
    assert np.array_equal(kestrel.waveform2cc(x, f0, order=59), pitch0.cc)
    assert np.array_equal(kestrel.cc2waveform(f.f0, f.cc, f.fv), y)


def _cli(opts):
    names = {"shift": "lframe", "hts_scale": "htsscale"}
    return [f"--{names.get(k, k)}={int(v) if isinstance(v, bool) else v}" for k, v in opts.items()]


@pytest.mark.parametrize("opts", [{}, {"shift": 100, "order": 24, "method": 1, "refine": True, "f0min": 70.0,
                                       "f0max": 400.0, "match": 2}, {"method": 3, "alpha": 0.35, "pitch": 0},
                                  pytest.param(None, id="stereo at 44.1 kHz")], ids=str)
def test_analysis_files_equal_kestrelana(tmp_path, kestrelana, opts):
    (x, fs), path = kestrel.read_wav(SHORT), SHORT
    if opts is None:  # resampled and mixed down alike
        idx = np.arange(len(x) * 441 // 160) * 160 // 441
        x, fs, path, opts = np.stack([x[idx], (x[idx] * 0.5).astype(np.int16)], axis=1), 44100, tmp_path / "s.wav", {}
        with wave.open(str(path), "wb") as w:
            w.setnchannels(2), w.setsampwidth(2), w.setframerate(44100)
            w.writeframes(x.astype("<i2").tobytes())
    run(kestrelana, path, tmp_path / "c.lf0", tmp_path / "c.cc", tmp_path / "c.fv", *_cli(opts))
    kestrel.analyse(x, fs, **opts).save(str(tmp_path / "p"))
    for ext in ("lf0", "cc", "fv"):
        assert same_bytes(tmp_path / f"c.{ext}", tmp_path / f"p.{ext}"), ext


@pytest.mark.parametrize("with_fv", [True, False])
@pytest.mark.parametrize("opts", [{}, {"fpitch": 1.5, "fvpitch": 0.5, "fdur": 0.7},
                                  {"fwarp": 0.1, "floud": 1.0, "fpfilt": 0.5, "fdrc": 0.6},
                                  {"fdur": 1.3, "wavnorm": True, "fpitch": 9.0}, {"hts_scale": False, "shift": 64}],
                         ids=str)
def test_synthesis_equals_kestrelsyn(tmp_path, kestrelana, kestrelsyn, opts, with_fv):
    p = str(tmp_path / "a")
    fv = [p + ".fv"] if with_fv else []
    run(kestrelana, SHORT, p + ".lf0", p + ".cc", *fv)
    run(kestrelsyn, p + ".lf0", p + ".cc", *fv, tmp_path / "c.wav", *_cli(opts))
    feats = kestrel.Features.load(p)
    assert (feats.fv is not None) == with_fv
    kestrel.write_wav(str(tmp_path / "p.wav"), kestrel.synthesise(feats, dtype="int16", **opts))
    assert same_bytes(tmp_path / "c.wav", tmp_path / "p.wav")



def test_match_moves_only_voiced_cepstra_towards_the_recording(recording, reference):
    voiced = reference.f0 > 0

    def miss(f):  # voiced cepstra of the resynthesis against the recording's
        y = kestrel.synthesise(f)[:recording[0].size]
        return np.abs(kestrel.waveform2cc(y, f.f0, order=59)[voiced] - reference.cc[voiced]).mean()

    one, two = (kestrel.analyse(*recording, match=p, threads=p) for p in (1, 2))
    assert np.array_equal(one.lf0, reference.lf0) and np.array_equal(one.fv, reference.fv)
    assert np.array_equal(one.cc[~voiced], reference.cc[~voiced])
    assert miss(two) < miss(one) < 0.9 * miss(reference)

def test_threads_give_the_bits_of_one_and_free_the_gil():
    inputs = [kestrel.read_wav(wav(r)) for r in RECORDINGS]

    def job(i):
        f = kestrel.analyse(*inputs[i % len(inputs)])
        return f, kestrel.synthesise(f, fpitch=1.2, dtype="int16")

    alone = [job(i) for i in range(len(inputs))]
    with ThreadPoolExecutor(max_workers=4) as pool:
        for i, (f, y) in enumerate(pool.map(job, range(2 * len(inputs)))):
            assert features_equal(f, alone[i % len(inputs)][0]) and np.array_equal(y, alone[i % len(inputs)][1])
    # Python keeps running beside an analysis: with the GIL held, this loop would
    # stand still for the whole call and count only the moments before and after it.
    t = threading.Thread(target=kestrel.analyse, args=inputs[-1], kwargs={"method": 2})
    count = 0
    t.start()
    while t.is_alive():
        count += 1
    assert count > 100000  # about 2 million here; a held GIL gives under 10000


NOISE = np.random.default_rng(0).uniform(-0.5, 0.5, 4000)
LF0, CC = np.full(10, 4.6), np.zeros((10, 40))
NANX = np.where(np.arange(2000) == 500, np.nan, 0.1)
BAD = [
    (lambda: kestrel.analyse(np.zeros((4, 3, 2)), 16000), ValueError, "must be 1-D or (samples, channels)"),
    (lambda: kestrel.analyse(NOISE.astype(np.int64), 16000), TypeError, "int16, int32, float32 or float64"),
    (lambda: kestrel.analyse(NANX, 16000), ValueError, "x holds samples that are not finite numbers."),
    (lambda: kestrel.analyse(NOISE[:50], 16000), ValueError, "x is too short (50 samples at 16 kHz; one frame needs 81)."),
    (lambda: kestrel.analyse(np.zeros(4000), 16000), ValueError, "x is silent (no sample reaches one 16-bit step)."),
    (lambda: kestrel.analyse(NOISE.reshape(2, -1), 16000), ValueError, "more channels (2000) than samples"),
    (lambda: kestrel.analyse(NOISE[:0], 16000), ValueError, "x holds no samples."),
    (lambda: kestrel.analyse(NOISE, 0), ValueError, "fs=0 is not a usable sampling rate."),
    (lambda: kestrel.analyse(NOISE, 16000, shift=-1), ValueError, "shift=-1 is out of range [1...8000]."),
    (lambda: kestrel.analyse(NOISE, 16000, alpha=float("nan")), ValueError, "alpha=nan is out of range"),
    (lambda: kestrel.analyse(NOISE, 16000, f0min=300, f0max=300), ValueError, "f0max=300 must be above f0min=300."),
    (lambda: kestrel.synthesise((LF0, CC[:9])), ValueError, "lf0 and cc have incompatible dimensions"),
    (lambda: kestrel.synthesise((LF0, CC, np.zeros(9))), ValueError, "lf0 and fv have incompatible dimensions"),
    (lambda: kestrel.synthesise((LF0[:0], CC[:0])), ValueError, "lf0 holds no frames."),
    (lambda: kestrel.synthesise((np.append(LF0[1:], np.nan), CC)), ValueError,
     "lf0 holds values that are not finite numbers."),
    (lambda: kestrel.synthesise((LF0, CC), fdur=0.01, shift=1), ValueError,
     "frame shift of 0 samples out of range (1 to 1048576)."),
    (lambda: kestrel.synthesise(LF0), TypeError, "features must be a Features or a tuple"),
    (lambda: kestrel.synthesise((LF0, CC), fpitch="2"), TypeError, "fpitch must be a real number"),
    (lambda: kestrel.Features.load("/nonexistent/a"), FileNotFoundError, "could not open /nonexistent/a.lf0."),
    (lambda: kestrel.read_wav("/"), FileNotFoundError, "could not open /."),  # a directory
    (lambda: kestrel.write_wav("/", np.zeros(1, np.int16)), IsADirectoryError, "could not create / (it is a directory)."),
]


@pytest.mark.parametrize("call,error,message", BAD, ids=[b[2][:40] for b in BAD])
def test_bad_input_raises_a_clear_error(call, error, message):
    with pytest.raises(error) as e:
        call()
    assert message in str(e.value)


def test_warnings_and_feature_files(tmp_path, reference):
    with pytest.warns(RuntimeWarning, match="floud, fpfilt and fdrc not applicable for this alpha."):
        kestrel.synthesise((LF0, CC), alpha=0.3, floud=1.0)
    with pytest.warns(RuntimeWarning, match=r"x is clipped \(0.15 % of its samples at full scale\)."):
        kestrel.analyse(np.where(np.arange(4000) % 667 == 0, 1.0, NOISE), 16000)
    with warnings.catch_warnings():
        warnings.simplefilter("error")
        kestrel.analyse(np.where(np.arange(4000) % 1000 == 0, 1.0, NOISE), 16000)  # 0.1 %: not clipped
    p = str(tmp_path / "a")
    reference.save(p)
    kestrel.Features.load(p, order=59).save(str(tmp_path / "b"))  # already HTS-scaled: saved as it is
    assert same_bytes(p + ".cc", tmp_path / "b.cc")
    with pytest.raises(ValueError, match="holds order 59, not 24"):
        kestrel.Features.load(p, order=24)
    np.append(reference.fv, 1.0).astype(np.float32).tofile(p + ".fv")  # a longer track is cut
    assert np.array_equal(kestrel.Features.load(p).fv, reference.fv.astype(np.float32))
    reference.fv[:-1].astype(np.float32).tofile(p + ".fv")
    with pytest.warns(RuntimeWarning, match="incompatible dimensions"):
        assert kestrel.Features.load(p).fv is None


@pytest.mark.parametrize("chunk", [1, 37, 5000])
def test_stream_gives_cc2waveform_bits_for_any_chunking(reference, chunk):
    f = reference
    f0min, c0min, c0max = kestrel.Stream.prescan(f.f0, f.cc)
    s = kestrel.Stream(order=f.order, f0min=f0min, c0min=c0min, c0max=c0max, threads=2)
    parts = [s.push(f.f0[i:i + chunk], f.cc[i:i + chunk], f.fv[i:i + chunk]) for i in range(0, f.nframes, chunk)]
    assert sum(p.size for p in parts) == f.nframes * 80  # final up to the last frame's start
    assert np.array_equal(np.concatenate(parts + [s.finish()]), kestrel.cc2waveform(f.f0, f.cc, f.fv))
    with pytest.raises(ValueError, match="finished"):
        s.push(f.f0[:1], f.cc[:1], f.fv[:1])
