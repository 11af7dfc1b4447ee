#include "dl_lib.h"

#include <math.h>

#include "dl_lib_internal.h"

// ---- Batch normalisation variance ----------------------------------------

void dl_batch_normalize_get_sqrtvar(const dl_matrix2d_t *variance, fptp_t epsilon, dl_matrix2d_t *out)
{
    DL_ASSERT(dl_matrix_same_shape(variance, out));
    // Bounded by both sides, so an empty matrix of two billion rows costs nothing.
    for (int y = 0; y < variance->h && variance->w > 0; y++) {
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

// ---- Fully connected and batch normalisation layers ----------------------

void dl_fully_connect_layer(const dl_matrix2d_t *in, const dl_matrix2d_t *weight, const dl_matrix2d_t *bias,
                            dl_matrix2d_t *out)
{
    dl_matrix_dot(in, weight, out);
    if (bias) dl_matrix_add(out, bias, out);
}

void dl_fully_connect_layer_q(const dl_matrix2dq_t *in, const dl_matrix2dq_t *weight, const dl_matrix2dq_t *bias,
                              dl_matrix2dq_t *out, int shift)
{
    dl_matrixq_dot(in, weight, out, shift);
    // The bias is added saturating at the larger exponent; the layer's shift
    // is the product's alone.
    if (bias) dl_matrixq_add(out, bias, out, 1);
}

void dl_fully_connect_layer_quantised_weight(const dl_matrix2d_t *in, const dl_matrix2dq_t *weight,
                                             const dl_matrix2d_t *bias, dl_matrix2d_t *out)
{
    dl_matrix_matrixq_dot(in, weight, out);
    if (bias) dl_matrix_add(out, bias, out);
}

void dl_batch_normalize(dl_matrix2d_t *m, const dl_matrix2d_t *offset, const dl_matrix2d_t *scale,
                        const dl_matrix2d_t *mean, const dl_matrix2d_t *sqrtvar)
{
    dl_matrix_sub(m, mean, m);
    dl_matrix_div(m, sqrtvar, m);
    dl_matrix_mul(m, scale, m);
    dl_matrix_add(m, offset, m);
}

void dl_batch_normalize_q(dl_matrix2dq_t *m, const dl_matrix2dq_t *offset, const dl_matrix2dq_t *scale,
                          const dl_matrix2dq_t *mean, const dl_matrix2dq_t *sqrtvar, int shift)
{
    dl_matrixq_sub(m, mean, m, 1);
    dl_matrixq_div(m, sqrtvar, m, shift);
    dl_matrixq_check_sanity(m, "batch_normalize_q after div");
    dl_matrixq_mul(m, scale, m);
    dl_matrixq_add(m, offset, m, 1);
}
