/*
 * stream.cpp - streaming features: samples in blocks of any length, a ring
 * of the newest frames, the caller's network once per hop.
 *
 * The ring holds each frame twice, at slot and slot + n_frames, so that the
 * newest n_frames frames always stand in consecutive rows and the network
 * gets them as one view, oldest first, without a copy or a recomputation.
 */
#include "dl_lib_audio.h"

#include "audio_internal.h"
#include "dl_lib_internal.h"

struct dl_audio_stream {
    dl_audio_features_t *features;
    int n_frames, n_scores, width;
    dl_audio_net_fn net;
    dl_audio_net_q_fn net_q;
    void *user;
    int16_t *pending;  // the next frame's first `fill` samples
    int fill;
    int skip;  // samples still to drop when the hop exceeds the window
    int64_t runs;
    int slot;  // the ring row the next frame goes to
    fptp_t *scores;
    fptp_t *ring_f;  // 2 n_frames rows of width items, row-major
    qtp_t *ring_q;   // width columns of 2 n_frames items, column-major
    dl_matrix2d_t window_f;
    dl_matrix2dq_t window_q;
};

namespace {

dl_audio_stream_t *stream_alloc(dl_audio_features_t *features, int n_frames, int n_scores, void *user)
{
    DL_ASSERT(n_frames>=1);
    DL_ASSERT(n_scores>=1);
    auto *s = static_cast<dl_audio_stream_t *>(dl::mem_calloc(1, sizeof(dl_audio_stream_t)));
    if (!s) return nullptr;
    s->features = features;
    s->n_frames = n_frames;
    s->n_scores = n_scores;
    s->width = features->width;
    s->user = user;
    s->pending = static_cast<int16_t *>(dl::mem_calloc(static_cast<size_t>(features->win_len), sizeof(int16_t)));
    s->scores = static_cast<fptp_t *>(dl::mem_calloc(static_cast<size_t>(n_scores), sizeof(fptp_t)));
    if (!s->pending || !s->scores) {
        dl_audio_stream_free(s);
        return nullptr;
    }
    return s;
}

void run_frame(dl_audio_stream_t *s)
{
    const int slot = s->slot, n = s->n_frames;
    if (s->ring_f) {
        fptp_t *row = s->ring_f + static_cast<int64_t>(slot) * s->width;
        dl_audio_frame(s->pending, s->features, row);
        for (int i = 0; i < s->width; i++) row[static_cast<int64_t>(n) * s->width + i] = row[i];
        s->window_f.item = s->ring_f + static_cast<int64_t>(slot + 1) * s->width;
        s->net(s->user, &s->window_f, s->scores);
    } else {
        qtp_t *first = s->ring_q + slot;
        dl_audio_frame_q(s->pending, s->features, first, 2 * n);
        for (int i = 0; i < s->width; i++)
            first[static_cast<int64_t>(2 * n) * i + n] = first[static_cast<int64_t>(2 * n) * i];
        s->window_q.itemq = s->ring_q + slot + 1;
        s->net_q(s->user, &s->window_q, s->scores);
    }
    s->runs++;
    s->slot = slot + 1 == n ? 0 : slot + 1;
}

}  // namespace

dl_audio_stream_t *dl_audio_stream_alloc(dl_audio_features_t *features, int n_frames, int n_scores, dl_audio_net_fn net,
                                         void *user)
{
    DL_ASSERT(features->mel);
    dl_audio_stream_t *s = stream_alloc(features, n_frames, n_scores, user);
    if (!s) return nullptr;
    s->net = net;
    s->ring_f = static_cast<fptp_t *>(dl::mem_calloc(static_cast<size_t>(2 * n_frames) * s->width, sizeof(fptp_t)));
    if (!s->ring_f) {
        dl_audio_stream_free(s);
        return nullptr;
    }
    // Rows not yet filled hold a silent frame's features (the frame of the
    // pending buffer, all zeros at this point).
    for (int r = 0; r < 2 * n_frames; r++)
        dl_audio_frame(s->pending, features, s->ring_f + static_cast<int64_t>(r) * s->width);
    s->window_f = {s->width, n_frames, s->width, DL_MF_FOREIGNDATA, s->ring_f};
    return s;
}

dl_audio_stream_t *dl_audio_stream_alloc_q(dl_audio_features_t *features, int n_frames, int n_scores,
                                           dl_audio_net_q_fn net, void *user)
{
    DL_ASSERT(features->melq);
    dl_audio_stream_t *s = stream_alloc(features, n_frames, n_scores, user);
    if (!s) return nullptr;
    s->net_q = net;
    s->ring_q = static_cast<qtp_t *>(dl::mem_calloc(static_cast<size_t>(2 * n_frames) * s->width, sizeof(qtp_t)));
    if (!s->ring_q) {
        dl_audio_stream_free(s);
        return nullptr;
    }
    for (int r = 0; r < 2 * n_frames; r++) dl_audio_frame_q(s->pending, features, s->ring_q + r, 2 * n_frames);
    const int exponent = features->dctq ? DL_AUDIO_CEPS_EXPONENT : DL_AUDIO_LOG_EXPONENT;
    s->window_q = {s->width, n_frames, 2 * n_frames, DL_MF_FOREIGNDATA, exponent, s->ring_q};
    return s;
}

void dl_audio_stream_free(dl_audio_stream_t *s)
{
    if (!s) return;
    dl::mem_free(s->pending);
    dl::mem_free(s->scores);
    dl::mem_free(s->ring_f);
    dl::mem_free(s->ring_q);
    dl::mem_free(s);
}

int dl_audio_stream_push(const int16_t *samples, int n, dl_audio_stream_t *s, dl_detector_t *detector,
                         dl_detection_t *found, int max_found)
{
    DL_ASSERT(n>=0);
    DL_ASSERT(max_found>=0);
    if (detector) DL_ASSERT(detector->words==s->n_scores);
    const int win = s->features->win_len, hop = s->features->hop;
    int detections = 0;
    while (n > 0) {
        if (s->skip > 0) {
            const int d = s->skip < n ? s->skip : n;
            s->skip -= d;
            samples += d;
            n -= d;
            continue;
        }
        const int take = win - s->fill < n ? win - s->fill : n;
        memcpy(s->pending + s->fill, samples, static_cast<size_t>(take) * sizeof(int16_t));
        s->fill += take;
        samples += take;
        n -= take;
        if (s->fill < win) break;
        run_frame(s);
        if (detector) {
            // The run's position: every sample up to the end of its frame.
            const int64_t position = (s->runs - 1) * hop + win;
            const int room = detections < max_found ? max_found - detections : 0;
            detections += dl_detector_step(s->scores, position, detector, room ? found + detections : nullptr, room);
        }
        if (hop < win) {
            memmove(s->pending, s->pending + hop, static_cast<size_t>(win - hop) * sizeof(int16_t));
            s->fill = win - hop;
        } else {
            s->fill = 0;
            s->skip = hop - win;
        }
    }
    return detections;
}

int64_t dl_audio_stream_runs(const dl_audio_stream_t *s) { return s->runs; }

const fptp_t *dl_audio_stream_scores(const dl_audio_stream_t *s) { return s->scores; }
