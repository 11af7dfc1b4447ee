/*
 * network.h - the bundled digit recognisers (examples/digits) as firmware
 * runs them: the LSTM network, the convolution network and the CNN of
 * tensors (examples/digits/cnn.c), each in the
 * library's three number formats, from the generated pair of that format:
 *   float              float data and coefficients (kelvane -no-quantized)
 *   quantised weights  float data against 16-bit weight matrices
 *   fixed              16-bit fixed point with the shifts chosen at training
 *                      (the convolution itself has no fixed-point form: its
 *                      float result is quantised)
 *
 * Both end in a softmax over their ten scores. network_init fetches every
 * table by name and allocates every layer output once; an inference then allocates nothing itself, while the layers
 * make and free their own temporaries. Each layer call is measured (measure.h).
 */
#ifndef FIRMWARE_NETWORK_H
#define FIRMWARE_NETWORK_H

#include "dl_lib.h"

#define NETWORK_SIDE 8 /* images are 8 x 8 pixels, 0 to 1, row by row */
#define NETWORK_RUNS 9 /* {lstm, conv, cnn} x {float, quantised weights, fixed} */

extern const char *const network_run_name[NETWORK_RUNS];

/* What one inference leaves to look at: layer outputs in order, each a float
 * or a fixed-point record (exactly one of f and q is set). */
typedef struct {
    const char *name;
    const dl_matrix2d_t *f;
    const dl_matrix2dq_t *q;
} network_step_t;

#define NETWORK_MAX_STEPS 6

typedef struct {
    int count;
    network_step_t step[NETWORK_MAX_STEPS];
} network_trace_t;

/* NULL on success, otherwise the name of a table that a model lacks. */
const char *network_init(void);

/* One inference of run r on one image; returns the digit with the highest
 * score (the first on a tie). */
int network_classify(int r, const fptp_t *image);

const network_trace_t *network_trace(int r);

void network_free(void);

#endif
