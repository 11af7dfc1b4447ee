/*
 * The wine classifier of make_model.py in the library's three number
 * formats, against PyTorch's classes for every sample:
 *
 *   wine <data directory>      (inputs.npy, torch.npy, twin_q.npy)
 *
 * Each PyTorch module is one library call, named beside it below. The
 * fixed-point scores must also equal, item for item and exponent for
 * exponent, what the exporter's NumPy twin computed (twin_q.npy). Exit
 * status 1 when an agreement falls below its bound or a score differs.
 */
#include <stdio.h>
#include <stdlib.h>

#include "wine_f.h"
#include "wine_net.h"
#include "wine_q.h"
#include "wine_qw.h"

/* Float rounding can only move near-ties; quantisation may move a few more. */
#define MIN_FLOAT_AGREEMENT     99.0
#define MIN_QUANTISED_AGREEMENT 97.0

struct tables {
    const void *w1, *b1, *w2, *b2, *w3, *b3; /* fully connected: NAME_w, NAME_b */
    const void *bn[2][4];                    /* batch norm: offset, scale, mean, root of the variance */
};

enum format { FLOAT, QUANTISED_WEIGHTS, FIXED_POINT };

/* Every table of one generated pair, fetched by name, each from the getter
 * of its number format. */
static struct tables fetch(const model_coeff_getter_t *m, enum format format)
{
    static const char *names[] = {"fc1_w",      "fc1_b",      "fc2_w",     "fc2_b",    "fc3_w",
                                  "fc3_b",      "bn1_offset", "bn1_scale", "bn1_mean", "bn1_var",
                                  "bn2_offset", "bn2_scale",  "bn2_mean",  "bn2_var"};
    const void *found[14];
    for (int i = 0; i < 14; i++) {
        /* In the quantised-weight pair only the weights are fixed point. */
        const int fixed = format == FIXED_POINT || (format == QUANTISED_WEIGHTS && i < 6 && i % 2 == 0);
        if (fixed ? !m->getter_q : !m->getter_f) found[i] = NULL;
        else if (fixed) found[i] = m->getter_q(names[i], NULL, 0);
        else found[i] = m->getter_f(names[i], NULL, 0);
        if (!found[i]) {
            fprintf(stderr, "wine: no table %s\n", names[i]);
            exit(2);
        }
    }
    struct tables t = {found[0], found[1], found[2], found[3], found[4], found[5], {{0}}};
    for (int i = 0; i < 8; i++) t.bn[i / 4][i % 4] = found[6 + i];
    return t;
}

static int argmax(const fptp_t *v, int n)
{
    int best = 0;
    for (int i = 1; i < n; i++)
        if (v[i] > v[best]) best = i;
    return best;
}

/* nn.Linear -> dl_fully_connect_layer; nn.BatchNorm1d -> dl_batch_normalize
 * with the *_var table, which kelvane stored as sqrt(variance + 0.001);
 * nn.ReLU -> dl_relu_noclip. */
static int classify_float(const struct tables *t, dl_matrix2d_t *in, dl_matrix2d_t *h1, dl_matrix2d_t *h2,
                          dl_matrix2d_t *out)
{
    dl_fully_connect_layer(in, t->w1, t->b1, h1);
    dl_batch_normalize(h1, t->bn[0][0], t->bn[0][1], t->bn[0][2], t->bn[0][3]);
    dl_relu_noclip(h1, h1);
    dl_fully_connect_layer(h1, t->w2, t->b2, h2);
    dl_batch_normalize(h2, t->bn[1][0], t->bn[1][1], t->bn[1][2], t->bn[1][3]);
    dl_relu_noclip(h2, h2);
    dl_fully_connect_layer(h2, t->w3, t->b3, out);
    return argmax(out->item, FC3_OUTPUTS);
}

/* nn.Linear with 16-bit weights -> dl_fully_connect_layer_quantised_weight. */
static int classify_quantised_weights(const struct tables *t, dl_matrix2d_t *in, dl_matrix2d_t *h1, dl_matrix2d_t *h2,
                                      dl_matrix2d_t *out)
{
    dl_fully_connect_layer_quantised_weight(in, t->w1, t->b1, h1);
    dl_batch_normalize(h1, t->bn[0][0], t->bn[0][1], t->bn[0][2], t->bn[0][3]);
    dl_relu_noclip(h1, h1);
    dl_fully_connect_layer_quantised_weight(h1, t->w2, t->b2, h2);
    dl_batch_normalize(h2, t->bn[1][0], t->bn[1][1], t->bn[1][2], t->bn[1][3]);
    dl_relu_noclip(h2, h2);
    dl_fully_connect_layer_quantised_weight(h2, t->w3, t->b3, out);
    return argmax(out->item, FC3_OUTPUTS);
}

/* Fixed point throughout: the input quantised once, then the _q twins of
 * the layers with the shifts that make_model.py calibrated. */
