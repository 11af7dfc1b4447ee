/*
 * dl_lib_audio.h - audio features, streaming inference and word detection.
 *
 * Features. Input is 16 kHz, 16-bit mono samples. Frame t holds samples
 * [t*hop, t*hop + win_len); only whole frames are made. A frame is windowed
 * (periodic Hann), zero padded to fft_len, transformed by a real FFT (a
 * complex FFT of fft_len/2 points and a split step), squared to a power
 * spectrum (fft_len/2 + 1 bins), weighted by a mel filter bank, taken to the
 * natural logarithm with a floor of -20 and, when a DCT matrix is given,
 * multiplied by it to cepstral coefficients.
 *
 * The filter bank (fft_len/2 + 1 rows, one column per mel band, items >= 0)
 * and the DCT (one row per mel band, one column per coefficient) are ordinary
 * matrices: python/kelvane_export/features.py makes them for training, the
 * model directory carries them as .npy files, kelvane converts them with the
 * network and the firmware fetches them by name, so training and device use
 * the same numbers. The window and the FFT's twiddle factors are built at
 * creation by 64-bit integer arithmetic (no libm), the same in C and Python.
 *
 * Float path: single precision, rounded at each step; every sum in
 * ascending index order from 0. Fixed-point path: integers only, the same
 * bits on every target and in the Python twin. Log-mel items have exponent
 * -10 (ln(energy) * 1024, floor -20480), cepstral items exponent -7.
 *
 * Records are created once with everything they need; nothing here
 * allocates after creation. They keep pointers to the filter bank and DCT
 * they were given (constant generated tables): those must outlive them.
 */
#ifndef DL_LIB_AUDIO_H
#define DL_LIB_AUDIO_H

#include <stdint.h>

#include "dl_lib_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Framing. win_len 1..fft_len samples, hop >= 1, fft_len a power of two
 * from 4 to 4096. The defaults: 30 ms windows every 20 ms, FFT of 512. */
typedef struct {
    int win_len;
    int hop;
    int fft_len;
} dl_audio_config_t;

/* clang-format off */
#define DL_AUDIO_CONFIG_DEFAULT {480, 320, 512}
/* clang-format on */

#define DL_AUDIO_LOG_FLOOR     (-20.0f)
#define DL_AUDIO_LOG_EXPONENT  (-10)
#define DL_AUDIO_CEPS_EXPONENT (-7)

/* Tables and scratch of one feature pipeline. */
typedef struct dl_audio_features dl_audio_features_t;

/* Float pipeline: mel is (fft_len/2 + 1) x n_mels, dct n_mels x n_ceps or
 * NULL (log-mel output). Shapes and config are asserted; NULL when memory
 * ran out. Free with dl_audio_features_free. */
dl_audio_features_t *dl_audio_features_alloc(const dl_audio_config_t *config, const dl_matrix2d_t *mel,
                                             const dl_matrix2d_t *dct);

/* Fixed-point pipeline from quantised tables (kelvane's default mode or
 * dl_matrixq_from_matrix2d). Asserted besides the shapes: no negative item
 * in mel, and 3 - dct->exponent from 1 to 62. */
dl_audio_features_t *dl_audio_features_alloc_q(const dl_audio_config_t *config, const dl_matrix2dq_t *mel,
                                               const dl_matrix2dq_t *dct);

void dl_audio_features_free(dl_audio_features_t *f);

/* Items per frame: n_ceps with a DCT, else n_mels. */
int dl_audio_features_width(const dl_audio_features_t *f);

/* Whole frames in n samples: 0 below win_len, else (n - win_len) / hop + 1. */
int dl_audio_frame_count(int n, const dl_audio_config_t *config);

/* Real FFT of n <= fft_len float samples (zero padded): re and im get
 * fft_len/2 + 1 bins each. Butterflies t = (br*c + bi*s, bi*c - br*s),
 * a +- t; split re = ((Ar - s*Br) + c*Bi) * 0.5, im = ((Ai - s*Bi) - c*Br)
 * * 0.5 with A = Z[k] + conj(Z[M-k]), B = Z[k] - conj(Z[M-k]). Not scaled. */
void dl_audio_rfft(const fptp_t *in, int n, dl_audio_features_t *f, fptp_t *re, fptp_t *im);

/* The same in integers: in holds |values| <= 32768, and bins stay below
 * n * 32768 in magnitude. Each twiddle product (Q29) is an exact 64-bit sum
 * rounded once (+2^28 >> 29); the split step's sums round once (+2^29 >> 30). */
void dl_audio_rfft_q(const int32_t *in, int n, dl_audio_features_t *f, int32_t *re, int32_t *im);

/* One frame of win_len samples to width floats: sample / 32768 times the
 * window, FFT, re*re + im*im, filter sums over ascending bins,
 * max(logf(energy), -20), then the DCT's sums over ascending bands. */
void dl_audio_frame(const int16_t *frame, dl_audio_features_t *f, fptp_t *out);

