/*
 * digits: the two networks of train.py and the CNN of train_cnn.py, converted
 * by kelvane at build time,
 * run on the 360 test images of the committed split in every variant of the
 * library, and compared with the labels and with PyTorch's predictions.
 *
 *   digits [--check] [test directory]
 *
 * Each variant reads its coefficients from one generated pair only, as a
 * firmware image that ships one of them would:
 *   float              lstm_f, conv_f    (kelvane -no-quantized)
 *   quantised weights  lstm_qw, conv_qw  (-no-quantized -exclude (weights...):
 *                                         16-bit weights, float biases and
 *                                         batch-norm constants)
 *   fixed point        lstm_q, conv_q    (default mode: everything 16-bit;
 *                                         the shifts chosen by train.py)
 * The CNN (cnn.c) runs on tensors from two pairs: cnn_f (-3d -no-quantized)
 * in float, cnn_q (-3d) in the other two variants.
 * --check turns the table into a test: float must agree with PyTorch on at
 * least 98 % of the images, each quantised variant on at least 99 % (the
 * calibrated shifts reach 99.7 % and 100 %), and each quantised variant's
 * accuracy must stay within 3 points of float.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "cnn.h"
#include "conv_f.h"
#include "conv_net.h"
#include "conv_q.h"
#include "conv_qw.h"
#include "lstm_f.h"
#include "lstm_net.h"
#include "lstm_q.h"
#include "lstm_qw.h"
#include "net_util.h"

#define SIDE    8 /* images are SIDE x SIDE pixels, 0 to 1 */
#define CLASSES 10

#define MIN_FLOAT_AGREEMENT     98.0
#define MIN_QUANTISED_AGREEMENT 99.0
#define MAX_QUANTISED_LOSS      3.0

/* Every table a variant needs, fetched once by name; a missing one is fatal. */
static const dl_matrix2d_t *need_f(const model_coeff_getter_t *model, const char *name)
{
    const dl_matrix2d_t *m = net_table_f(model, name);
    if (!m) {
        fprintf(stderr, "digits: no float table %s\n", name);
        exit(2);
    }
    return m;
}

static const dl_matrix2dq_t *need_q(const model_coeff_getter_t *model, const char *name)
{
    const dl_matrix2dq_t *m = net_table_q(model, name);
    if (!m) {
        fprintf(stderr, "digits: no fixed-point table %s\n", name);
        exit(2);
    }
    return m;
}

/* A weight prepared once for the products (dl_matrixq_prepare): the same
 * bits, faster where the processor has a kernel for the packed form. Kept
 * for the life of the program, as the other records of the variants are. */
static const dl_matrix2dq_t *need_weight(const model_coeff_getter_t *model, const char *name)
{
    const dl_matrix2dq_t *m = dl_matrixq_prepare(need_q(model, name));
    if (!m) {
        fprintf(stderr, "digits: no memory to prepare %s\n", name);
        exit(2);
    }
    return m;
}

/* ---- LSTM: the rows of the image are the time steps --------------------- */

static int lstm_float(const fptp_t *image)
{
    static const dl_matrix2d_t *w, *b, *fc_w, *fc_b;
    static dl_matrix2d_t *c, *h, *scores;
    if (!w) {
        const model_coeff_getter_t *m = &get_coeff_lstm_f;
        w = need_f(m, "lstm_w");
        b = need_f(m, "lstm_b");
        fc_w = need_f(m, "lstm_fc_w");
        fc_b = need_f(m, "lstm_fc_b");
        c = dl_matrix_alloc(LSTM_UNITS, 1);
        h = dl_matrix_alloc(LSTM_UNITS, 1);
        scores = dl_matrix_alloc(CLASSES, 1);
    }
    dl_matrix_zero(c);
    dl_matrix_zero(h);
    for (int t = 0; t < SIDE; t++) {
        dl_matrix2d_t row = net_view(image + SIDE * t, SIDE, 1);
        dl_basic_lstm_layer(&row, c, h, w, b);
    }
    dl_fully_connect_layer(h, fc_w, fc_b, scores);
    return net_argmax_f(scores);
}

