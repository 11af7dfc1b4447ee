/*
 * The firmware: the bundled digit recognisers (examples/digits) and their
 * test split compiled in; the first images classified by both networks in
 * each number format that the library offers, with every traced layer
 * output printed exactly: floats as their bits in hex, fixed-point items in
 * decimal with the exponent.
 *
 * The same source builds for the device (Cortex-M4F, output through
 * semihosting) and for the host; CTest requires the two outputs to be
 * identical, byte for byte.
 */
#include <inttypes.h>
#include <stdio.h>
#include <string.h>

#include "digits_test.h"
#include "measure.h"
#include "network.h"

#define IMAGES 8 /* how many test images the firmware classifies */

/* The library runs without a heap: every record and temporary comes from this
 * arena. Too small, and a layer stops with "out of memory", which fails the
 * run. Its use goes to stderr: the records made at start-up, then each run's
 * peak of temporaries above them (a device's figures are its own: records
 * hold 32-bit pointers there). */
#define ARENA_BYTES (64 * 1024)
static unsigned char arena_buffer[ARENA_BYTES] __attribute__((aligned(8)));

static void print_matrix(const char *run, const char *name, const dl_matrix2d_t *m)
{
    printf("  %s %s %dx%d float\n", run, name, m->h, m->w);
    for (int y = 0; y < m->h; y++)
        for (int x = 0; x < m->w; x++) {
            uint32_t bits;
            memcpy(&bits, &m->item[x + m->stride * y], sizeof bits);
            printf("%s%08" PRIx32 "%s", x % 8 ? " " : "    ", bits, x % 8 == 7 || x == m->w - 1 ? "\n" : "");
        }
}

static void print_matrixq(const char *run, const char *name, const dl_matrix2dq_t *m)
{
    printf("  %s %s %dx%d exponent %d\n", run, name, m->h, m->w, m->exponent);
    for (int y = 0; y < m->h; y++)
        for (int x = 0; x < m->w; x++)
            printf("%s%d%s", x % 8 ? " " : "    ", m->itemq[y + m->stride * x],
                   x % 8 == 7 || x == m->w - 1 ? "\n" : "");
}

int main(void)
{
    dl_arena_t arena;
    dl_arena_init(&arena, arena_buffer, sizeof arena_buffer);
    dl_use_arena(&arena);

    const model_coeff_getter_t *test = &get_coeff_digits_test;
    const dl_matrix2d_t *images = test->getter_f("images", NULL, 0);
    const dl_matrix2d_t *labels = test->getter_f("labels", NULL, 0);
    const dl_matrix2d_t *torch[3] = {test->getter_f("lstm_torch", NULL, 0), test->getter_f("conv_torch", NULL, 0),
                                     test->getter_f("cnn_torch", NULL, 0)};
    const char *missing = network_init();
    if (!images || !labels || !torch[0] || !torch[1] || !torch[2] || missing) {
        printf("table %s missing\n", missing ? missing : "of the test split");
        return 1;
    }
    if (images->w != NETWORK_SIDE * NETWORK_SIDE || images->h < IMAGES) {
        printf("test images: %d of %d pixels, need %d of %d\n", images->h, images->w, IMAGES,
               NETWORK_SIDE * NETWORK_SIDE);
        return 1;
    }

    const size_t records = arena.top;
    size_t temporaries[NETWORK_RUNS] = {0};
    for (int i = 0; i < IMAGES; i++) {
        const fptp_t *image = &images->item[images->stride * i];
        printf("image %d: digit %d\n", i, (int)labels->item[i]);
        for (int r = 0; r < NETWORK_RUNS; r++) {
            dl_arena_reset_peak(&arena);
            measure_begin();
            int digit = network_classify(r, image);
            measure_end(network_run_name[r]);
            if (dl_arena_peak(&arena) - records > temporaries[r]) temporaries[r] = dl_arena_peak(&arena) - records;
            measure_report();
            printf("  %s: %d (PyTorch %d)\n", network_run_name[r], digit, (int)torch[r / 3]->item[i]);
            const network_trace_t *t = network_trace(r);
            for (int k = 0; k < t->count; k++) {
                if (t->step[k].f) print_matrix(network_run_name[r], t->step[k].name, t->step[k].f);
                else print_matrixq(network_run_name[r], t->step[k].name, t->step[k].q);
            }
        }
    }
    network_free();
    fprintf(stderr, "arena records %lu of %lu bytes\n", (unsigned long)records, (unsigned long)sizeof arena_buffer);
    for (int r = 0; r < NETWORK_RUNS; r++)
        fprintf(stderr, "arena %s temporaries %lu\n", network_run_name[r], (unsigned long)temporaries[r]);
    return arena.top != 0; /* everything went back */
}
