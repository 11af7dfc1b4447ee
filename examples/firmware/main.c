/*
 * The firmware: a small every-layer model and four test inputs compiled in,
 * run in each number format that the library offers, with every layer's
 * output printed exactly (floats as their bits in hex, fixed-point items in
 * decimal with the exponent).
 *
 * The same source builds for the device (Cortex-M4F, output through
 * semihosting) and for the host; CTest requires the two outputs to be
 * identical, byte for byte.
 */
#include <inttypes.h>
#include <stdio.h>
#include <string.h>

#include "fw_inputs.h"
#include "measure.h"
#include "network.h"

static void print_matrix(const char *label, const dl_matrix2d_t *m)
{
    printf("%s %dx%d float\n", label, m->h, m->w);
    for (int y = 0; y < m->h; y++) {
        for (int x = 0; x < m->w; x++) {
            uint32_t bits;
            memcpy(&bits, &m->item[x + m->stride * y], sizeof bits);
            printf("%s%08" PRIx32, x % 8 ? " " : x ? "\n  " : "  ", bits);
        }
        printf("\n");
    }
}

static void print_matrixq(const char *label, const dl_matrix2dq_t *m)
{
    printf("%s %dx%d exponent %d\n", label, m->h, m->w, m->exponent);
    for (int y = 0; y < m->h; y++) {
        for (int x = 0; x < m->w; x++) printf("%s%d", x % 8 ? " " : x ? "\n  " : "  ", m->itemq[y + m->stride * x]);
        printf("\n");
    }
}

int main(void)
{
    static const char *const input_names[] = {"in0", "in1", "in2", "in3"};
    network_t net;
    const char *missing = network_init(&net);
    if (missing) {
        printf("table %s missing\n", missing);
        return 1;
    }

    for (size_t i = 0; i < sizeof input_names / sizeof input_names[0]; i++) {
        const dl_matrix2d_t *in = get_coeff_fw_inputs.getter_f(input_names[i], NULL, 0);
        if (!in) {
            printf("input %s missing\n", input_names[i]);
            return 1;
        }
        printf("== input %s\n", input_names[i]);
        for (int v = 0; v < NETWORK_VARIANTS; v++) {
            measure_begin();
            network_run(&net, v, in);
            measure_end(network_variant_name[v]);
            measure_report();
            const network_trace_t *t = &net.trace[v];
            for (int k = 0; k < t->count; k++) {
                char label[48];
                snprintf(label, sizeof label, "%s %s", network_variant_name[v], t->step[k].name);
                if (t->step[k].f) print_matrix(label, t->step[k].f);
                else print_matrixq(label, t->step[k].q);
            }
        }
    }
    network_free(&net);
    return 0;
}
