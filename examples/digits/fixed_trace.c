/*
 * fixed_trace: the fixed-point variants of digits (lstm_q, conv_q) on the
 * first images of the test split, with shifts from the command line, printing
 * the records they end with: every item and the exponent.
 *
 *   fixed_trace images.npy count lstm,lstm_fc,fc1,bn1,fc2 [more shift sets...]
 *
 * After a comment line, each shift set prints a line "shifts a b c d e",
 * then per image
 *   lstm <image> c|h|scores <exponent> <items...>
 *   conv <image> fc1|bn1|scores <exponent> <items...>
 * The exporter's NumPy twin of the fixed-point arithmetic is compared with
 * this output (python/tests/fixtures/digits_fixed_trace.txt); the test
 * examples.digits_trace keeps that file equal to what the library prints.
 */
#include <stdio.h>
#include <stdlib.h>

#include "conv_net.h"
#include "conv_q.h"
#include "lstm_net.h"
#include "lstm_q.h"

#define SIDE 8

struct shifts {
    int lstm, lstm_fc, fc1, bn1, fc2;
};

static const dl_matrix2dq_t *need(const model_coeff_getter_t *model, const char *name)
{
    const dl_matrix2dq_t *m = model->getter_q(name, NULL, 0);
    if (!m) {
        fprintf(stderr, "fixed_trace: no table %s\n", name);
        exit(2);
    }
    return m;
}

static void print_record(const char *net, int image, const char *name, const dl_matrix2dq_t *m)
{
    printf("%s %d %s %d", net, image, name, m->exponent);
    for (int x = 0; x < m->w; x++) printf(" %d", m->itemq[m->stride * x]);
    printf("\n");
}

static void ignore(const char *text, void *arg)
{
    (void)text;
    (void)arg;
}

static void lstm(int image, const fptp_t *pixels, struct shifts s)
{
    const model_coeff_getter_t *m = &get_coeff_lstm_q;
    dl_matrix2d_t whole = {.w = SIDE, .h = SIDE, .stride = SIDE, .flags = DL_MF_FOREIGNDATA, .item = (fptp_t *)pixels};
    dl_matrix2dq_t *q = dl_matrixq_from_matrix2d(&whole, NULL);
    dl_matrix2dq_t *c = dl_matrixq_alloc(LSTM_UNITS, 1), *h = dl_matrixq_alloc(LSTM_UNITS, 1);
    dl_matrix2dq_t *scores = dl_matrixq_alloc(LSTM_FC_OUTPUTS, 1), *step = NULL;
    c->exponent = h->exponent = -31;
    for (int t = 0; t < SIDE; t++) {
        step = dl_matrixq_slice(q, 0, t, SIDE, 1, step);
        dl_basic_lstm_layer_q(step, c, h, need(m, "lstm_w"), need(m, "lstm_b"), s.lstm);
    }
    dl_fully_connect_layer_q(h, need(m, "lstm_fc_w"), need(m, "lstm_fc_b"), scores, s.lstm_fc);
    print_record("lstm", image, "c", c);
    print_record("lstm", image, "h", h);
    print_record("lstm", image, "scores", scores);
    dl_matrixq_free(step);
    dl_matrixq_free(q);
    dl_matrixq_free(c);
    dl_matrixq_free(h);
    dl_matrixq_free(scores);
}

static void conv(int image, const fptp_t *pixels, struct shifts s)
{
    const model_coeff_getter_t *m = &get_coeff_conv_q;
    dl_matrix2d_t whole = {.w = SIDE, .h = SIDE, .stride = SIDE, .flags = DL_MF_FOREIGNDATA, .item = (fptp_t *)pixels};
    dl_matrix2d_t *bias = dl_matrix2d_from_matrixq(need(m, "conv_b"), NULL);
    dl_matrix2d_t *features =
        dl_basic_conv_layer_quantised_weight(&whole, need(m, "conv_w"), bias, CONV_FILTER_W, CONV_FILTER_H,
                                             CONV_OUT_CHANNELS, CONV_STRIDE_X, CONV_STRIDE_Y, CONV_PADDING, NULL);
    dl_relu(features, RELU_CLIP, features);
    dl_matrix2dq_t *features_q = dl_matrixq_from_matrix2d(features, NULL);
    dl_matrix2dq_t *hidden = dl_matrixq_alloc(FC1_OUTPUTS, 1), *scores = dl_matrixq_alloc(FC2_OUTPUTS, 1);
    dl_fully_connect_layer_q(features_q, need(m, "fc1_w"), need(m, "fc1_b"), hidden, s.fc1);
    print_record("conv", image, "fc1", hidden);
    dl_batch_normalize_q(hidden, need(m, "bn1_offset"), need(m, "bn1_scale"), need(m, "bn1_mean"), need(m, "bn1_var"),
                         s.bn1);
    print_record("conv", image, "bn1", hidden);
    dl_relu_q(hidden, RELU_CLIP, hidden);
    dl_fully_connect_layer_q(hidden, need(m, "fc2_w"), need(m, "fc2_b"), scores, s.fc2);
    print_record("conv", image, "scores", scores);
    dl_matrix_free(bias);
    dl_matrix_free(features);
    dl_matrixq_free(features_q);
    dl_matrixq_free(hidden);
    dl_matrixq_free(scores);
}

int main(int argc, char **argv)
{
    if (argc < 4) {
        fprintf(stderr, "usage: fixed_trace images.npy count lstm,lstm_fc,fc1,bn1,fc2...\n");
        return 2;
    }
    dl_matrix2d_t *images = dl_matrix2d_from_numpy_file(argv[1]);
    if (!images) return 2;
    int count = atoi(argv[2]);
    if (count > images->h) count = images->h;
    /* Deliberately poor shifts are traced too: their warnings are expected. */
    dl_set_sanity_handler(ignore, NULL);
    printf("# written by examples/digits/fixed_trace (ctest -R examples.digits_trace)\n");
    for (int a = 3; a < argc; a++) {
        struct shifts s;
        if (sscanf(argv[a], "%d,%d,%d,%d,%d", &s.lstm, &s.lstm_fc, &s.fc1, &s.bn1, &s.fc2) != 5) {
            fprintf(stderr, "fixed_trace: %s is not five shifts\n", argv[a]);
            return 2;
        }
        printf("shifts %d %d %d %d %d\n", s.lstm, s.lstm_fc, s.fc1, s.bn1, s.fc2);
        for (int i = 0; i < count; i++) {
            lstm(i, images->item + images->stride * i, s);
            conv(i, images->item + images->stride * i, s);
        }
    }
    dl_matrix_free(images);
    return 0;
}
