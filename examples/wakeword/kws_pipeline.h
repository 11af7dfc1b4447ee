/*
 * kws_pipeline.h - the keyword spotter from samples to detections in one of
 * the CNN's forms: features (float for the float and quantised-weight forms,
 * fixed point for the fixed-point form), the library's stream calling the
 * CNN after every frame, and the detector with the words, windows and
 * thresholds of cnn/_MODEL_INFO_. Shared by wakeword.c and the device image.
 */
#ifndef KWS_PIPELINE_H
#define KWS_PIPELINE_H

#include <stdio.h>

#include "dl_lib_coefgetter_if.h"
#include "kws_cnn.h"

/* The framing the network was trained on (train.py's cnn_net.h). */
#define KWS_AUDIO_CONFIG                  \
    {                                     \
        KWS_WIN_LEN, KWS_HOP, KWS_FFT_LEN \
    }

typedef struct kws_pipeline kws_pipeline_t;

/* The model's wake words, windows and thresholds. */
const model_info_t *kws_info(void);

/* A pipeline in the given form over kws_cnn_init's tables (call that
 * first). NULL, after a line on stderr, when a table is missing or memory
 * ran out. */
kws_pipeline_t *kws_pipeline_new(kws_format_t format);
void kws_pipeline_free(kws_pipeline_t *p);

/* Feeds n samples (any n); writes up to max_found detections and returns
 * how many there were, as dl_audio_stream_push. */
int kws_pipeline_push(kws_pipeline_t *p, const int16_t *samples, int n, dl_detection_t *found, int max_found);

/* Time spent in the network and the scores of every run, when the host
 * asks for them (clock in seconds, scores room for max_runs runs of
 * word_num scores; NULL for neither). The device never does. */
void kws_pipeline_measure(kws_pipeline_t *p, double (*clock)(void), fptp_t *scores, int64_t max_runs);
double kws_pipeline_network_seconds(const kws_pipeline_t *p);
int64_t kws_pipeline_runs(const kws_pipeline_t *p);

/* One line: "<form> <word> at <s.mmm> s (sample <n>, score <0.ddd>)",
 * printed with integer arithmetic so that every C library writes the same. */
void kws_print_detection(FILE *out, kws_format_t format, const dl_detection_t *d);

extern const char *const kws_format_names[KWS_FORMATS];

#endif
