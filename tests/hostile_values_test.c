/*
 * Values of a converted file that "%f" cannot spell arrive in the compiled
 * table as they were loaded: infinities from doubles beyond the float
 * range, NaNs with their sign, a negative zero. The fixed-point table of
 * the same file compiles too.
 */
#include <math.h>
#include <stdio.h>

#include "extremes_f.h"
#include "extremes_q.h"

int main(void)
{
    int failures = 0;
    const dl_matrix2d_t *m = get_coeff_extremes_f.getter_f("extremes", NULL, 0);
    if (m == NULL || m->w != 3 || m->h != 2) {
        fprintf(stderr, "no 3 x 2 float table\n");
        return 1;
    }
    const fptp_t *v = m->item;
    if (!(isinf(v[0]) && v[0] > 0)) failures++;
    if (!(isinf(v[1]) && v[1] < 0)) failures++;
    if (!(isnan(v[2]) && !signbit(v[2]))) failures++;
    if (!(isnan(v[3]) && signbit(v[3]))) failures++;
    if (v[4] != 0.5f) failures++;
    if (!(v[5] == 0.0f && signbit(v[5]))) failures++;
    if (get_coeff_extremes_q.getter_q("extremes", NULL, 0) == NULL) failures++;
    if (failures) fprintf(stderr, "%d checks failed\n", failures);
    return failures ? 1 : 0;
}
