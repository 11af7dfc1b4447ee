/*
 * kws_cnn.h - the keyword spotter's CNN of train.py on the window of the
 * newest KWS_FRAMES log-mel frames, in the library's three number formats,
 * shared by wakeword.c (the PC program) and the device image.
 *
 * Each form takes its tables from one generated pair converted from cnn/ in
 * its tensor mode: kws_f (float) for the float form, kws_q for the other
 * two; the quantised-weight form turns the fixed-point biases back to floats
 * once. kws_cnn_init fetches every table and makes every record the runs
 * reuse.
 *
 * The run functions have the stream's network signature (dl_audio_net_fn,
 * dl_audio_net_q_fn; user is unused): the window is KWS_FRAMES rows of
 * KWS_MELS features, oldest first, and the scores are the softmax of the
 * twelve outputs (dl_softmax) for the ten commands, in word order.
 */
#ifndef KWS_CNN_H
#define KWS_CNN_H

#include "cnn_net.h"
#include "dl_lib.h"

/* The three forms, in the order the programs print them. */
typedef enum { KWS_FLOAT, KWS_QUANTISED_WEIGHTS, KWS_FIXED, KWS_FORMATS } kws_format_t;

/* NULL when every table is there, else the name of the first missing one. */
const char *kws_cnn_init(void);
void kws_cnn_free(void);

/* Float features, float network. */
void kws_cnn_float(void *user, const dl_matrix2d_t *window, fptp_t *scores);
/* Float features, 16-bit weights. */
void kws_cnn_quantised_weights(void *user, const dl_matrix2d_t *window, fptp_t *scores);
/* Fixed-point features (exponent -10), fixed-point network; the logits go
 * to floats exactly before the softmax. */
void kws_cnn_fixed(void *user, const dl_matrix2dq_t *window, fptp_t *scores);

/* The softmax of all KWS_CLASSES outputs of the form's latest run
 * (commands, unknown, silence). */
const fptp_t *kws_cnn_probabilities(kws_format_t format);

#endif
