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

/* ---- Products. Element (x, y) of the result is the sum over k of
 * a(k, y) * b(x, k), k from 0 to b->h - 1, formed exactly in 64 bits: a has
 * a->w == b->h columns, the result a->h rows and b->w columns. res is written
 * through its own stride and must not share items with a or b (asserted for
 * res == a or res == b). */

/* Fixed-point product. The sum is shifted right (rounding down) by
 * s = 15 + floor(log2(a->w)) - shift and saturated at +-32767; res->exponent
 * becomes a->exponent + b->exponent + s, whatever the items. shift from 0 to
 * the default s, 15 + floor(log2(a->w)) (asserted). */
void dl_matrixq_dot(const dl_matrix2dq_t *a, const dl_matrix2dq_t *b, dl_matrix2dq_t *res, int shift);

/* Fixed-point product into a float matrix: each sum rounded once to float,
 * times 2^(a->exponent + b->exponent). No shift, no saturation. */
void dl_matrixq_dot_matrix_out(const dl_matrix2dq_t *a, const dl_matrix2dq_t *b, dl_matrix2d_t *res);

/* Float a times fixed-point b into float res: a is quantised on each call
 * (dl_matrixq_from_matrix2d) into a temporary record, then multiplied as by
 * dl_matrixq_dot_matrix_out. Stops when memory for the temporary runs out. */
void dl_matrix_matrixq_dot(const dl_matrix2d_t *a, const dl_matrix2dq_t *b, dl_matrix2d_t *res);

/* A copy of m (shape, items, exponent; stride as dl_matrixq_alloc's) that
 * the products and the layers built on them multiply faster as their
 * right-hand operand, a weight say, with the same bits: where a kernel reads
 * a packed layout, it is packed here once, not per call (elsewhere, as on a
 * device, a plain copy). Its items must not change afterwards; views of it
 * are plain records. NULL when memory runs out; free with dl_matrixq_free. */
dl_matrix2dq_t *dl_matrixq_prepare(const dl_matrix2dq_t *m);

/* The bodies of dl_matrixq_dot and dl_matrixq_dot_matrix_out, which forward
 * to them unchanged; their assertion messages name these. */
void dl_matrixq_dot_c_impl(const dl_matrix2dq_t *a, const dl_matrix2dq_t *b, dl_matrix2dq_t *res, int shift);
void dl_matrixq_dot_matrix_out_c_impl(const dl_matrix2dq_t *a, const dl_matrix2dq_t *b, dl_matrix2d_t *res);

/* ---- Element-wise arithmetic. The records of one call have one w and h but
 * may have different strides; res/out may be a or b (each item is read before
 * its place is written, and the exponents are taken as they were on entry).
 * Alignment shifts the item of the smaller exponent right (rounding down). */

/* res = a + b (a - b). Both are aligned to H, the larger exponent (a's when
 * equal). shift 1: res->exponent = H, the sum saturated at +-32767. shift 0:
 * res->exponent = H + 1, the sum halved (rounding down), which always fits.
 * dl_matrixq_add asserts shift 0 or 1; dl_matrixq_sub takes any non-zero
 * shift as 1. */
void dl_matrixq_add(const dl_matrix2dq_t *a, const dl_matrix2dq_t *b, dl_matrix2dq_t *res, int shift);
void dl_matrixq_sub(const dl_matrix2dq_t *a, const dl_matrix2dq_t *b, dl_matrix2dq_t *res, int shift);

/* res = a * b item by item: the upper 16 bits of each 32-bit product
 * (rounding down), res->exponent = a->exponent + b->exponent + 16. */
void dl_matrixq_mul(const dl_matrix2dq_t *a, const dl_matrix2dq_t *b, dl_matrix2dq_t *res);