static int lstm_quantised_weights(const fptp_t *image)
{
    static const dl_matrix2dq_t *w, *fc_w;
    static const dl_matrix2d_t *b, *fc_b;
    static dl_matrix2d_t *c, *h, *scores;
    if (!w) {
        const model_coeff_getter_t *m = &get_coeff_lstm_qw;
        w = need_weight(m, "lstm_w");
        b = need_f(m, "lstm_b");
        fc_w = need_weight(m, "lstm_fc_w");
        fc_b = need_f(m, "lstm_fc_b");
        c = dl_matrix_alloc(LSTM_UNITS, 1);
        h = dl_matrix_alloc(LSTM_UNITS, 1);
        scores = dl_matrix_alloc(CLASSES, 1);
    }
    dl_matrix_zero(c);
    dl_matrix_zero(h);
    for (int t = 0; t < SIDE; t++) {
        dl_matrix2d_t row = net_view(image + SIDE * t, SIDE, 1);
        dl_basic_lstm_layer_quantised_weights(&row, c, h, w, b);
    }
    /* A fully connected layer with a fixed-point weight: product, then bias. */
    dl_matrix_matrixq_dot(h, fc_w, scores);
    dl_matrix_add(scores, fc_b, scores);
    return net_argmax_f(scores);
}

static int lstm_fixed(const fptp_t *image)
{
    static const dl_matrix2dq_t *w, *b, *fc_w, *fc_b;
    static dl_matrix2dq_t *pixels, *step, *c, *h, *scores;
    if (!w) {
        const model_coeff_getter_t *m = &get_coeff_lstm_q;
        w = need_weight(m, "lstm_w");
        b = need_q(m, "lstm_b");
        fc_w = need_weight(m, "lstm_fc_w");
        fc_b = need_q(m, "lstm_fc_b");
        pixels = dl_matrixq_alloc(SIDE, SIDE);
        c = dl_matrixq_alloc(LSTM_UNITS, 1);
        h = dl_matrixq_alloc(LSTM_UNITS, 1);
        scores = dl_matrixq_alloc(CLASSES, 1);
    }
    /* The image is quantised as a whole, so that a blank row shares the
     * exponent of the others instead of getting one of its own. */
    dl_matrix2d_t whole = net_view(image, SIDE, SIDE);
    dl_matrixq_from_matrix2d(&whole, pixels);
    /* Zero states at the exponent of a fresh record: the first step joins
     * them to the input without raising the input's exponent. */
    dl_matrixq_zero(c);
    dl_matrixq_zero(h);
    c->exponent = h->exponent = -31;
    for (int t = 0; t < SIDE; t++) {
        step = dl_matrixq_slice(pixels, 0, t, SIDE, 1, step);
        dl_basic_lstm_layer_q(step, c, h, w, b, LSTM_SHIFT);
    }
    dl_fully_connect_layer_q(h, fc_w, fc_b, scores, LSTM_FC_SHIFT);
    return net_argmax_q(scores);
}

/* ---- Convolution, then two fully connected layers with batch norm ------- */