/* One frame to width items, out[i * out_stride]. Window (s*w + 2^14) >> 15,
 * w in Q15; energy the exact unsigned 64-bit sum of (power >> p) * item, p = 2
 * per doubling of fft_len beyond 512; ln by a leading-one count and a 65-entry
 * log2 table with linear interpolation, rounded to exponent -10 and held at
 * -20480 or above; DCT sums shifted by 3 - dct->exponent (rounded, halves
 * up) and saturated at +-32767, exponent -7. */
void dl_audio_frame_q(const int16_t *frame, dl_audio_features_t *f, qtp_t *out, int out_stride);

/* Features of n samples: one row per whole frame, width columns. out NULL:
 * a new record (dl_matrix_free); otherwise its shape is asserted. */
dl_matrix2d_t *dl_audio_features(const int16_t *samples, int n, dl_audio_features_t *f, dl_matrix2d_t *out);

/* The same in fixed point: out gets exponent -10 (log-mel) or -7 (cepstra). */
dl_matrix2dq_t *dl_audio_features_q(const int16_t *samples, int n, dl_audio_features_t *f, dl_matrix2dq_t *out);

/* ---- Streaming. A stream takes samples in blocks of any length (0 too),
 * makes a frame whenever a whole one has arrived and keeps the newest
 * n_frames frames in a ring, never recomputing one. After each frame it
 * calls the caller's network once with the window of the newest n_frames
 * frames (oldest row first, the new frame last; rows not yet filled hold the
 * features of a silent frame), and the network writes n_scores scores. A
 * CNN reads the whole window; a recurrent network, created with n_frames 1,
 * reads one frame per call and keeps its state in its user record. The
 * window record is the stream's own view, valid during the call. */
typedef void (*dl_audio_net_fn)(void *user, const dl_matrix2d_t *window, fptp_t *scores);
typedef void (*dl_audio_net_q_fn)(void *user, const dl_matrix2dq_t *window, fptp_t *scores);

typedef struct dl_audio_stream dl_audio_stream_t;

/* A word found by a detector: its index in model_info_t's word_list, the
 * stream position of the run that fired it (samples from the stream's start
 * to the end of that run's newest frame) and the average that fired it. */
typedef struct {
    int word;
    int64_t sample;
    fptp_t score;
} dl_detection_t;

typedef struct dl_detector dl_detector_t;

/* Streams on a float (dl_audio_features_alloc) or fixed-point
 * (dl_audio_features_alloc_q) pipeline, which the stream uses and does not
 * own. n_frames and n_scores >= 1. NULL when memory ran out. */
dl_audio_stream_t *dl_audio_stream_alloc(dl_audio_features_t *features, int n_frames, int n_scores, dl_audio_net_fn net,
                                         void *user);
dl_audio_stream_t *dl_audio_stream_alloc_q(dl_audio_features_t *features, int n_frames, int n_scores,
                                           dl_audio_net_q_fn net, void *user);
void dl_audio_stream_free(dl_audio_stream_t *s);

/* Feeds n samples. With a detector (NULL for none; its word count must be
 * n_scores), each run's scores go to dl_detector_step and the detections of
 * the block are written to found, at most max_found; returns how many there
 * were (more than max_found means some were not written), 0 without one. */
int dl_audio_stream_push(const int16_t *samples, int n, dl_audio_stream_t *s, dl_detector_t *detector,
                         dl_detection_t *found, int max_found);

/* Network runs so far; the scores of the latest run (n_scores values, all
 * 0 before the first). */
int64_t dl_audio_stream_runs(const dl_audio_stream_t *s);
const fptp_t *dl_audio_stream_scores(const dl_audio_stream_t *s);

/* ---- Detection, from the wake words of a model's model_info_t
 * (dl_lib_coefgetter_if.h, read through get_info()). Word i reads score i of
 * each run. Its
 * average is the mean of its last win_list[i] scores (scores before the
 * first run count as 0), summed oldest first and divided by the window.
 * The first threshold (thresh_list[2i]) fires the word when the average
 * reaches it (>=); the word then stays quiet until the average falls below
 * the second threshold (thresh_list[2i+1], <), which re-arms it. A second
 * threshold above the first lets a word fire on consecutive runs. */
dl_detector_t *dl_detector_alloc(int word_num, const int *win_list, const fptp_t *thresh_list);

/* The same from a model_info_t pointer. word_num >= 1 and windows >= 1 are
 * asserted; the thresholds are copied. NULL when memory ran out. */
#define dl_detector_alloc_from_info(info) dl_detector_alloc((info)->word_num, (info)->win_list, (info)->thresh_list)
void dl_detector_free(dl_detector_t *d);

/* One run's scores (word_num values) at stream position sample; writes up
 * to max_found detections in word order and returns their count. */
int dl_detector_step(const fptp_t *scores, int64_t sample, dl_detector_t *d, dl_detection_t *found, int max_found);

/* Forgets every score and re-arms every word. */
void dl_detector_reset(dl_detector_t *d);

#ifdef __cplusplus
}
#endif

#endif /* DL_LIB_AUDIO_H */
