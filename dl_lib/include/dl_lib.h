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
 *  - Float arithmetic is single precision, rounded at each step, with no
 *    fused multiply-add; a device computes what the PC computed.
 */
#ifndef DL_LIB_H
#define DL_LIB_H

#include "dl_lib_types.h"
#include "dl_lib_matrix.h"
#include "dl_lib_matrixq.h"
#include "dl_lib_numpy_input.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Batch-normalisation divisor: out = sqrt(variance + epsilon) per item, in
 * double precision, rounded to float. A sum below zero (or NaN) gives 0.0 and
 * one line on stderr. out may be variance. */
void dl_batch_normalize_get_sqrtvar(const dl_matrix2d_t *variance, fptp_t epsilon, dl_matrix2d_t *out);

#ifdef __cplusplus
}
#endif

#endif /* DL_LIB_H */
