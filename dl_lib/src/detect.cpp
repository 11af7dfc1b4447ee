/*
 * detect.cpp - wake-word detection from a network's scores, per run: a
 * moving average over each word's window with two thresholds (fire, re-arm).
 */
#include "dl_lib_audio.h"

#include "audio_internal.h"
#include "dl_lib_internal.h"

namespace {

/* The average is summed afresh from the window's scores on every run, oldest
 * first, rather than kept as a running sum: a running float sum would carry
 * its rounding errors on forever, and a long stream must not drift. */
fptp_t window_average(const dl_detector_t *d, int word)
{
    const int w = d->win[word];
    const fptp_t *h = d->history + d->offset[word];
    const int newest = d->newest[word];
    fptp_t sum = 0.0f;
    for (int i = 1; i <= w; i++) sum = sum + h[(newest + i) % w];
    return sum / static_cast<fptp_t>(w);
}

}  // namespace

dl_detector_t *dl_detector_alloc(int word_num, const int *win_list, const fptp_t *thresh_list)
{
    DL_ASSERT(word_num>=1);
    int total = 0;
    for (int i = 0; i < word_num; i++) {
        DL_ASSERT(win_list[i]>=1);
        total += win_list[i];
    }
    auto *d = static_cast<dl_detector_t *>(dl::mem_calloc(1, sizeof(dl_detector_t)));
    if (!d) return nullptr;
    d->words = word_num;
    d->win = static_cast<int *>(dl::mem_calloc(static_cast<size_t>(word_num), sizeof(int)));
    d->offset = static_cast<int *>(dl::mem_calloc(static_cast<size_t>(word_num), sizeof(int)));
    d->armed = static_cast<int *>(dl::mem_calloc(static_cast<size_t>(word_num), sizeof(int)));
    d->newest = static_cast<int *>(dl::mem_calloc(static_cast<size_t>(word_num), sizeof(int)));
    d->thresh = static_cast<fptp_t *>(dl::mem_calloc(static_cast<size_t>(2 * word_num), sizeof(fptp_t)));
    d->history = static_cast<fptp_t *>(dl::mem_calloc(static_cast<size_t>(total), sizeof(fptp_t)));
    if (!d->win || !d->offset || !d->armed || !d->newest || !d->thresh || !d->history) {
        dl_detector_free(d);
        return nullptr;
    }
    for (int i = 0, offset = 0; i < word_num; offset += win_list[i], i++) {
        d->win[i] = win_list[i];
        d->offset[i] = offset;
        d->thresh[2 * i] = thresh_list[2 * i];
        d->thresh[2 * i + 1] = thresh_list[2 * i + 1];
    }
    dl_detector_reset(d);
    return d;
}

void dl_detector_free(dl_detector_t *d)
{
    if (!d) return;
    dl::mem_free(d->win);
    dl::mem_free(d->offset);
    dl::mem_free(d->armed);
    dl::mem_free(d->newest);
    dl::mem_free(d->thresh);
    dl::mem_free(d->history);
    dl::mem_free(d);
}

void dl_detector_reset(dl_detector_t *d)
{
    int total = 0;
    for (int i = 0; i < d->words; i++) {
        d->armed[i] = 1;
        d->newest[i] = d->win[i] - 1;
        total += d->win[i];
    }
    for (int i = 0; i < total; i++) d->history[i] = 0.0f;
}

int dl_detector_step(const fptp_t *scores, int64_t sample, dl_detector_t *d, dl_detection_t *found, int max_found)
{
    DL_ASSERT(max_found>=0);
    int count = 0;
    for (int i = 0; i < d->words; i++) {
        d->newest[i] = d->newest[i] + 1 == d->win[i] ? 0 : d->newest[i] + 1;
        d->history[d->offset[i] + d->newest[i]] = scores[i];
    }
    for (int i = 0; i < d->words; i++) {
        const fptp_t avg = window_average(d, i);
        // Re-arming is looked at first: with the second threshold at or below
        // the first it cannot matter in the same run, and above it the word
        // fires on every run whose average reaches the first.
        if (!d->armed[i] && avg < d->thresh[2 * i + 1]) d->armed[i] = 1;
        if (d->armed[i] && avg >= d->thresh[2 * i]) {
            d->armed[i] = 0;
            if (count < max_found) found[count] = {i, sample, avg};
            count++;
        }
    }
    return count;
}
