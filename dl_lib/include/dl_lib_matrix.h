/*
 * dl_lib_matrix.h - float matrices (dl_matrix2d_t), row-major.
 *
 * Every operation reads and writes through each record's own stride, so
 * views (dl_matrix_slice) and owning records mix freely.
 */
#ifndef DL_LIB_MATRIX_H
#define DL_LIB_MATRIX_H

#include "dl_lib_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* New w x h matrix owning zeroed items, stride w. NULL if memory runs out. */
dl_matrix2d_t *dl_matrix_alloc(int w, int h);

/* New record over the caller's items; nothing is copied or read. The record
 * has DL_MF_FOREIGNDATA set, so dl_matrix_free leaves the items alone. */
dl_matrix2d_t *dl_matrix_from_data(int w, int h, int stride, void *data);

/* Frees the record, and its items unless DL_MF_FOREIGNDATA is set. NULL is
 * accepted. */
void dl_matrix_free(dl_matrix2d_t *m);

/* Sets every item to 0.0 (a view's source is touched only inside the view). */
void dl_matrix_zero(dl_matrix2d_t *m);

/* 1 when w and h agree (strides do not count); otherwise prints the two
 * shapes to stderr and returns 0. Callers assert on it. */
int dl_matrix_same_shape(const dl_matrix2d_t *a, const dl_matrix2d_t *b);

/* View of the w x h rectangle at column x, row y of src; nothing is copied.
 * in: NULL for a new view record, or an earlier view to reuse (a record
 * that owns its items is refused). Free the view with dl_matrix_free. */
dl_matrix2d_t *dl_matrix_slice(const dl_matrix2d_t *src, int x, int y, int w, int h, dl_matrix2d_t *in);

/* Copies the w x h rectangle at (x, y) of src, row after row, into one
 * dense vector. in: NULL for a new 1-row matrix of w*h items, or a record
 * with room for w*h items (w * h of the record at least, asserted), whose w
 * and h stay and whose stride becomes w*h. */
dl_matrix2d_t *dl_matrix_flatten(const dl_matrix2d_t *src, int x, int y, int w, int h, dl_matrix2d_t *in);

/* Turns a row vector (h == 1) into a column vector in place. */
void dl_matrix_flip(dl_matrix2d_t *a);

/* Prints the shape and the items, row by row, to stdout. */
void dl_printmatrix(const dl_matrix2d_t *a);

/* Element-wise arithmetic: out = a op b at each position, rows a->h, columns
 * a->w. a and b must have out's shape (strides may differ). out may be a or
 * b: each position is read before it is written. Division by 0 gives what
 * IEEE float division gives. */
void dl_matrix_add(const dl_matrix2d_t *a, const dl_matrix2d_t *b, dl_matrix2d_t *out);
void dl_matrix_sub(const dl_matrix2d_t *a, const dl_matrix2d_t *b, dl_matrix2d_t *out);
void dl_matrix_div(const dl_matrix2d_t *a, const dl_matrix2d_t *b, dl_matrix2d_t *out);

/* out = a * b element by element over a->h rows and b->w columns. a and b
 * must have the same shape; out's shape should be a's, and is asserted only
 * to be at least as large. out may be a or b. */
void dl_matrix_mul(const dl_matrix2d_t *a, const dl_matrix2d_t *b, dl_matrix2d_t *out);

/* Adds value to every item of a, in place. */
void dl_matrix_add_const(dl_matrix2d_t *a, fptp_t value);

/* Matrix product res = a x b: a is h x w, b has a->w rows, res has a->h rows
 * and b->w columns. Each item is summed over k in ascending order from 0.0,
 * every product and sum rounded to float on its own (no fused multiply-add),
 * so every build and machine gives the same bits. Not in place: res must not
 * share items with a or b (asserted for res == a or res == b). */
void dl_matrix_dot(const dl_matrix2d_t *a, const dl_matrix2d_t *b, dl_matrix2d_t *res);

/* New dense matrix of a->w + b->w columns: a's columns, then b's. a and b
 * must have the same h. The caller frees it with dl_matrix_free; NULL when
 * memory ran out. */
dl_matrix2d_t *dl_matrix_concat(const dl_matrix2d_t *a, const dl_matrix2d_t *b);

/* Relative error of two matrices of one shape: the Euclidean norm of a - b
 * divided by that of (a + b) / 2 (no division by the item count). A mean
 * whose squares sum below 1e-9 counts as 1.0, so the result is then the norm
 * of the difference alone. */
fptp_t dl_matrix_get_avg_sq_err(const dl_matrix2d_t *a, const dl_matrix2d_t *b);

#ifdef __cplusplus
}
#endif

#endif /* DL_LIB_MATRIX_H */
