/*
 * Compiles with a tensor model's generated pair and checks, through the
 * exported getter record only, what firmware would read. Built once per
 * tensor mode and C standard: FETCH_MODE 3 is -3d (fixed-point filter banks,
 * getter_3dq), 4 is -3d -no-quantized (float filter banks, getter_3d), 5 is
 * -3d -in (8-bit images, getter_3d); the record is GETTER, declared in
 * tensors.h.
 */
#include <string.h>

#include "check.h"
#include "tensors.h"

#if FETCH_MODE == 3 || FETCH_MODE == 4
/* Element i of a filter file, in its C order, as the generator writes it. */
static float file_value(int seed, int i) { return (float)((i * 37 + seed * 11) % 101 - 50) / 8.0f; }

/* The filter files, sorted by name as the generator assigns seeds, with the
 * shape each becomes: (c,) is one position of c channels, (w, h) is
 * transposed, (h, w, c, n) keeps the filters whole. */
struct filter_entry {
    const char *name;
    int seed, n, w, h, c, two_d;
};

static const struct filter_entry filters[] = {
    {"bias", 0, 1, 1, 1, 5, 0}, {"conv", 1, 4, 2, 3, 2, 0}, {"dense", 2, 1, 3, 2, 1, 1}};

/* Where filter i's element at row y, column x, channel ch stood in the file. */
static int file_index(const struct filter_entry *e, int i, int y, int x, int ch)
{
    if (e->two_d) return x * e->h + y;
    return ((y * e->w + x) * e->c + ch) * e->n + i;
}

static void check_filters(void)
{
    for (size_t k = 0; k < sizeof filters / sizeof filters[0]; k++) {
        const struct filter_entry *e = &filters[k];
#if FETCH_MODE == 3
        const dl_matrix3dq_t *t = GETTER.getter_3dq(e->name, NULL, 0);
#else
        const dl_matrix3d_t *t = dl_get_coeff_3d(&GETTER, e->name, NULL, 0);
#endif
        CHECK(t != NULL);
        if (!t) continue;
        CHECK(t->n == e->n && t->w == e->w && t->h == e->h && t->c == e->c);
        CHECK(t->stride == e->w * e->c);
#if FETCH_MODE == 3
        /* Peak 6.25 or 5.75: exponent -12 for all three. */
        CHECK(t->exponent == -12);
#endif
        for (int i = 0; i < e->n; i++)
            for (int y = 0; y < e->h; y++)
                for (int x = 0; x < e->w; x++)
                    for (int ch = 0; ch < e->c; ch++) {
                        const float v = file_value(e->seed, file_index(e, i, y, x, ch));
                        const int at = (e->h * i + y) * t->stride + e->c * x + ch;
#if FETCH_MODE == 3
                        /* v is a multiple of 1/8, so v * 2^12 is whole; half a
                         * unit is added and the sum truncated toward zero. */
                        CHECK(t->item[at] == (int)((double)v * 4096.0 + 0.5));
#else
                        CHECK(t->item[at] == v);
#endif
                    }
    }
}
#endif

#if FETCH_MODE == 5
static void check_images(void)
{
    const dl_matrix3du_t *gray = dl_get_coeff_3du(&GETTER, "gray", NULL, 0);
    const dl_matrix3du_t *rgb = dl_get_coeff_3du(&GETTER, "rgb", NULL, 0);
    CHECK(gray && gray->n == 1 && gray->h == 3 && gray->w == 4 && gray->c == 1 && gray->stride == 4);
    CHECK(rgb && rgb->n == 1 && rgb->h == 2 && rgb->w == 2 && rgb->c == 3 && rgb->stride == 6);
    if (!gray || !rgb) return;
    for (int k = 0; k < 12; k++) {
        CHECK(gray->item[k] == k * 23);
        /* k * 50.5 - 100 truncated toward zero, then its low 8 bits. */
        CHECK(rgb->item[k] == (unsigned char)(int)((float)k * 50.5f - 100.0f));
    }
}
#endif

int main(void)
{
    const model_info_t *info = GETTER.getter_info(NULL);
    CHECK(info->word_num == 2 && strcmp(info->word_list[1], "stop") == 0);
    CHECK(GETTER.getter_f == NULL && GETTER.getter_q == NULL);
#if FETCH_MODE == 3
    CHECK(GETTER.getter_3d == NULL && GETTER.getter_3dq("nothing", NULL, 0) == NULL);
#else
    CHECK(GETTER.getter_3dq == NULL && dl_get_coeff_3d(&GETTER, "nothing", NULL, 0) == NULL);
#endif
#if FETCH_MODE == 5
    check_images();
#else
    check_filters();
#endif
    return check_status();
}
