#include "dl_lib.h"

#include <math.h>

#include "dl_lib_internal.h"

void dl_batch_normalize_get_sqrtvar(const dl_matrix2d_t *variance, fptp_t epsilon, dl_matrix2d_t *out)
{
    DL_ASSERT(dl_matrix_same_shape(variance, out));
    for (int y = 0; y < variance->h; y++) {
        for (int x = 0; x < variance->w; x++) {
            const fptp_t s = variance->item[x + variance->stride * y] + epsilon;
            fptp_t root = 0.0f;
            if (s >= 0.0f) {
                root = static_cast<fptp_t>(sqrt(static_cast<double>(s)));
            } else {  // negative or NaN
                fputs("dl_batch_normalize_get_sqrtvar: negative input to sqrt\n", stderr);
            }
            out->item[x + out->stride * y] = root;
        }
    }
}
