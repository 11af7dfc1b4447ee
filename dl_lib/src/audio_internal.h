/*
 * audio_internal.h - the feature and detector records, shared by the
 * feature, stream and detector modules; not installed.
 */
#ifndef DL_LIB_AUDIO_INTERNAL_H
#define DL_LIB_AUDIO_INTERNAL_H

#include <stdint.h>

#include "dl_lib_audio.h"

struct dl_audio_features {
    int win_len, hop, fft_len;
    int half;  // points of the complex FFT, fft_len / 2
    int bins;  // half + 1
    int n_mels;
    int width;  // items per frame: n_ceps with a DCT, else n_mels
    int power_shift;
    int energy_log2_offset;  // log2 of the fixed-point energy's unit, negated
    int dct_shift;
    // Exactly one pair is set: the float tables or the fixed-point ones.
    const dl_matrix2d_t *mel, *dct;
    const dl_matrix2dq_t *melq, *dctq;
    int32_t *win_q15;
    fptp_t *win_f;
    int32_t *stage_q;  // (cos, sin) of 2 pi k / half, Q29, k < half / 2
    fptp_t *stage_f;
    int32_t *split_q;  // (cos, sin) of 2 pi k / fft_len, Q29, k <= half
    fptp_t *split_f;
    int32_t *rev;                    // bit reversal of the complex FFT's indices
    int32_t *work_q;                 // zr, zi (half each), re, im (bins each), windowed frame
    fptp_t *work_f;                  // zr, zi, re, im, power, windowed frame, log-mel
    int32_t *band_first, *band_end;  // each filter's non-zero bins lie in [first, end)
    uint64_t *power_q;
    int32_t *logmel_q;
};

/* Per word: its window, its scores' place in history (a ring of win[i]
 * scores, the latest at newest[i]), its two thresholds and whether it may
 * fire. */
struct dl_detector {
    int words;
    int *win;
    int *offset;
    int *newest;
    int *armed;
    fptp_t *thresh;
    fptp_t *history;
};

#endif /* DL_LIB_AUDIO_INTERNAL_H */
