/*
 * kws_pipeline.h - the keyword spotter from samples to detections, for one
 * network in one of its forms: features (float for the float and
 * quantised-weight forms, fixed point for the fixed-point form), the
 * library's stream calling the network after every frame (the CNN with the
 * window of the newest KWS_FRAMES frames, the LSTM with the newest frame
 * alone), and the detector with the words, windows and thresholds of the
 * network's _MODEL_INFO_. Shared by wakeword.c and the device image.
 */
#ifndef KWS_PIPELINE_H
#define KWS_PIPELINE_H

#include <stdio.h>

#include "dl_lib_coefgetter_if.h"
#include "kws_cnn.h"
#include "kws_lstm.h"

/* The framing the network was trained on (train.py's cnn_net.h). */
#define KWS_AUDIO_CONFIG                  \
    {                                     \
        KWS_WIN_LEN, KWS_HOP, KWS_FFT_LEN \
    }

typedef struct kws_pipeline kws_pipeline_t;

typedef enum { KWS_CNN, KWS_LSTM, KWS_NETWORKS } kws_network_t;

/* The network's wake words, windows and thresholds. */
const model_info_t *kws_info(kws_network_t network);

/* A pipeline of the network in the given form over the tables that
 * kws_cnn_init or kws_lstm_init fetched (call that first; the LSTM's states
 * are reset here, so one LSTM pipeline runs at a time). NULL, after a line
 * on stderr, when a table is missing or memory ran out. */
kws_pipeline_t *kws_pipeline_new(kws_network_t network, kws_format_t format);
void kws_pipeline_free(kws_pipeline_t *p);

/* Feeds n samples (any n); writes up to max_found detections and returns
 * how many there were, as dl_audio_stream_push. */
int kws_pipeline_push(kws_pipeline_t *p, const int16_t *samples, int n, dl_detection_t *found, int max_found);

/* Time spent in the network calls, by the given clock (seconds on the PC,
 * timer ticks on the device), and the scores of every run (room for
 * max_runs runs of word_num scores); NULL for either leaves it out. */
void kws_pipeline_measure(kws_pipeline_t *p, double (*clock)(void), fptp_t *scores, int64_t max_runs);
double kws_pipeline_network_time(const kws_pipeline_t *p);
int64_t kws_pipeline_runs(const kws_pipeline_t *p);

/* One line: "<network> <form> <word> at <s.mmm> s (sample <n>, score
 * <0.ddd>)", printed with integer arithmetic so that every C library writes
 * the same. */
void kws_print_detection(FILE *out, const kws_pipeline_t *p, const dl_detection_t *d);

extern const char *const kws_format_names[KWS_FORMATS];
extern const char *const kws_network_names[KWS_NETWORKS];

#endif
