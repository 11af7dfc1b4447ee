/*
 * matrix_internal.h - what the float and the fixed-point matrix records
 * share: their items are reached through one accessor per record type, and
 * the steps that do not depend on the layout are written once. Not
 * installed.
 */
#ifndef DL_LIB_MATRIX_INTERNAL_H
#define DL_LIB_MATRIX_INTERNAL_H

#include <stdio.h>
#include <stdlib.h>

#include "dl_lib_types.h"

namespace dl {

inline fptp_t *&items_of(dl_matrix2d_t *m) { return m->item; }
inline qtp_t *&items_of(dl_matrix2dq_t *m) { return m->itemq; }

/* Frees a record and, unless they are foreign, its items. */
template <class Matrix>
void free_record(Matrix *m)
{
    if (!m) return;
    if (!(m->flags & DL_MF_FOREIGNDATA)) dl::mem_free(items_of(m));
    dl::mem_free(m);
}

/* Whether a and b have one shape; if not, says so on stderr in the words
 * both record types use. */
template <class Matrix>
int same_shape(const Matrix *a, const Matrix *b)
{
    if (a->w == b->w && a->h == b->h) return 1;
    fprintf(stderr, "dl_matrix_same_shape: Matrices not the same shape! a: %d x %d, b: %d x %d\n", a->w, a->h, b->w,
            b->h);
    return 0;
}

/* The record a slice is made into: in, or a new view record (NULL if memory
 * ran out). The caller asserts in's flags and the rectangle. */
template <class Matrix>
Matrix *view_record(Matrix *in)
{
    if (in) return in;
    in = static_cast<Matrix *>(dl::mem_calloc(1, sizeof(Matrix)));
    if (in) in->flags = DL_MF_FOREIGNDATA;
    return in;
}

}  // namespace dl

#endif /* DL_LIB_MATRIX_INTERNAL_H */
