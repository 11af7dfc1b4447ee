/*
 * dl_lib.h - everything dl_lib offers; include this one header.
 *
 * Conventions
 *  - Arguments come in the order input, configuration, output:
 *    dl_relu(in, clip, out).
 *  - Where an operation takes an optional result record, NULL means "allocate
 *    one": the caller owns it and frees it with the matching _free function.
 *    A given result record must fit, and is returned.
 *  - Element-wise operations and activations may run in place (out == in);
 *    matrix products may not.
 *  - Preconditions on shapes and modes are fatal assertions in every build
 *    type: the message quotes the condition, e.g. "a->w==b->h".
 *  - File loaders never assert on file content: they print one line on
 *    stderr, beginning with the file's name, and return NULL.
 *  - When memory runs out, a function that makes a new record (an
 *    allocator, a loader, a concatenation, an operation given a NULL result
 *    record) returns NULL; a layer or operation that cannot get a temporary
 *    of its own stops with "Assertion `out of memory: <name>' failed.".
 *    No function goes on with a record it could not get.
 *  - Float arithmetic is single precision, rounded at each step, with no
 *    fused multiply-add; a device computes what the PC computed.
 */
#ifndef DL_LIB_H
#define DL_LIB_H

#include "dl_lib_types.h"
#include "dl_lib_matrix.h"
#include "dl_lib_matrixq.h"
#include "dl_lib_memory.h"
#include "dl_lib_numpy_input.h"
#include "dl_lib_tensor.h"
#include "dl_lib_tensor_ops.h"
#include "dl_lib_audio.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Batch-normalisation divisor: out = sqrt(variance + epsilon) per item, in
 * double precision, rounded to float. A sum below zero (or NaN) gives 0.0 and
 * one line on stderr. out may be variance. */
void dl_batch_normalize_get_sqrtvar(const dl_matrix2d_t *variance, fptp_t epsilon, dl_matrix2d_t *out);

/* ---- Float activations. The matrix forms visit every item of in and write
 * the same place of out, each record through its own stride; out may be in.
 * None calls the math library or allocates. */

/* (1 + x / 2^n)^(2^n) by n squarings in double precision, rounded to float:
 * an exponential without range reduction. n from 0 to 30; the library uses
 * 8, which overflows to infinity from x = 106.04 and, far below zero, is not
 * monotonic (-256 gives 0, -512 gives 1). */
fptp_t fast_exp(double x, int n);

/* Softmax over the whole matrix (not per row): fast_exp(item, 8) divided by
 * the float sum of all of them, with no subtraction of the largest. out must
 * be at least as large as in (asserted); may be in. An infinite sum gives
 * NaN for the overflowing items and 0 for the others. */
void dl_softmax(const dl_matrix2d_t *in, dl_matrix2d_t *out);

/* Sigmoid by linear interpolation in a 16-point table, 0.5 apart; 1.0 from
 * 7.5 upwards and for NaN, 1 - sigmoid(-x) below zero. */
fptp_t dl_sigmoid_op(fptp_t x);
void dl_sigmoid(const dl_matrix2d_t *in, dl_matrix2d_t *out);

/* tanh(x) = 2 * sigmoid(2x) - 1 through dl_sigmoid_op: +-1.0 beyond +-3.75. */
fptp_t dl_tanh_op(fptp_t x);
void dl_tanh(const dl_matrix2d_t *in, dl_matrix2d_t *out);

/* Clamp to 0..clip: 0 below zero, clip above clip, else x (NaN passes). */
fptp_t dl_relu_op(fptp_t x, fptp_t clip);
void dl_relu(const dl_matrix2d_t *in, fptp_t clip, dl_matrix2d_t *out);

/* ReLU with no upper clip, as PyTorch's nn.ReLU: max(x, 0) per item (a NaN
 * stays). out may be in. */
void dl_relu_noclip(const dl_matrix2d_t *in, dl_matrix2d_t *out);

/* ---- Fixed-point activations. Sigmoid, tanh and softmax give out exponent
 * -15 whatever in's exponent; relu keeps the scale. out may be in, also a
 * slice with an exponent of its own. None allocates. */

