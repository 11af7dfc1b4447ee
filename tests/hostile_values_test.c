/*
 * Values of a converted file that "%f" cannot spell arrive in the compiled
 * table as they were loaded: infinities from doubles beyond the float
 * range, NaNs with their sign, a negative zero. The fixed-point table of
 * the same file compiles too.
 */
#include <math.h>

#include "check.h"
#include "extremes_f.h"
#include "extremes_q.h"

int main(void)
{
    const dl_matrix2d_t *m = get_coeff_extremes_f.getter_f("extremes", NULL, 0);
    CHECK(m != NULL && m->w == 3 && m->h == 2);
    if (failures) return 1;
    const fptp_t *v = m->item;
    CHECK(isinf(v[0]) && v[0] > 0);
    CHECK(isinf(v[1]) && v[1] < 0);
    CHECK(isnan(v[2]) && !signbit(v[2]));
    CHECK(isnan(v[3]) && signbit(v[3]));
    CHECK(v[4] == 0.5f);
    CHECK(v[5] == 0.0f && signbit(v[5]));
    CHECK(get_coeff_extremes_q.getter_q("extremes", NULL, 0) != NULL);
    return check_status();
}
