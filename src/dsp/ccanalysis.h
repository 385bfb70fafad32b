/* ccanalysis: frequency-warped cepstra. Convention: natural-log amplitude
 * log|H(w)| = c0 + 2 sum_k ck cos(k w~), minimum phase -2 sum_k ck sin(k w~),
 * w~ = fwarp(w, alpha). Synthesis (cc2waveform), the 16 kHz / alpha 0.42
 * enhancement filters, and cepstral analysis (waveform2cc). */
#ifndef KESTREL_CCANALYSIS_H
#define KESTREL_CCANALYSIS_H

#include <stdint.h>
#include "kestrel_export.h"
#include "spectralanalysis.h"

KESTREL_BEGIN_C

/* --- synthesis ------------------------------------------------------------ */
/* Output length of cc2waveform: (nframes + 1)*shift + 1 samples. */
KESTREL_API uint32_t getwaveformlength(uint32_t shift, uint32_t nframes);
/* Harmonic-plus-noise synthesis of one utterance into output (length samples).
 * f0 in Hz (<= 0 unvoiced), fv in Hz or NULL, cc: nframes rows of order+1.
 * Each c0 is restored by subtraction after use. The noise is the sequence of
 * rand() after srand(0), drawn from a generator of its own (thread-safe).
 * Without fv, an utterance whose voiced frames all hold its lowest c0 uses
 * fv = 4500 Hz in every voiced frame. Nothing is written at or beyond
 * output[length]: with length < getwaveformlength(shift, nframes) the output is
 * the leading part of the full result (frames wholly beyond it are skipped).
 * shift 0 gives all zeros. 0; -1 when output (length > 0), f0 or cc (nframes > 0)
 * is NULL, or when the work areas would exceed 1 GiB or cannot be allocated
 * (output zeroed, cc untouched). */
KESTREL_API int cc2waveform(double *output, uint32_t length, double fs, uint32_t shift, uint32_t nframes,
                            const double *f0, const double *fv, uint32_t order, double *cc, double alpha);
/* cc2waveform with the frames shared among up to threads threads (0 or 1: the
 * calling thread only); the same samples and cc, bit for bit, for every count.
 * Work areas: one per thread (about (order+1)*(2*fs/f0min + fs/100) doubles). */
KESTREL_API int cc2waveformthreads(double *output, uint32_t length, double fs, uint32_t shift, uint32_t nframes,
                                   const double *f0, const double *fv, uint32_t order, double *cc, double alpha,
                                   uint32_t threads);
/* Streaming synthesis: frames in, samples out, with bounded memory, the samples
 * of cc2waveformthreads bit for bit however the frames are pushed and the
 * samples pulled. The stream needs two utterance-wide values up front: the
 * lowest f0 (sizing the harmonic tables) and, without an fv track, the c0
 * range of the fv estimate; ccstreamprescan gives both from the f0 track and
 * the cepstra (cc may be NULL with an fv track). 0; -1 for NULL pointers. */
KESTREL_API int ccstreamprescan(uint32_t nframes, const double *f0, const double *cc, uint32_t order, uint8_t hasfv,
                                double *f0min, double *c0min, double *c0max);
typedef struct CCSTREAM CCSTREAM;
/* New stream (free with ccstreamclose); NULL when shift is 0, fs not positive,
 * or the work areas would exceed 1 GiB or cannot be had. */
KESTREL_API CCSTREAM *ccstreamopen(double fs, uint32_t shift, uint32_t order, double alpha, double f0min,
                                   uint8_t hasfv, double c0min, double c0max, uint32_t threads);
/* Appends nframes frames: f0 in Hz, fv in Hz (read only when the stream has
 * an fv track), cc rows of order+1 whose c0 gets the same round trip as in
 * cc2waveform. After frame i is pushed, samples up to (i+1)*shift - 1 can be
 * pulled: the latency is one shift plus the frame. 0; -1 after finish or for
 * NULL arrays. */
KESTREL_API int ccstreampush(CCSTREAM *stream, uint32_t nframes, const double *f0, const double *fv, double *cc);
/* No more frames: the remaining samples, up to (frames+1)*shift, become final. 0. */
KESTREL_API int ccstreamfinish(CCSTREAM *stream);
/* Copies up to max final samples not yet pulled into out; returns how many. */
KESTREL_API uint32_t ccstreampull(CCSTREAM *stream, double *out, uint32_t max);
/* Releases the stream (NULL allowed). 0. */
KESTREL_API int ccstreamclose(CCSTREAM *stream);
/* First-order all-pass frequency warping of angular frequency w. */
KESTREL_API double fwarp(double w, double alpha);
/* Cosine (and optionally sine) matrices, n rows of p+1, at harmonics (r+1)*f0
 * or at freqs[r] Hz. 0, or -1 when the cosine matrix is NULL (nothing written). */
KESTREL_API int ccmatrixcreate(uint32_t p, uint32_t n, double f0, const double *freqs, double fs, double alpha,
                               double *cosmatrix, double *sinmatrix);
