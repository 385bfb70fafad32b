"""Spectrogram of a recording with its f0 track and maximum voiced frequency, as a PNG.

    python3 -m kestrel.plot in.wav [feature_prefix] out.png [--resynthesis resynth.wav]

Without a feature prefix the recording is analysed with the default options. From Python,
call kestrel.plot(x, features, path, resynthesis=None, fs=...).
"""
import sys

from ._plotting import main, plot  # noqa: F401

if __name__ == "__main__":
    sys.exit(main())
