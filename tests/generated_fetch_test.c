/*
 * Compiles with a model's generated pair and checks, through the exported
 * getter record only, what firmware would read: shapes, flags, values and the
 * model information. Built once per conversion mode and C standard; the mode
 * is told by FETCH_MODE (1 quantised, 2 float with -exclude (dense,odd)) and
 * the getter's name by GETTER.
 */
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "check.h"
#include "fetch.h"

/* The source values of the fixture model, as its generator writes them. */
static float source_value(int seed, int i, const char *name)
{
    float v = (float)((double)((i * 37 + seed * 11) % 101 - 50) / 7.0);
    if (strcmp(name, "pop_var") == 0) v = fabsf(v);
    if (strcmp(name, "zero") == 0) v = 0.0f;
    return v;
}

/* What a table must hold for a source value: the batch-norm root for pop_var. */
static float table_value(float v, const char *name)
{
    if (strcmp(name, "pop_var") == 0) return (float)sqrt((double)(v + 0.001f));
    return v;
}

/* A float table holds the value as six decimals print it. */
static float six_decimals(float v)
{
    char text[64];
    snprintf(text, sizeof text, "%f", (double)v);
    return strtof(text, NULL);
}

struct entry {
    const char *name;
    int seed, w, h;
};

/* Sorted by name, as the generator assigns seeds. */
static const struct entry entries[] = {
    {"bias", 0, 5, 1}, {"dense", 1, 5, 3}, {"odd", 2, 3, 5}, {"pop_var", 3, 4, 1}, {"tiny", 4, 1, 1}, {"zero", 5, 2, 2},
};

static void check_float(const struct entry *e, const dl_matrix2d_t *m)
{
    CHECK(m->w == e->w && m->h == e->h && m->stride == e->w);
    CHECK(m->flags == DL_MF_FOREIGNDATA);
    for (int y = 0; y < m->h; y++)
        for (int x = 0; x < m->w; x++) {
            float want = six_decimals(table_value(source_value(e->seed, y * e->w + x, e->name), e->name));
            CHECK(m->item[x + m->stride * y] == want);
        }
}

static void check_quantised(const struct entry *e, const dl_matrix2dq_t *m)
{
    CHECK(m->w == e->w && m->h == e->h && m->stride == e->h);
    CHECK(m->flags == DL_MF_FOREIGNDATA);
    const double unit = ldexp(1.0, m->exponent);
    for (int y = 0; y < m->h; y++)
        for (int x = 0; x < m->w; x++) {
            double want = table_value(source_value(e->seed, y * e->w + x, e->name), e->name);
            double got = m->itemq[y + m->stride * x] * unit;
            /* Half a unit is added before truncation toward zero: positive
             * values round to nearest, negative ones land up to 1.5 units
             * above the value, never below it. */
            if (want >= 0) CHECK(fabs(got - want) <= 0.5 * unit);
            else CHECK(got >= want && got - want < 1.5 * unit);
        }
}

static void check_model_info(const model_info_t *info)
{
    CHECK(info->word_num == 2 && strcmp(info->word_list[0], "hey") == 0 && strcmp(info->word_list[1], "stop") == 0);
    CHECK(info->win_list[0] == 5 && info->win_list[1] == 3);
    CHECK(info->thresh_list[0] == 0.72f && info->thresh_list[1] == 0.65f && info->thresh_list[2] == 0.8f &&
          info->thresh_list[3] == 0.7f);
    CHECK(strcmp(info->info_str, "kws_v1_hey_5_0.72_0.65_stop_x_0.8_0.7") == 0);
}

int main(void)
{
    const model_coeff_getter_t *g = &GETTER;
    check_model_info(g->getter_info(NULL));
    for (size_t i = 0; i < sizeof entries / sizeof entries[0]; i++) {
        const struct entry *e = &entries[i];
        const int excluded = strcmp(e->name, "dense") == 0 || strcmp(e->name, "odd") == 0;
        if (FETCH_MODE == 1 || excluded) {
            const dl_matrix2dq_t *q = g->getter_q(e->name, NULL, 0);
            CHECK(q != NULL);
            if (q) check_quantised(e, q);
            if (FETCH_MODE == 2) CHECK(g->getter_f(e->name, NULL, 0) == NULL);
        } else {
            const dl_matrix2d_t *f = g->getter_f(e->name, NULL, 0);
            CHECK(f != NULL);
            if (f) check_float(e, f);
            CHECK(g->getter_q(e->name, NULL, 0) == NULL);
        }
    }
    if (FETCH_MODE == 1) CHECK(g->getter_f == NULL);
    CHECK(g->getter_3d == NULL && g->getter_3dq == NULL);
    CHECK(g->getter_q("no_such_table", NULL, 0) == NULL);
    return check_status();
}