/* Adds the high-pass gain below fc (natural-log units) to n grid log amplitudes. 0. */
KESTREL_API int applyhpfilterlog(uint32_t n, double df, double *logamp, double fc);
/* Multiplies n grid amplitudes below fc by the complementary gain. 0. */
KESTREL_API int applyantihpfilter(uint32_t n, double df, double *amp, double fc);
/* Adds the fixed excitation phase of each of nh harmonics of f0 to phases. 0. */
KESTREL_API int applyexcphase(uint32_t nh, double f0, double fs, double *phases);

/* --- enhancement (16 kHz, alpha 0.42 cepstra only), in place ---------------- */
/* Dynamic-range compression of c0 by factor (0 leaves cc untouched). 0. */
KESTREL_API uint32_t applycdrc16k042(double *cc, uint32_t order, uint32_t nframes, double factor);
/* Formant postfilter; weights: nframes per-frame strengths or NULL. 0. */
KESTREL_API uint32_t applycpostfilt16k042(double *cc, uint32_t order, uint32_t nframes, double factor,
                                          const double *weights);
/* Perceptual loudness filter. 0. */
KESTREL_API uint32_t applycloudfilt16k042(double *cc, uint32_t order, uint32_t nframes, double factor);

/* --- analysis ------------------------------------------------------------- */
/* Cepstral-analysis work area: harmonic-analysis area (HAMEM or QHAMEM by
 * method, NULL for methods 3 and 4), the noise-analysis area and the inverse
 * FFT plan of the cepstrum (NULL when it could not be made). */
typedef struct CCMEM {
  void *harmonic;
  NAMEM *noise;
  struct FFTPLAN *inverse;
} CCMEM;

/* nframes rows of p+1 warped cepstra into cc (getccsize doubles). method:
 * 0 harmonic envelope (default), 1 regularised discrete cepstrum, 2 the same
 * on quasi-harmonic analysis, 3 signal spectrum, 4 SEEVOC envelope. The
 * smallest positive f0 below 60 Hz sets the window and FFT sizes. With
 * |alpha| >= 1 the warping is refused frame by frame: such rows keep their
 * previous values with c0 doubled (no error). 0; -1 when x (n > 0), f0 or cc
 * is NULL, fs is not positive and finite, the FFT would exceed 2^22 points or
 * a work area cannot be allocated (cc zeroed), or (p+1)*nframes exceeds 32
 * bits (cc untouched). */
KESTREL_API int waveform2cc(const double *x, uint32_t n, double fs, uint32_t shift, uint32_t first,
                            uint32_t nframes, const double *f0, uint32_t p, double *cc, double alpha,
                            uint8_t method);
/* waveform2cc with the frames shared among up to threads threads (0 or 1: the
 * calling thread only), one work area each; the same cc, bit for bit, for
 * every count. On a failed frame -1 as waveform2cc, but frames after it may
 * have been written. */
KESTREL_API int waveform2ccthreads(const double *x, uint32_t n, double fs, uint32_t shift, uint32_t first,
                                   uint32_t nframes, const double *f0, uint32_t p, double *cc, double alpha,
                                   uint8_t method, uint32_t threads);
/* New work area (NULL when the noise area cannot be made; harmonic stays NULL
 * when its area is refused, and voiced frames then take the noise spectrum). */
KESTREL_API CCMEM *ccmeminitialize(double fs, double fmin, uint32_t framesize, uint32_t nfft, uint8_t method);
/* Releases the area and its members (NULL allowed). 0. */
KESTREL_API int ccmemdestroy(CCMEM *area);
/* Per-frame methods: frame centred on sample centre; buf: 2*nfft scratch
 * doubles; c receives p+1 coefficients. 0; -1 (c untouched) when a pointer is
 * NULL or nfft is not a power of two in 4 .. 2^22 covering the noise frame. */
KESTREL_API int getharmmcep(const double *x, uint32_t n, double fs, uint32_t centre, double f0, uint32_t nfft,
                            double *buf, uint32_t p, double *c, double alpha, CCMEM *area);
KESTREL_API int getharmrdc(const double *x, uint32_t n, double fs, uint32_t centre, double f0, uint32_t nfft,
                           double *buf, uint32_t p, double *c, double alpha, CCMEM *area);
KESTREL_API int getqharmrdc(const double *x, uint32_t n, double fs, uint32_t centre, double f0, uint32_t nfft,
                            double *buf, uint32_t p, double *c, double alpha, CCMEM *area);
KESTREL_API int getwwcmcep(const double *x, uint32_t n, double fs, uint32_t centre, double f0, uint32_t nfft,
                           double *buf, uint32_t p, double *c, double alpha, CCMEM *area);
KESTREL_API int getseemcep(const double *x, uint32_t n, double fs, uint32_t centre, double f0, uint32_t nfft,
                           double *buf, uint32_t p, double *c, double alpha, CCMEM *area);
/* Warps linear cepstrum c[0..m] into out[0..p]; work: p+1 doubles.
 * 0, or -1 when |alpha| >= 1 (out untouched). */
KESTREL_API int ccwarp(const double *c, uint32_t m, double *out, uint32_t p, double alpha, double *work);
/* (p+1)*nframes. */
KESTREL_API uint32_t getccsize(uint32_t nframes, uint32_t p); /* (p+1)*nframes, wrapped to 32 bits */
/* getnumanalysisframes(nsamples, shift, first). */
KESTREL_API uint32_t getnumframes(uint32_t nsamples, uint32_t shift, uint32_t first);

KESTREL_END_C
#endif