static int conv_float(const fptp_t *image)
{
    static const dl_matrix2d_t *conv_w, *conv_b, *fc1_w, *fc1_b, *offset, *scale, *mean, *root, *fc2_w, *fc2_b;
    static dl_matrix2d_t *features, *hidden, *scores;
    if (!conv_w) {
        const model_coeff_getter_t *m = &get_coeff_conv_f;
        conv_w = need_f(m, "conv_w");
        conv_b = need_f(m, "conv_b");
        fc1_w = need_f(m, "fc1_w");
        fc1_b = need_f(m, "fc1_b");
        offset = need_f(m, "bn1_offset");
        scale = need_f(m, "bn1_scale");
        mean = need_f(m, "bn1_mean");
        root = need_f(m, "bn1_var"); /* kelvane stored sqrt(variance + 0.001) */
        fc2_w = need_f(m, "fc2_w");
        fc2_b = need_f(m, "fc2_b");
        features = dl_matrix_alloc(CONV_OUT_SIZE, 1);
        hidden = dl_matrix_alloc(FC1_OUTPUTS, 1);
        scores = dl_matrix_alloc(CLASSES, 1);
    }
    dl_matrix2d_t whole = net_view(image, SIDE, SIDE);
    dl_basic_conv_layer(&whole, conv_w, conv_b, CONV_FILTER_W, CONV_FILTER_H, CONV_OUT_CHANNELS, CONV_STRIDE_X,
                        CONV_STRIDE_Y, CONV_PADDING, features);
    dl_relu(features, RELU_CLIP, features);
    dl_fully_connect_layer(features, fc1_w, fc1_b, hidden);
    dl_batch_normalize(hidden, offset, scale, mean, root);
    dl_relu(hidden, RELU_CLIP, hidden);
    dl_fully_connect_layer(hidden, fc2_w, fc2_b, scores);
    return net_argmax_f(scores);
}

static int conv_quantised_weights(const fptp_t *image)
{
    static const dl_matrix2dq_t *conv_w, *fc1_w, *fc2_w;
    static const dl_matrix2d_t *conv_b, *fc1_b, *offset, *scale, *mean, *root, *fc2_b;
    static dl_matrix2d_t *features, *hidden, *scores;
    if (!conv_w) {
        const model_coeff_getter_t *m = &get_coeff_conv_qw;
        conv_w = need_weight(m, "conv_w");
        conv_b = need_f(m, "conv_b");
        fc1_w = need_weight(m, "fc1_w");
        fc1_b = need_f(m, "fc1_b");
        offset = need_f(m, "bn1_offset");
        scale = need_f(m, "bn1_scale");
        mean = need_f(m, "bn1_mean");
        root = need_f(m, "bn1_var");
        fc2_w = need_weight(m, "fc2_w");
        fc2_b = need_f(m, "fc2_b");
        features = dl_matrix_alloc(CONV_OUT_SIZE, 1);
        hidden = dl_matrix_alloc(FC1_OUTPUTS, 1);
        scores = dl_matrix_alloc(CLASSES, 1);
    }
    dl_matrix2d_t whole = net_view(image, SIDE, SIDE);
    dl_basic_conv_layer_quantised_weight(&whole, conv_w, conv_b, CONV_FILTER_W, CONV_FILTER_H, CONV_OUT_CHANNELS,
                                         CONV_STRIDE_X, CONV_STRIDE_Y, CONV_PADDING, features);
    dl_relu(features, RELU_CLIP, features);
    dl_matrix_matrixq_dot(features, fc1_w, hidden);
    dl_matrix_add(hidden, fc1_b, hidden);
    dl_batch_normalize(hidden, offset, scale, mean, root);
    dl_relu(hidden, RELU_CLIP, hidden);
    dl_matrix_matrixq_dot(hidden, fc2_w, scores);
    dl_matrix_add(scores, fc2_b, scores);
    return net_argmax_f(scores);
}

