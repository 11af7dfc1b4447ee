/*
 * Linked to be measured, not run: a model of fully connected layers only
 * (examples/demo/model: 40 inputs, 16 units, relu, 3 outputs), one
 * inference in float or, with COST_FIXED, in fixed point.
 */
#include "dl_lib.h"
#include "fc_model.h"

int main(void)
{
#ifdef COST_FIXED
    const dl_matrix2dq_t *w1 = get_coeff_fc_model.getter_q("dense1_w", NULL, 0);
    const dl_matrix2dq_t *b1 = get_coeff_fc_model.getter_q("dense1_b", NULL, 0);
    const dl_matrix2dq_t *w2 = get_coeff_fc_model.getter_q("dense2_w", NULL, 0);
    const dl_matrix2dq_t *b2 = get_coeff_fc_model.getter_q("dense2_b", NULL, 0);
    dl_matrix2dq_t *in = dl_matrixq_alloc(40, 1), *hidden = dl_matrixq_alloc(16, 1), *out = dl_matrixq_alloc(3, 1);
    dl_fully_connect_layer_q(in, w1, b1, hidden, 0);
    dl_relu_q(hidden, 6.0f, hidden);
    dl_fully_connect_layer_q(hidden, w2, b2, out, 0);
    int result = out->itemq[0];
    dl_matrixq_free(in);
    dl_matrixq_free(hidden);
    dl_matrixq_free(out);
#else
    const dl_matrix2d_t *w1 = get_coeff_fc_model.getter_f("dense1_w", NULL, 0);
    const dl_matrix2d_t *b1 = get_coeff_fc_model.getter_f("dense1_b", NULL, 0);
    const dl_matrix2d_t *w2 = get_coeff_fc_model.getter_f("dense2_w", NULL, 0);
    const dl_matrix2d_t *b2 = get_coeff_fc_model.getter_f("dense2_b", NULL, 0);
    dl_matrix2d_t *in = dl_matrix_alloc(40, 1), *hidden = dl_matrix_alloc(16, 1), *out = dl_matrix_alloc(3, 1);
    dl_fully_connect_layer(in, w1, b1, hidden);
    dl_relu(hidden, 6.0f, hidden);
    dl_fully_connect_layer(hidden, w2, b2, out);
    int result = out->item[0] > 0.0f;
    dl_matrix_free(in);
    dl_matrix_free(hidden);
    dl_matrix_free(out);
#endif
    return result;
}
