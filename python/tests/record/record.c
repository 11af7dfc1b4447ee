/*
 * Built with model/ and cnn/ converted by kelvane_add_model() from their
 * records alone (see python_tests.cmake): the batch-norm variance bn_var
 * must arrive as its roots 1, 2, 3 in every format, the quantised-weight
 * form must hold fc_w in fixed point and fc_b in float, and cnn/ must be a
 * tensor model. rec_raw ignores the record (NO_RECORD) and must hold the
 * raw variance, which shows that the record is what made the difference.
 */
#include <math.h>

#include "check.h"
#include "rec_f.h"
#include "rec_q.h"
#include "rec_qw.h"
#include "rec_raw.h"
#include "rec_cnn.h"

/* Item i of a one-row table, float or fixed point, NAN when absent. */
static float float_item(const dl_matrix2d_t *m, int i) { return m && m->w == 3 ? m->item[i] : NAN; }

static float fixed_item(const dl_matrix2dq_t *m, int i)
{
    return m && m->w == 3 ? ldexpf((float)m->itemq[m->stride * i], m->exponent) : NAN;
}

int main(void)
{
    static const float roots[3] = {1.0f, 2.0f, 3.0f}, raw[3] = {0.999f, 3.999f, 8.999f};
    for (int i = 0; i < 3; i++) {
        /* Six decimals in the float tables; 15 bits of 3 in the fixed point. */
        CHECK(fabsf(float_item(get_coeff_rec_f.getter_f("bn_var", NULL, 0), i) - roots[i]) < 1e-5f);
        CHECK(fabsf(float_item(get_coeff_rec_qw.getter_f("bn_var", NULL, 0), i) - roots[i]) < 1e-5f);
        CHECK(fabsf(fixed_item(get_coeff_rec_q.getter_q("bn_var", NULL, 0), i) - roots[i]) < 1e-3f);
        CHECK(fabsf(float_item(get_coeff_rec_raw.getter_f("bn_var", NULL, 0), i) - raw[i]) < 1e-5f);
    }
    CHECK(get_coeff_rec_qw.getter_q("fc_w", NULL, 0) != NULL);
    CHECK(get_coeff_rec_qw.getter_f("fc_b", NULL, 0) != NULL);
    CHECK(get_coeff_rec_qw.getter_f("fc_w", NULL, 0) == NULL);
    const dl_matrix3dq_t *conv = get_coeff_rec_cnn.getter_3dq ? get_coeff_rec_cnn.getter_3dq("conv1_w", NULL, 0) : NULL;
    CHECK(conv != NULL && conv->c == 1 && conv->n == 2);
    return check_status();
}