static int conv_fixed(const fptp_t *image)
{
    static const dl_matrix2dq_t *conv_w, *fc1_w, *fc1_b, *offset, *scale, *mean, *root, *fc2_w, *fc2_b;
    static dl_matrix2d_t *conv_b, *features;
    static dl_matrix2dq_t *features_q, *hidden, *scores;
    if (!conv_w) {
        const model_coeff_getter_t *m = &get_coeff_conv_q;
        conv_w = need_weight(m, "conv_w");
        /* The library convolves with a fixed-point filter into floats, with
         * a float bias: the bias is turned back to floats once. */
        conv_b = dl_matrix2d_from_matrixq(need_q(m, "conv_b"), NULL);
        fc1_w = need_weight(m, "fc1_w");
        fc1_b = need_q(m, "fc1_b");
        offset = need_q(m, "bn1_offset");
        scale = need_q(m, "bn1_scale");
        mean = need_q(m, "bn1_mean");
        root = need_q(m, "bn1_var");
        fc2_w = need_weight(m, "fc2_w");
        fc2_b = need_q(m, "fc2_b");
        features = dl_matrix_alloc(CONV_OUT_SIZE, 1);
        features_q = dl_matrixq_alloc(CONV_OUT_SIZE, 1);
        hidden = dl_matrixq_alloc(FC1_OUTPUTS, 1);
        scores = dl_matrixq_alloc(CLASSES, 1);
    }
    dl_matrix2d_t whole = net_view(image, SIDE, SIDE);
    dl_basic_conv_layer_quantised_weight(&whole, conv_w, conv_b, CONV_FILTER_W, CONV_FILTER_H, CONV_OUT_CHANNELS,
                                         CONV_STRIDE_X, CONV_STRIDE_Y, CONV_PADDING, features);
    dl_relu(features, RELU_CLIP, features);
    dl_matrixq_from_matrix2d(features, features_q);
    dl_fully_connect_layer_q(features_q, fc1_w, fc1_b, hidden, FC1_SHIFT);
    dl_batch_normalize_q(hidden, offset, scale, mean, root, BN1_SHIFT);
    dl_relu_q(hidden, RELU_CLIP, hidden);
    dl_fully_connect_layer_q(hidden, fc2_w, fc2_b, scores, FC2_SHIFT);
    return net_argmax_q(scores);
}

/* ---- The depthwise-separable CNN (cnn.c), in tensors ---------------------- */

static int cnn_float_digit(const fptp_t *image) { return net_argmax_f(cnn_float(image)); }
static int cnn_quantised_weights_digit(const fptp_t *image) { return net_argmax_f(cnn_quantised_weights(image)); }
static int cnn_fixed_digit(const fptp_t *image) { return net_argmax_q(cnn_fixed(image)); }

/* ---- The table ---------------------------------------------------------- */

struct run {
    const char *network;
    const char *variant;
    int (*classify)(const fptp_t *image);
    double accuracy, agreement, micros;
};

static dl_matrix2d_t *load(const char *dir, const char *name)
{
    char path[1024];
    snprintf(path, sizeof path, "%s/%s", dir, name);
    dl_matrix2d_t *m = dl_matrix2d_from_numpy_file(path);
    if (!m) exit(2); /* the loader has said why */
    return m;
}

static double seconds(void)
{
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return (double)t.tv_sec + 1e-9 * (double)t.tv_nsec;
}

