/*
 * kws_lstm.h - the keyword spotter's LSTM of train.py, one feature frame a
 * step, in the library's three number formats: its tables from lstm/,
 * converted as lstm_f (float), lstm_qw (16-bit weights, float biases) and
 * lstm_q (fixed point).
 *
 * The run functions have the stream's network signature for a stream of
 * one frame a window (user is unused): each call is one step of the cell
 * from the states the last call left, then the fully connected layer and the
 * softmax of its twelve outputs, of which the ten commands' are the scores.
 * The states live on for as long as the stream does; kws_lstm_reset makes
 * them fresh (zeros; in fixed point also a fresh record's exponent).
 */
#ifndef KWS_LSTM_H
#define KWS_LSTM_H

#include "kws_cnn.h"

/* NULL when every table is there, else the name of the first missing one. */
const char *kws_lstm_init(void);
void kws_lstm_free(void);
void kws_lstm_reset(void);

void kws_lstm_float(void *user, const dl_matrix2d_t *frame, fptp_t *scores);
void kws_lstm_quantised_weights(void *user, const dl_matrix2d_t *frame, fptp_t *scores);
void kws_lstm_fixed(void *user, const dl_matrix2dq_t *frame, fptp_t *scores);

/* The softmax of all twelve outputs of the form's latest step. */
const fptp_t *kws_lstm_probabilities(kws_format_t format);

#endif
