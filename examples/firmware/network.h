/*
 * network.h - the firmware's model, run in the library's three number
 * formats:
 *   float              float data, float weights
 *   quantised-weights  float data, 16-bit fixed-point weights
 *   fixed              16-bit fixed point throughout (the convolution has
 *                      no fixed-point form: its float result is quantised)
 *
 * network_init fetches the tables by name from the generated pairs and
 * allocates every layer's output once; a run then allocates nothing itself
 * (the layers still make and free their own temporaries). The LSTM state of
 * each variant carries over from one run to the next. A run measures its
 * convolution, first fully connected layer with the batch normalisation, and
 * LSTM cell (measure.h).
 */
#ifndef FIRMWARE_NETWORK_H
#define FIRMWARE_NETWORK_H

#include "dl_lib.h"

enum { NETWORK_FLOAT, NETWORK_QUANTISED_WEIGHTS, NETWORK_FIXED, NETWORK_VARIANTS };

extern const char *const network_variant_name[NETWORK_VARIANTS];

/* One layer's output after a run: exactly one of f and q is set. */
typedef struct {
    const char *name;
    const dl_matrix2d_t *f;
    const dl_matrix2dq_t *q;
} network_step_t;

#define NETWORK_MAX_STEPS 12

typedef struct {
    int count;
    network_step_t step[NETWORK_MAX_STEPS];
} network_trace_t;

typedef struct {
    /* Tables of the float conversion and of the fixed-point one. */
    const dl_matrix2d_t *conv_w, *conv_b, *fc1_w, *fc1_b, *bn_offset, *bn_scale, *bn_mean, *bn_sqrtvar;
    const dl_matrix2d_t *lstm_w, *lstm_b, *fc2_w, *fc2_b;
    const dl_matrix2dq_t *conv_wq, *fc1_wq, *fc1_bq, *bn_offset_q, *bn_scale_q, *bn_mean_q, *bn_sqrtvar_q;
    const dl_matrix2dq_t *lstm_wq, *lstm_bq, *fc2_wq, *fc2_bq;
    /* Layer outputs; index 0 the float variant, 1 the quantised-weights one. */
    dl_matrix2d_t *conv[2], *fc1[2], *state_c[2], *state_h[2], *fc2[2], *prob[2];
    dl_matrix2d_t *conv_f; /* the fixed variant's convolution, before quantisation */
    dl_matrix2dq_t *conv_q, *fc1_q, *state_cq, *state_hq, *fc2_q, *prob_q;
    network_trace_t trace[NETWORK_VARIANTS];
} network_t;

/* NULL on success, otherwise the name of a table the model lacks. */
const char *network_init(network_t *net);

/* One inference of one variant on an 8 x 6 input. */
void network_run(network_t *net, int variant, const dl_matrix2d_t *in);

void network_free(network_t *net);

#endif
