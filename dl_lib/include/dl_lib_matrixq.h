/*
 * dl_lib_matrixq.h - fixed-point matrices (dl_matrix2dq_t) with one block
 * exponent.
 *
 * Number model: an item stands for item * 2^exponent. Storage is
 * column-major, element (x, y) at itemq[y + stride*x]; x is the column,
 * bounded by w. Saturating operations clamp to -32767..32767, never -32768.
 * Exponents become exact powers of two; aligning an item to a larger
 * exponent is an arithmetic right shift (rounds toward minus infinity).
 * Every function honours each record's own stride, odd ones included.
 */
#ifndef DL_LIB_MATRIXQ_H
#define DL_LIB_MATRIXQ_H

#include "dl_lib_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* New w x h record, items zeroed, exponent -31, flags 0. stride is h, raised
 * to the next even number when h > 1 is odd. NULL if memory runs out. */
dl_matrix2dq_t *dl_matrixq_alloc(int w, int h);

/* Frees the record, and its items unless DL_MF_FOREIGNDATA is set. NULL is
 * accepted. */
void dl_matrixq_free(dl_matrix2dq_t *m);

/* Sets the w x h items to 0; exponent and stride stay. */
void dl_matrixq_zero(dl_matrix2dq_t *m);

/* 1 when w and h agree; otherwise prints both shapes to stderr, returns 0. */
int dl_matrixq_same_shape(const dl_matrix2dq_t *a, const dl_matrix2dq_t *b);

/* Lowest and highest item of a float matrix (ordered comparisons, so a NaN
 * replaces nothing). Both are 0 for a matrix without items. */
void matrix_get_range(const dl_matrix2d_t *m, fptp_t *min, fptp_t *max);

/* Quantiser: picks the exponent that puts the largest magnitude between
 * 16383 and 32767 and rounds every item (half a unit added, then truncated
 * toward zero). out: NULL for a new record, or one of m's shape. */
dl_matrix2dq_t *dl_matrixq_from_matrix2d(const dl_matrix2d_t *m, dl_matrix2dq_t *out);

/* Quantises to a caller-named format: m_bit integer bits (sign included),
 * f_bit fractional bits; values are clipped to +-2^(m_bit-1) and the
 * exponent is -f_bit. out: NULL for a new record, or one of m's shape. */
dl_matrix2dq_t *dl_matrixq_from_matrix2d_by_qmf(const dl_matrix2d_t *m, dl_matrix2dq_t *out, int m_bit, int f_bit);

/* Back to float: item * 2^exponent. out: NULL for a new record, or one of
 * m's shape. */
dl_matrix2d_t *dl_matrix2d_from_matrixq(const dl_matrix2dq_t *m, dl_matrix2d_t *out);

/* Prints the exponent, then each row's items with their real values. */
void dl_printmatrixq(const dl_matrix2dq_t *m);

#ifdef __cplusplus
}
#endif

#endif /* DL_LIB_MATRIXQ_H */
