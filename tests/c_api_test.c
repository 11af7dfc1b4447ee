/*
 * The public API from C: the headers compile as C99, and a C caller can load,
 * quantise, convert back and free. The record layouts that generated code
 * initialises by field name are pinned here too.
 */
#include <stddef.h>

#include "check.h"
#include "dl_lib.h"
#include "dl_lib_coefgetter_if.h"

_Static_assert(sizeof(int) == 4, "record fields are 32-bit");
_Static_assert(offsetof(dl_matrix2d_t, w) == 0 && offsetof(dl_matrix2d_t, h) == 4, "dl_matrix2d_t layout");
_Static_assert(offsetof(dl_matrix2d_t, stride) == 8 && offsetof(dl_matrix2d_t, flags) == 12, "dl_matrix2d_t layout");
_Static_assert(offsetof(dl_matrix2d_t, item) == 16, "dl_matrix2d_t layout");
_Static_assert(offsetof(dl_matrix2dq_t, flags) == 12 && offsetof(dl_matrix2dq_t, exponent) == 16,
               "dl_matrix2dq_t layout");
_Static_assert(offsetof(dl_matrix2dq_t, itemq) == 24 || offsetof(dl_matrix2dq_t, itemq) == 20, "dl_matrix2dq_t layout");
_Static_assert(offsetof(dl_matrix3dq_t, n) == 12 && offsetof(dl_matrix3dq_t, stride) == 16 &&
                   offsetof(dl_matrix3dq_t, exponent) == 20,
               "dl_matrix3dq_t layout");

int main(void)
{
    dl_matrix2d_t *m = dl_matrix_alloc(3, 2);
    for (int i = 0; i < 6; i++) m->item[i] = (fptp_t)(i - 2);
    dl_matrix2dq_t *q = dl_matrixq_from_matrix2d(m, NULL);
    CHECK(q->exponent == -13 && q->stride == 2);
    CHECK(q->itemq[0] == -16383 && q->itemq[1] == 8192);
    dl_matrix2d_t *back = dl_matrix2d_from_matrixq(q, NULL);
    CHECK(back->item[5] == 3.0f && back->item[0] == -1.9998779296875f);
    dl_matrix2d_t *view = dl_matrix_slice(m, 1, 0, 2, 2, NULL);
    CHECK(view->item[view->stride] == 2.0f);
    dl_matrix_free(view);
    dl_matrix_free(back);
    dl_matrixq_free(q);
    dl_matrix_free(m);
    CHECK(dl_matrix2d_from_numpy_file("/nonexistent.npy") == NULL);
    return check_status();
}
