/*
 * dl_lib_tensor.h - dense tensors: float (dl_matrix3d_t), fixed point with
 * one block exponent (dl_matrix3dq_t) and 8-bit (dl_matrix3du_t).
 *
 * Layout, the same in all three: item i, row y, column x, channel ch is
 * item[(h*i + y)*stride + c*x + ch], channels fastest, with stride == w*c,
 * so the n*w*h*c elements lie back to back. A fixed-point element q stands
 * for q * 2^exponent. A record always owns its items; tensors in generated
 * tables are constant data and never pass through these functions.
 *
 * Dimension arguments come in the order n, w, h, c (not the field order).
 */
#ifndef DL_LIB_TENSOR_H
#define DL_LIB_TENSOR_H

#include "dl_lib_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* New tensor of n items of h rows, w columns and c channels, all elements 0.
 * A dimension of 0 gives a tensor without elements. A negative dimension, an
 * element count beyond 2^31 - 1 or missing memory prints
 * "matrix3d item alloc failed." (dl_matrix3du_alloc: "matrix3du item alloc
 * failed.") on stdout and returns NULL. dl_matrix3dq_alloc also sets the
 * exponent. */
dl_matrix3d_t *dl_matrix3d_alloc(int n, int w, int h, int c);
dl_matrix3du_t *dl_matrix3du_alloc(int n, int w, int h, int c);
dl_matrix3dq_t *dl_matrix3dq_alloc(int n, int w, int h, int c, int exponent);

/* Free the items and the record; NULL is accepted. */
void dl_matrix3d_free(dl_matrix3d_t *m);
void dl_matrix3du_free(dl_matrix3du_t *m);
void dl_matrix3dq_free(dl_matrix3dq_t *m);

/* New float tensor of m's shape: element q becomes q * 2^exponent, exactly.
 * NULL if memory runs out. */
dl_matrix3d_t *dl_matrix3d_from_matrixq(const dl_matrix3dq_t *m);

/* Lowest and highest element, by strict ordered comparisons: a NaN replaces
 * neither bound (a NaN in first place stays in both). Both are 0 for a
 * tensor without elements. */
void matrix3d_get_range(const dl_matrix3d_t *m, fptp_t *min, fptp_t *max);

/* Quantiser: one exponent for all n items, chosen so that the largest
 * magnitude scaled by 2^-exponent lies in 16383..32767; then each element
 * is (v + half a unit) * 2^-exponent truncated toward zero. Element i of m
 * becomes element i of the new result. A tensor without elements, or of
 * zeros, gets exponent 0. NULL if memory runs out. */
dl_matrix3dq_t *dl_matrixq_from_matrix3d(const dl_matrix3d_t *m);

/* Quantises to the given exponent, -30 to 0 (asserted): values are clipped
 * to 32767 * 2^exponent and -32768 * 2^exponent, then v * 2^-exponent + 0.5
 * is truncated toward zero (so the low clip gives -32767). New result, or
 * NULL if memory runs out. */
dl_matrix3dq_t *dl_matrixq_from_matrix3d_qmf(const dl_matrix3d_t *m, int exponent);

#ifdef __cplusplus
}
#endif

#endif /* DL_LIB_TENSOR_H */