/* Softmax over the whole matrix through floats, as dl_softmax; out gets
 * exponent -15 (an empty in leaves it alone). In place works: the exponent is
 * in's for each read and -15 for each write. A quotient above 32767/32768
 * (one item far above the others), or NaN (an overflowing fast_exp, or a
 * sum of zeros), is stored as the largest item, 32767, so the record stays
 * at -15 with every item in agreement. */
void dl_softmax_q(const dl_matrix2dq_t *in, dl_matrix2dq_t *out);

/* Sigmoid of a Q15 value (x / 2^15) by integer interpolation in its own
 * table: 0 to 32767, where 32767 stands for 1.0; 32767 from 7.5 upwards,
 * and op(-x) == 32767 - op(x). */
int32_t dl_sigmoid_op_q(int32_t x);

/* Items are aligned to Q15 (shifted by exponent + 15) and passed to the op.
 * An item whose aligned value overflows 32 bits is taken as +-(2^31 - 1), so
 * large inputs reach the end values; a right shift goes no further than 31
 * (a negative item ends at -1). out->exponent becomes -15. */
void dl_sigmoid_q(const dl_matrix2dq_t *in, dl_matrix2dq_t *out);

/* tanh of a Q15 value through dl_tanh_op on x / 32767.0: -32767 to 32767. */
int32_t dl_tanh_op_q(int32_t x);
void dl_tanh_q(const dl_matrix2dq_t *in, dl_matrix2dq_t *out);

/* Clamp of items to 0..clip, signed 16-bit comparisons. */
qtp_t dl_relu_q_op(qtp_t x, qtp_t clip);

/* clip is brought to in's exponent once (truncated toward zero, at most
 * 32767). Works on items only: out->exponent is not written, so a distinct
 * out must already carry in's exponent. */
void dl_relu_q(const dl_matrix2dq_t *in, fptp_t clip, dl_matrix2dq_t *out);

/* Fixed-point ReLU with no upper clip: negative items become 0, the others
 * stay; out->exponent becomes in->exponent. out may be in. */
void dl_relu_noclip_q(const dl_matrix2dq_t *in, dl_matrix2dq_t *out);

/* ---- Fully connected and batch normalisation layers. They allocate
 * nothing; shapes are asserted by the operations they call. */

/* out = in x weight (+ bias): in is rows x inputs, weight inputs x outputs,
 * out and bias (NULL for none) rows x outputs. */
void dl_fully_connect_layer(const dl_matrix2d_t *in, const dl_matrix2d_t *weight, const dl_matrix2d_t *bias,
                            dl_matrix2d_t *out);

/* dl_matrixq_dot(in, weight, out, shift), then a saturating add of bias:
 * out->exponent is the product's, or the larger of that and bias's. */
void dl_fully_connect_layer_q(const dl_matrix2dq_t *in, const dl_matrix2dq_t *weight, const dl_matrix2dq_t *bias,
                              dl_matrix2dq_t *out, int shift);

/* Float in, fixed-point weight: out = in x weight by dl_matrix_matrixq_dot
 * (in quantised once per call), then + bias (NULL for none) in float, as
 * dl_matrix_add. Shapes as dl_fully_connect_layer's. */
void dl_fully_connect_layer_quantised_weight(const dl_matrix2d_t *in, const dl_matrix2dq_t *weight,
                                             const dl_matrix2d_t *bias, dl_matrix2d_t *out);

/* m = (m - mean) / sqrtvar * scale + offset in place, all of one shape;
 * sqrtvar holds sqrt(variance + epsilon) (dl_batch_normalize_get_sqrtvar). */
void dl_batch_normalize(dl_matrix2d_t *m, const dl_matrix2d_t *offset, const dl_matrix2d_t *scale,
                        const dl_matrix2d_t *mean, const dl_matrix2d_t *sqrtvar);

/* The same in fixed point; shift goes to the division only, and a sanity
 * check labelled "batch_normalize_q after div" follows it. m->exponent ends
 * at max(max(e_m, e_mean) - e_sqrtvar - shift + e_scale + 16, e_offset).
 * A zero item of sqrtvar (a root too small for its matrix's exponent) gives
 * that element the largest quotient, +-32767 by the sign of m - mean (0 when
 * that is 0), the nearest item to a quotient beyond the range. */