static int classify_fixed(const struct tables *t, const dl_matrix2d_t *in, dl_matrix2dq_t *q_in, dl_matrix2dq_t *h1,
                          dl_matrix2dq_t *h2, dl_matrix2dq_t *out)
{
    dl_matrixq_from_matrix2d(in, q_in);
    dl_fully_connect_layer_q(q_in, t->w1, t->b1, h1, FC1_SHIFT);
    dl_batch_normalize_q(h1, t->bn[0][0], t->bn[0][1], t->bn[0][2], t->bn[0][3], BN1_SHIFT);
    dl_relu_noclip_q(h1, h1);
    dl_fully_connect_layer_q(h1, t->w2, t->b2, h2, FC2_SHIFT);
    dl_batch_normalize_q(h2, t->bn[1][0], t->bn[1][1], t->bn[1][2], t->bn[1][3], BN2_SHIFT);
    dl_relu_noclip_q(h2, h2);
    dl_fully_connect_layer_q(h2, t->w3, t->b3, out, FC3_SHIFT);
    int best = 0;
    for (int i = 1; i < FC3_OUTPUTS; i++)
        if (out->itemq[out->stride * i] > out->itemq[out->stride * best]) best = i;
    return best;
}

static dl_matrix2d_t *load(const char *dir, const char *name)
{
    char path[1024];
    snprintf(path, sizeof path, "%s/%s", dir, name);
    dl_matrix2d_t *m = dl_matrix2d_from_numpy_file(path);
    if (!m) exit(2); /* the loader has said why */
    return m;
}

/* The fixed-point layers report records that use 10 bits or fewer, or that
 * saturate in more than a tenth of their items, on stderr by default. Here
 * they are counted and reported once instead. dl_set_sanity_handler(NULL,
 * NULL) restores stderr; dl_sanity_to_stream with a FILE * routes them to
 * that stream; a handler that does nothing silences them. */
static void count_warning(const char *text, void *count)
{
    (void)text;
    ++*(int *)count;
}

int main(int argc, char **argv)
{
    const char *dir = argc > 1 ? argv[1] : ".";
    dl_matrix2d_t *inputs = load(dir, "inputs.npy"), *torch = load(dir, "torch.npy"), *twin = load(dir, "twin_q.npy");
    const int n = inputs->h;
    if (inputs->w != FC1_INPUTS || torch->w != n || twin->h != n || twin->w != FC3_OUTPUTS + 1) {
        fprintf(stderr, "wine: %s holds inconsistent shapes\n", dir);
        return 2;
    }
    int warnings = 0;
    dl_set_sanity_handler(count_warning, &warnings);

    const struct tables tf = fetch(&get_coeff_wine_f, FLOAT), tq = fetch(&get_coeff_wine_q, FIXED_POINT),
                        tqw = fetch(&get_coeff_wine_qw, QUANTISED_WEIGHTS);
    dl_matrix2d_t *h1 = dl_matrix_alloc(FC1_OUTPUTS, 1), *h2 = dl_matrix_alloc(FC2_OUTPUTS, 1);
    dl_matrix2d_t *out = dl_matrix_alloc(FC3_OUTPUTS, 1);
    dl_matrix2dq_t *q_in = dl_matrixq_alloc(FC1_INPUTS, 1), *q1 = dl_matrixq_alloc(FC1_OUTPUTS, 1);
    dl_matrix2dq_t *q2 = dl_matrixq_alloc(FC2_OUTPUTS, 1), *qout = dl_matrixq_alloc(FC3_OUTPUTS, 1);
    int agree[3] = {0, 0, 0}, differ = 0;
    for (int i = 0; i < n; i++) {
        /* A record over the caller's floats: one row, no copy. */
        dl_matrix2d_t in = {.w = FC1_INPUTS,
                            .h = 1,
                            .stride = FC1_INPUTS,
                            .flags = DL_MF_FOREIGNDATA,
                            .item = inputs->item + inputs->stride * i};
        const int expected = (int)torch->item[i];
        agree[0] += classify_float(&tf, &in, h1, h2, out) == expected;
        agree[1] += classify_quantised_weights(&tqw, &in, h1, h2, out) == expected;
        agree[2] += classify_fixed(&tq, &in, q_in, q1, q2, qout) == expected;
        const fptp_t *want = twin->item + twin->stride * i;
        int same = qout->exponent == (int)want[FC3_OUTPUTS];
        for (int k = 0; k < FC3_OUTPUTS; k++) same &= qout->itemq[qout->stride * k] == (int)want[k];
        if (!same && differ++ < 3) printf("FAIL sample %d: fixed-point scores differ from the NumPy twin's\n", i);
    }

    static const char *formats[] = {"float", "quantised weights", "fixed point"};
    int failed = differ != 0;
    for (int f = 0; f < 3; f++) {
        const double percent = 100.0 * agree[f] / n, bound = f ? MIN_QUANTISED_AGREEMENT : MIN_FLOAT_AGREEMENT;
        printf("%-18s agrees with PyTorch on %5.1f %% of %d samples\n", formats[f], percent, n);
        if (percent < bound) {
            printf("FAIL %s: below %.1f %%\n", formats[f], bound);
            failed = 1;
        }
    }
    printf("fixed-point scores equal the NumPy twin's on %d of %d samples; %d sanity warnings\n", n - differ, n,
           warnings);
    dl_matrix_free(inputs);
    dl_matrix_free(torch);
    dl_matrix_free(twin);
    dl_matrix_free(h1);
    dl_matrix_free(h2);
    dl_matrix_free(out);
    dl_matrixq_free(q_in);
    dl_matrixq_free(q1);
    dl_matrixq_free(q2);
    dl_matrixq_free(qout);
    return failed;
}
