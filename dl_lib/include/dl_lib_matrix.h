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
 * with room for w*h items, whose w and h stay and whose stride becomes w*h. */
dl_matrix2d_t *dl_matrix_flatten(const dl_matrix2d_t *src, int x, int y, int w, int h, dl_matrix2d_t *in);

/* Turns a row vector (h == 1) into a column vector in place. */
void dl_matrix_flip(dl_matrix2d_t *a);

/* Prints the shape and the items, row by row, to stdout. */
void dl_printmatrix(const dl_matrix2d_t *a);

#ifdef __cplusplus
}
#endif

#endif /* DL_LIB_MATRIX_H */