int main(int argc, char **argv)
{
    int check = argc > 1 && strcmp(argv[1], "--check") == 0;
    const char *dir = argc > 1 + check ? argv[1 + check] : DIGITS_TEST_DIR;

    dl_matrix2d_t *images = load(dir, "images.npy"); /* one image per row */
    dl_matrix2d_t *labels = load(dir, "labels.npy"); /* one row */
    dl_matrix2d_t *torch_lstm = load(dir, "lstm_torch.npy");
    dl_matrix2d_t *torch_conv = load(dir, "conv_torch.npy");
    dl_matrix2d_t *torch_cnn = load(dir, "cnn_torch.npy");
    int n = images->h;
    if (images->w != SIDE * SIDE || labels->w != n || torch_lstm->w != n || torch_conv->w != n || torch_cnn->w != n) {
        fprintf(stderr, "digits: %s holds inconsistent shapes\n", dir);
        return 2;
    }

    struct run runs[] = {
        {"lstm", "float", lstm_float, 0, 0, 0},
        {"lstm", "quantised weights", lstm_quantised_weights, 0, 0, 0},
        {"lstm", "fixed point", lstm_fixed, 0, 0, 0},
        {"conv", "float", conv_float, 0, 0, 0},
        {"conv", "quantised weights", conv_quantised_weights, 0, 0, 0},
        {"conv", "fixed point", conv_fixed, 0, 0, 0},
        {"cnn", "float", cnn_float_digit, 0, 0, 0},
        {"cnn", "quantised weights", cnn_quantised_weights_digit, 0, 0, 0},
        {"cnn", "fixed point", cnn_fixed_digit, 0, 0, 0},
    };
    const dl_matrix2d_t *torch_of[] = {torch_lstm, torch_conv, torch_cnn};
    int torch_right[3] = {0, 0, 0};
    for (int i = 0; i < n; i++)
        for (int k = 0; k < 3; k++) torch_right[k] += torch_of[k]->item[i] == labels->item[i];
    const char *missing = cnn_init();
    if (missing) {
        fprintf(stderr, "digits: no table %s\n", missing);
        return 2;
    }

    printf("%d test images from %s\n\n", n, dir);
    printf("%-8s %-18s %9s %14s %15s\n", "network", "variant", "accuracy", "agrees with", "time per image");
    printf("%-8s %-18s %9s %14s %15s\n", "", "", "", "PyTorch", "");
    for (size_t r = 0; r < sizeof runs / sizeof runs[0]; r++) {
        struct run *run = &runs[r];
        const dl_matrix2d_t *torch = torch_of[r / 3];
        if (r % 3 == 0) {
            printf("%-8s %-18s %7.1f %% %14s %15s\n", run->network, "PyTorch", 100.0 * torch_right[r / 3] / n, "", "");
        }
        int right = 0, agree = 0;
        double start = seconds();
        for (int i = 0; i < n; i++) {
            int digit = run->classify(&images->item[images->stride * i]);
            right += digit == (int)labels->item[i];
            agree += digit == (int)torch->item[i];
        }
        run->micros = 1e6 * (seconds() - start) / n;
        run->accuracy = 100.0 * right / n;
        run->agreement = 100.0 * agree / n;
        printf("%-8s %-18s %7.1f %% %12.1f %% %12.1f us\n", "", run->variant, run->accuracy, run->agreement,
               run->micros);
    }

    const model_info_t *info = get_coeff_lstm_q.getter_info(NULL);
    printf("\nlstm model_info: %d words:", info->word_num);
    for (int i = 0; i < info->word_num; i++) printf(" %s", info->word_list[i]);
    printf("\n");

    int failed = 0;
    if (check) {
        for (size_t r = 0; r < sizeof runs / sizeof runs[0]; r++) {
            const struct run *run = &runs[r], *base = &runs[r - r % 3];
            if (run == base && run->agreement < MIN_FLOAT_AGREEMENT) {
                printf("FAIL %s float: agrees with PyTorch on %.1f %% < %.1f %%\n", run->network, run->agreement,
                       MIN_FLOAT_AGREEMENT);
                failed = 1;
            }
            if (run != base && run->agreement < MIN_QUANTISED_AGREEMENT) {
                printf("FAIL %s %s: agrees with PyTorch on %.1f %% < %.1f %%\n", run->network, run->variant,
                       run->agreement, MIN_QUANTISED_AGREEMENT);
                failed = 1;
            }
            if (run != base && run->accuracy < base->accuracy - MAX_QUANTISED_LOSS) {
                printf("FAIL %s %s: accuracy %.1f %% is more than %.1f points below float (%.1f %%)\n", run->network,
                       run->variant, run->accuracy, MAX_QUANTISED_LOSS, base->accuracy);
                failed = 1;
            }
        }
        if (info->word_num != CLASSES) {
            printf("FAIL lstm model_info: %d words, not %d\n", info->word_num, CLASSES);
            failed = 1;
        }
    }
    dl_matrix_free(images);
    dl_matrix_free(labels);
    dl_matrix_free(torch_lstm);
    dl_matrix_free(torch_conv);
    dl_matrix_free(torch_cnn);
    cnn_free();
    return failed;
}
