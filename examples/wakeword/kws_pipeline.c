#include "kws_pipeline.h"

#include <stdlib.h>

#include "cnn_net.h"
#include "kws_q.h"
#include "lstm_q.h"
#include "mel_q.h"
#ifndef KWS_FIXED_ONLY
#include "mel_f.h"
#endif

const char *const kws_format_names[KWS_FORMATS] = {"float", "weights", "fixed"};
const char *const kws_network_names[KWS_NETWORKS] = {"cnn", "lstm"};

struct kws_pipeline {
    kws_network_t network;
    kws_format_t format;
    dl_audio_features_t *features;
    dl_audio_stream_t *stream;
    dl_detector_t *detector;
    double (*clock)(void);
    double network_time;
    fptp_t *scores;
    int64_t runs, max_runs;
};

const model_info_t *kws_info(kws_network_t network)
{
    return network == KWS_CNN ? get_coeff_kws_q.getter_info(NULL) : get_coeff_lstm_q.getter_info(NULL);
}

static void after_run(kws_pipeline_t *p, const fptp_t *scores, double started)
{
    if (p->clock) p->network_time += p->clock() - started;
    const int words = kws_info(p->network)->word_num;
    if (p->scores && p->runs < p->max_runs)
        for (int i = 0; i < words; i++) p->scores[p->runs * words + i] = scores[i];
    p->runs++;
}

static void run_fixed(void *user, const dl_matrix2dq_t *window, fptp_t *scores)
{
    kws_pipeline_t *p = user;
    const double started = p->clock ? p->clock() : 0.0;
    if (p->network == KWS_CNN) kws_cnn_fixed(NULL, window, scores);
    else kws_lstm_fixed(NULL, window, scores);
    after_run(p, scores, started);
}

#ifndef KWS_FIXED_ONLY
static void run_float(void *user, const dl_matrix2d_t *window, fptp_t *scores)
{
    kws_pipeline_t *p = user;
    const double started = p->clock ? p->clock() : 0.0;
    if (p->network == KWS_CNN && p->format == KWS_FLOAT) kws_cnn_float(NULL, window, scores);
    else if (p->network == KWS_CNN) kws_cnn_quantised_weights(NULL, window, scores);
    else if (p->format == KWS_FLOAT) kws_lstm_float(NULL, window, scores);
    else kws_lstm_quantised_weights(NULL, window, scores);
    after_run(p, scores, started);
}
#endif

kws_pipeline_t *kws_pipeline_new(kws_network_t network, kws_format_t format)
{
    const model_info_t *info = kws_info(network);
    const int frames = network == KWS_CNN ? KWS_FRAMES : 1;
    const dl_audio_config_t config = KWS_AUDIO_CONFIG;
    kws_pipeline_t *p = calloc(1, sizeof *p);
    if (!p) return NULL;
    p->network = network;
    p->format = format;
    if (network == KWS_LSTM) kws_lstm_reset();
    if (format == KWS_FIXED) {
        const dl_matrix2dq_t *mel = get_coeff_mel_q.getter_q("mel", NULL, 0);
        if (!mel) {
            fprintf(stderr, "kws: table mel missing\n");
            free(p);
            return NULL;
        }
        p->features = dl_audio_features_alloc_q(&config, mel, NULL);
        if (p->features) p->stream = dl_audio_stream_alloc_q(p->features, frames, info->word_num, run_fixed, p);
    } else {
#ifdef KWS_FIXED_ONLY
        fprintf(stderr, "kws: built for the fixed-point form only\n");
        free(p);
        return NULL;
#else
        const dl_matrix2d_t *mel = get_coeff_mel_f.getter_f("mel", NULL, 0);
        if (!mel) {
            fprintf(stderr, "kws: table mel missing\n");
            free(p);
            return NULL;
        }
        p->features = dl_audio_features_alloc(&config, mel, NULL);
        if (p->features) p->stream = dl_audio_stream_alloc(p->features, frames, info->word_num, run_float, p);
#endif
    }
    p->detector = dl_detector_alloc_from_info(info);
    if (!p->features || !p->stream || !p->detector) {
        fprintf(stderr, "kws: out of memory\n");
        kws_pipeline_free(p);
        return NULL;
    }
    return p;
}

void kws_pipeline_free(kws_pipeline_t *p)
{
    if (!p) return;
    dl_detector_free(p->detector);
    dl_audio_stream_free(p->stream);
    dl_audio_features_free(p->features);
    free(p);
}

int kws_pipeline_push(kws_pipeline_t *p, const int16_t *samples, int n, dl_detection_t *found, int max_found)
{
    return dl_audio_stream_push(samples, n, p->stream, p->detector, found, max_found);
}

void kws_pipeline_measure(kws_pipeline_t *p, double (*clock)(void), fptp_t *scores, int64_t max_runs)
{
    p->clock = clock;
    p->scores = scores;
    p->max_runs = scores ? max_runs : 0;
}

double kws_pipeline_network_time(const kws_pipeline_t *p) { return p->network_time; }

int64_t kws_pipeline_runs(const kws_pipeline_t *p) { return p->runs; }

void kws_print_detection(FILE *out, const kws_pipeline_t *p, const dl_detection_t *d)
{
    /* Milliseconds: 16 samples each at 16 kHz. The score, 0 to 1, to three
     * places, rounded half up. long, not int64_t: the device's small printf
     * has no 64-bit conversions, and a stream of 2^31 samples is 37 hours. */
    const long sample = (long)d->sample, ms = sample / 16;
    const int thousandths = d->score >= 0.0f && d->score <= 1.0f ? (int)(d->score * 1000.0f + 0.5f) : 0;
    fprintf(out, "%s %s %s at %ld.%03d s (sample %ld, score %d.%03d)\n", kws_network_names[p->network],
            kws_format_names[p->format], kws_info(p->network)->word_list[d->word], ms / 1000, (int)(ms % 1000), sample,
            thousandths / 1000, thousandths % 1000);
}