void dl_batch_normalize_q(dl_matrix2dq_t *m, const dl_matrix2dq_t *offset, const dl_matrix2dq_t *scale,
                          const dl_matrix2dq_t *mean, const dl_matrix2dq_t *sqrtvar, int shift);

/* ---- LSTM cell, one time step. in is rows x inputs; state_c and state_h
 * rows x units, read and then overwritten in place; weight (inputs + units)
 * x 4*units, its rows for in first, then for state_h; bias rows x 4*units or
 * NULL. The quarters of the columns are the input gate (sigmoid), the
 * candidate (tanh), the forget gate (sigmoid, 1.0 added first) and the output
 * gate (sigmoid). One product serves all four; the gates are views of it.
 * in, weight and bias are not changed. Returns state_h. */
dl_matrix2d_t *dl_basic_lstm_layer(const dl_matrix2d_t *in, dl_matrix2d_t *state_c, dl_matrix2d_t *state_h,
                                   const dl_matrix2d_t *weight, const dl_matrix2d_t *bias);

/* The float cell with a fixed-point weight: [in, state_h] is quantised on
 * each call (dl_matrix_matrixq_dot); the rest is float. */
dl_matrix2d_t *dl_basic_lstm_layer_quantised_weights(const dl_matrix2d_t *in, dl_matrix2d_t *state_c,
                                                     dl_matrix2d_t *state_h, const dl_matrix2dq_t *weight,
                                                     const dl_matrix2d_t *bias);

/* The cell in fixed point; shift goes to the product only. Both states leave
 * with new exponents, renormalised (dl_matrixq_readjust_exp) for the next
 * step: before that state_c is at max(e_c + 1, -14) and state_h at -14.
 * Sanity warnings labelled "lstm ..." go to stderr and change nothing. */
dl_matrix2dq_t *dl_basic_lstm_layer_q(const dl_matrix2dq_t *in, dl_matrix2dq_t *state_c, dl_matrix2dq_t *state_h,
                                      const dl_matrix2dq_t *weight, const dl_matrix2dq_t *bias, int shift);

/* ---- Convolution of a one-channel matrix into out_channels channels.
 * filter has out_channels columns and filter_w * filter_h rows, one per
 * place of the window (row dy * filter_w + dx); bias one value per channel.
 * out is one row: channel oc at position (ox, oy) is item
 * (oy * wo + ox) * out_channels + oc. out NULL: a new record, freed with
 * dl_matrix_free; otherwise h 1 and w out_channels * wo * ho (asserted).
 *
 * padding 0: wo = (in->w - filter_w) / stride_x + 1 windows from column 0,
 * the remainder dropped; filter_w <= in->w is asserted (ho alike).
 * padding p >= 1: wo = ceil(in->w / stride_x). With k = filter_w - 1 rounded
 * up to even, in sits in a zero frame p * k / 2 wide on each side, and the
 * first window starts min(k / 2, ceil(r / 2)) into the framed matrix, r being
 * what windows run from 0 leave over at the end (0 if none); ho alike.
 * Strides are at least 1. Each channel sums its window's places in
 * ascending order from 0.0, one float rounding per step, then adds bias.
 * filter and bias may be larger than that; at least filter_w * filter_h
 * rows and out_channels columns of filter, and out_channels items of bias,
 * are asserted. */
dl_matrix2d_t *dl_basic_conv_layer(const dl_matrix2d_t *in, const dl_matrix2d_t *filter, const dl_matrix2d_t *bias,
                                   int filter_w, int filter_h, int out_channels, int stride_x, int stride_y,
                                   int padding, dl_matrix2d_t *out);

/* The same with a fixed-point filter: in is quantised once per call, each
 * position's channels are one exact fixed-point product written as floats
 * straight into out, and bias is added. */
dl_matrix2d_t *dl_basic_conv_layer_quantised_weight(const dl_matrix2d_t *in, const dl_matrix2dq_t *filter,
                                                    const dl_matrix2d_t *bias, int filter_w, int filter_h,
                                                    int out_channels, int stride_x, int stride_y, int padding,
                                                    dl_matrix2d_t *out);

#ifdef __cplusplus
}
#endif

#endif /* DL_LIB_H */
