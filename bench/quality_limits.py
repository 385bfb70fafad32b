#!/usr/bin/python3
"""Where copy synthesis loses its quality: hybrids of the recordings and their resyntheses.

    bench/quality_eval.sh build out/quality            # resyntheses and features first
    /usr/bin/python3 bench/quality_limits.py build out/quality out/limits [TRIAL ...]

Each trial writes out/limits/TRIAL/NAME.wav for every resynthesis and scores the directory
with the measurement kit's quality.py (../shared/bench). Trials:
  ident      the resynthesis through the STFT used for the hybrids (must score as it is)
  uv, v      the recording's STFT frames where the frame is unvoiced / voiced
  vlo, vhi   voiced frames below / above fv from the recording
  magx       the recording's magnitudes with the resynthesis's phases, every frame
  magy       the resynthesis's magnitudes with the recording's phases, every frame
  uvmagx     the recording's magnitudes with the resynthesis's phases, unvoiced frames only
  venv, uvenv voiced / unvoiced frames scaled towards the recording's envelope (power
             smoothed over +-150 Hz); uvenv300 only above 300 Hz, uvenvdown only where it lowers
  f0+P, f0-P every voiced log f0 moved by P per cent (e.g. f0+0.2), then kestrelsyn again
Recordings: $SPEECH_DIR, else ../shared/speech."""
import os
import subprocess
import sys
import wave

import numpy as np

N, H = 512, 128  # 32 ms frames, 75 % overlap: the hybrids change nothing else (see ident)
WIN = np.hanning(N + 1)[:N]


def readwav(path):
    with wave.open(path) as w:
        return np.frombuffer(w.readframes(w.getnframes()), dtype='<i2') / 32768.0


def writewav(path, x):
    with wave.open(path, 'wb') as w:
        w.setnchannels(1), w.setsampwidth(2), w.setframerate(16000)
        w.writeframes(np.clip(np.round(x * 32768), -32768, 32767).astype('<i2').tobytes())


def stft(x):
    x = np.concatenate([np.zeros(N), x, np.zeros(N)])
    return np.array([np.fft.rfft(WIN * x[i:i + N]) for i in range(0, len(x) - N, H)])


def istft(S, length):
    out, norm = np.zeros((len(S) - 1) * H + N), np.zeros((len(S) - 1) * H + N)
    for k, s in enumerate(S):
        out[k * H:k * H + N] += WIN * np.fft.irfft(s, N)
        norm[k * H:k * H + N] += WIN ** 2
    return (out / np.maximum(norm, 1e-9))[N:N + length]


def envelope(S):
    k = np.arange(-20, 21)
    kernel = np.exp(-0.5 * (k * 16000.0 / N / 150.0) ** 2)
    P = np.pad(np.abs(S) ** 2, ((0, 0), (20, 20)), mode='reflect')
    return np.array([np.convolve(r, kernel / kernel.sum(), mode='valid') for r in P]) + 1e-12


def hybrid(trial, x, y, lf0, fv):
    X, Y = stft(x), stft(y)
    centre = np.arange(len(X)) * H - N // 2  # STFT frame k against feature frame i (centre 80 (i + 1))
    i = np.clip(np.round(centre / 80 - 1).astype(int), 0, len(lf0) - 1)
    voiced, edge = lf0[i] > -1e10, np.where(lf0[i] > -1e10, fv[i], 0.0)[:, None]
    freq = np.arange(N // 2 + 1)[None, :] * 16000.0 / N
    if trial == 'magx':
        return istft(np.abs(X) * np.exp(1j * np.angle(Y)), len(x))
    if trial == 'uvmagx':
        Y[~voiced] = np.abs(X[~voiced]) * np.exp(1j * np.angle(Y[~voiced]))
        return istft(Y, len(x))
    if 'env' in trial:
        gain = np.sqrt(envelope(X) / envelope(Y))
        gain[:, freq[0] < (300 if trial == 'uvenv300' else 0)] = 1.0
        gain = np.minimum(gain, 1.0) if trial == 'uvenvdown' else gain
        frames = voiced if trial == 'venv' else ~voiced
        Y[frames] *= gain[frames]
        return istft(Y, len(x))
    if trial == 'magy':
        return istft(np.abs(Y) * np.exp(1j * np.angle(X)), len(x))
    take = {'ident': np.zeros(X.shape, bool), 'uv': ~voiced[:, None] & (freq >= 0), 'v': voiced[:, None] & (freq >= 0),
            'vlo': voiced[:, None] & (freq < edge), 'vhi': voiced[:, None] & (freq >= edge)}[trial]
    return istft(np.where(take, X, Y), len(x))


def main():
    if len(sys.argv) < 4:
        sys.exit(__doc__)
    build, src, out = sys.argv[1:4]
    trials = sys.argv[4:] or ['ident', 'uv', 'v', 'vlo', 'vhi', 'magx', 'magy', 'uvmagx', 'f0+0.2', 'f0-0.2']
    root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    kit = os.path.join(root, '..', 'shared', 'bench', 'quality.py')
    speech = os.environ.get('SPEECH_DIR', os.path.join(root, '..', 'shared', 'speech'))
    names = sorted(f[:-4] for f in os.listdir(src) if f.endswith('.lf0'))
    for trial in trials:
        d = os.path.join(out, trial)
        os.makedirs(d, exist_ok=True)
        for name in names:
            feat = os.path.join(src, name)
            lf0 = np.fromfile(feat + '.lf0', '<f4').astype(float)
            if trial.startswith('f0'):
                lf0[lf0 > -1e10] += np.log1p(float(trial[2:]) / 100)
                lf0.astype('<f4').tofile(os.path.join(d, name + '.lf0'))
                subprocess.run([os.path.join(build, 'kestrelsyn'), os.path.join(d, name + '.lf0'), feat + '.cc',
                                feat + '.fv', os.path.join(d, name + '.wav')], check=True, stdout=subprocess.DEVNULL)
                continue
            x = readwav(os.path.join(speech, name + '.wav'))
            y = readwav(feat + '.wav')[:len(x)]
            y = np.concatenate([y, np.zeros(len(x) - len(y))])
            writewav(os.path.join(d, name + '.wav'), hybrid(trial, x, y, lf0, np.fromfile(feat + '.fv', '<f4')))
        subprocess.run(['/usr/bin/python3', kit, d, '--ref-dir', speech, '--label', trial], check=True)


if __name__ == '__main__':
    main()
