/*
 * The demo consumer: the same model converted twice (fixed point and float)
 * and compiled in; everything is fetched by name through the getter records,
 * as firmware does.
 */
#include <stdio.h>

#include "demo_f.h"
#include "demo_q.h"

static const char *const names[] = {"dense1_w", "dense1_b", "bn1_offset", "bn1_scale",
                                    "bn1_mean", "pop_var",  "dense2_w",   "dense2_b"};

int main(void)
{
    const model_info_t *info = get_coeff_demo_q.getter_info(NULL);
    printf("model \"%s\": %d wake words\n", info->info_str, info->word_num);
    for (int i = 0; i < info->word_num; i++)
        printf("  %-5s window %d, thresholds %.2f / %.2f\n", info->word_list[i], info->win_list[i],
               (double)info->thresh_list[2 * i], (double)info->thresh_list[2 * i + 1]);

    printf("%-10s %7s %9s %12s %12s %10s\n", "table", "shape", "exponent", "float[0]", "fixed[0]", "max error");
    for (size_t i = 0; i < sizeof names / sizeof names[0]; i++) {
        const dl_matrix2d_t *f = get_coeff_demo_f.getter_f(names[i], NULL, 0);
        const dl_matrix2dq_t *q = get_coeff_demo_q.getter_q(names[i], NULL, 0);
        if (!f || !q) {
            printf("%s: missing\n", names[i]);
            return 1;
        }
        dl_matrix2d_t *back = dl_matrix2d_from_matrixq(q, NULL);
        float worst = 0.0f;
        for (int y = 0; y < f->h; y++)
            for (int x = 0; x < f->w; x++) {
                float d = back->item[x + back->stride * y] - f->item[x + f->stride * y];
                if (d < 0) d = -d;
                if (d > worst) worst = d;
            }
        char shape[16];
        snprintf(shape, sizeof shape, "%dx%d", f->h, f->w);
        printf("%-10s %7s %9d %12f %12f %10.6f\n", names[i], shape, q->exponent, (double)f->item[0],
               (double)back->item[0], (double)worst);
        dl_matrix_free(back);
    }
    return 0;
}
