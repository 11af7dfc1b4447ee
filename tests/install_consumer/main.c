#include <stdio.h>

#include "model.h"

int main(void)
{
    const dl_matrix2dq_t *w = get_coeff_model.getter_q("w", NULL, 0);
    if (!w || w->w != 2 || w->h != 2) return 1;
    dl_matrix2d_t *f = dl_matrix2d_from_matrixq(w, NULL);
    printf("w[1][0] = %f\n", (double)f->item[2]);
    const int ok = f->item[2] == 2.0f;
    dl_matrix_free(f);
    return ok ? 0 : 1;
}