/* out = a / b item by item: (a << shift) / b in 32 bits, truncated toward
 * zero and saturated at +-32767; out->exponent = a->exponent - b->exponent -
 * shift. shift from 0 to 16 (asserted); b's items must not be 0 (a zero divisor gives
 * +-32767 by the dividend's sign, 0 for 0 / 0). */
void dl_matrixq_div(const dl_matrix2dq_t *a, const dl_matrix2dq_t *b, dl_matrix2dq_t *out, int shift);

/* Adds value to every item of m, in place. value in item units is truncated
 * toward zero to c; if c is 0 nothing changes. While |c| > 32766, c and the
 * items are halved and the exponent rises by one. shift 1 then saturates the
 * sums; shift 0 raises the exponent by one more and halves them (toward
 * zero). shift must be 0 or 1. */
void dl_matrixq_add_const(dl_matrix2dq_t *m, fptp_t value, int shift);

/* New record of a->w + b->w columns, a's then b's, at the larger of the two
 * exponents (the other operand aligned). a and b must have the same h. The
 * caller frees it with dl_matrixq_free; NULL when memory ran out. */
dl_matrix2dq_t *dl_matrixq_concat(const dl_matrix2dq_t *a, const dl_matrix2dq_t *b);

/* View of the w x h rectangle at column x, row y of src; nothing is copied.
 * It takes src's stride and, once, src's exponent: an operation that
 * rescales the view changes the view's exponent only. in: NULL for a new
 * view record, or an earlier view to reuse (an owning record is refused).
 * Free the view with dl_matrixq_free. */
dl_matrix2dq_t *dl_matrixq_slice(const dl_matrix2dq_t *src, int x, int y, int w, int h, dl_matrix2dq_t *in);

/* Copies the w x h rectangle at (x, y) of src, row after row, into one row
 * at src's exponent, with stride 1. out: NULL for a new 1 x (w*h) record, or
 * a record of at least w*h items (asserted), such as one from an earlier call. */
dl_matrix2dq_t *dl_matrixq_flatten(const dl_matrix2dq_t *src, int x, int y, int w, int h, dl_matrix2dq_t *out);

/* ---- Exponent maintenance and element access. */

/* Diagnostic, changes nothing: 0 with a line on stderr naming `name` when
 * the largest magnitude uses 10 bits or fewer, or when more than 10.0 % of
 * the items sit at +-32767; else 1. An all-zero record is sane. */
int dl_matrixq_check_sanity(const dl_matrix2dq_t *m, const char *name);

/* Where the sanity warnings of dl_matrixq_check_sanity (and of the layers
 * that call it) go: each warning's line, newline included, is passed to
 * handler with arg. handler NULL restores the default, stderr. A handler
 * that does nothing silences them; dl_sanity_to_stream with a FILE * as arg
 * writes them to that stream. This is the library's one process-wide
 * setting: set it before inference starts, not while layers run. */
typedef void (*dl_sanity_handler_t)(const char *text, void *arg);
void dl_set_sanity_handler(dl_sanity_handler_t handler, void *arg);
void dl_sanity_to_stream(const char *text, void *stream);

/* Renormalises m in place, values kept: any item at +-32767 halves all items
 * (exponent + 1); otherwise the items are shifted left until the largest
 * magnitude is at least 16383 (exponent lowered to match). An all-zero
 * record is left alone. */
void dl_matrixq_readjust_exp(dl_matrix2dq_t *m);

/* The real value of element (x, y): item * 2^exponent. */
fptp_t dl_matrixq_get(const dl_matrix2dq_t *m, int x, int y);

/* Stores value at element (x, y) of m (asserted to lie inside), truncated
 * toward zero to an item. When it
 * does not fit +-32767 at m's exponent, the exponent rises until it does and
 * all items are shifted right (rounding down) to match; it never falls.
 * value must be finite. */
void dl_matrixq_set(dl_matrix2dq_t *m, int x, int y, fptp_t value);

#ifdef __cplusplus
}
#endif

#endif /* DL_LIB_MATRIXQ_H */
