/*
 * Helper of convert_bench.sh.
 *   format_baseline make DIR FILES ROWS COLS   writes FILES .npy matrices of
 *                                               deterministic floats into DIR
 *   format_baseline format FILES ROWS COLS OUT  formats the same numbers with
 *                                               fprintf("%ff, ") into OUT: the
 *                                               floor of what converting costs
 */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static float value(uint32_t *state)
{
    *state = *state * 1664525u + 1013904223u;
    return (float)((int32_t)(*state >> 8) - (1 << 23)) / (float)(1 << 22);
}

static int make(const char *dir, int files, int rows, int cols)
{
    char header[128];
    int len =
        snprintf(header, sizeof header, "{'descr': '<f4', 'fortran_order': False, 'shape': (%d, %d), }", rows, cols);
    while ((10 + len + 1) % 64) header[len++] = ' ';
    header[len++] = '\n';
    uint32_t state = 1;
    for (int i = 0; i < files; i++) {
        char path[4096];
        snprintf(path, sizeof path, "%s/m%03d.npy", dir, i);
        FILE *f = fopen(path, "wb");
        if (!f) {
            perror(path);
            return 1;
        }
        const unsigned char prefix[10] = {
            0x93, 'N', 'U', 'M', 'P', 'Y', 1, 0, (unsigned char)(len & 0xff), (unsigned char)(len >> 8)};
        fwrite(prefix, 1, sizeof prefix, f);
        fwrite(header, 1, (size_t)len, f);
        for (long k = 0; k < (long)rows * cols; k++) {
            float v = value(&state);
            fwrite(&v, sizeof v, 1, f);
        }
        fclose(f);
    }
    return 0;
}

static int format(int files, int rows, int cols, const char *out)
{
    FILE *f = fopen(out, "w");
    if (!f) {
        perror(out);
        return 1;
    }
    uint32_t state = 1;
    for (long k = 0; k < (long)files * rows * cols; k++) fprintf(f, "%ff, ", (double)value(&state));
    return fclose(f) != 0;
}

int main(int argc, char **argv)
{
    if (argc == 6 && strcmp(argv[1], "make") == 0) return make(argv[2], atoi(argv[3]), atoi(argv[4]), atoi(argv[5]));
    if (argc == 6 && strcmp(argv[1], "format") == 0)
        return format(atoi(argv[2]), atoi(argv[3]), atoi(argv[4]), argv[5]);
    fprintf(stderr, "usage: %s make DIR FILES ROWS COLS | format FILES ROWS COLS OUT\n", argv[0]);
    return 2;
}
