#include "network.h"

#include "cnn.h"
#include "conv_f.h"
#include "conv_net.h"
#include "conv_q.h"
#include "conv_qw.h"
#include "lstm_f.h"
#include "lstm_net.h"
#include "lstm_q.h"
#include "lstm_qw.h"
#include "measure.h"
#include "net_util.h"

#define CLASSES 10

#define MEASURED(label, call) \
    do {                      \
        measure_begin();      \
        call;                 \
        measure_end(label);   \
    } while (0)

const char *const network_run_name[NETWORK_RUNS] = {
    "lstm float", "lstm quantised-weights", "lstm fixed", "conv float", "conv quantised-weights", "conv fixed",
    "cnn float",  "cnn quantised-weights",  "cnn fixed",
};

static const char *missing;

static const dl_matrix2d_t *table_f(const model_coeff_getter_t *model, const char *name)
{
    const dl_matrix2d_t *m = net_table_f(model, name);
    if (!m && !missing) missing = name;
    return m;
}

static const dl_matrix2dq_t *table_q(const model_coeff_getter_t *model, const char *name)
{
    const dl_matrix2dq_t *m = net_table_q(model, name);
    if (!m && !missing) missing = name;
    return m;
}

static network_trace_t traces[NETWORK_RUNS];

static void trace(int r, const char *name, const dl_matrix2d_t *f, const dl_matrix2dq_t *q)
{
    network_step_t *s = &traces[r].step[traces[r].count++];
    s->name = name;
    s->f = f;
    s->q = q;
}

/* ---- LSTM network: the image rows are 8 time steps, then one fully
 * connected layer on the last output. ---- */

enum {
    LSTM_FLOAT,
    LSTM_QUANTISED_WEIGHTS,
    LSTM_FIXED,
    CONV_FLOAT,
    CONV_QUANTISED_WEIGHTS,
    CONV_FIXED,
    CNN_FLOAT,
    CNN_QUANTISED_WEIGHTS,
    CNN_FIXED
};

static struct {
    const dl_matrix2d_t *w, *b, *fc_w, *fc_b; /* float */
    const dl_matrix2dq_t *qw_w, *qw_fc_w;     /* quantised weights; biases from qw_b, qw_fc_b */
    const dl_matrix2d_t *qw_b, *qw_fc_b;
    const dl_matrix2dq_t *q_w, *q_b, *q_fc_w, *q_fc_b; /* fixed */
    dl_matrix2d_t *c[2], *h[2], *scores[2], *probs[2];
    dl_matrix2dq_t *pixels, *step, *q_c, *q_h, *q_scores, *q_probs;
} lstm;

static void lstm_init(void)
{
    lstm.w = table_f(&get_coeff_lstm_f, "lstm_w");
    lstm.b = table_f(&get_coeff_lstm_f, "lstm_b");
    lstm.fc_w = table_f(&get_coeff_lstm_f, "lstm_fc_w");
    lstm.fc_b = table_f(&get_coeff_lstm_f, "lstm_fc_b");
    lstm.qw_w = table_q(&get_coeff_lstm_qw, "lstm_w");
    lstm.qw_b = table_f(&get_coeff_lstm_qw, "lstm_b");
    lstm.qw_fc_w = table_q(&get_coeff_lstm_qw, "lstm_fc_w");
    lstm.qw_fc_b = table_f(&get_coeff_lstm_qw, "lstm_fc_b");
    lstm.q_w = table_q(&get_coeff_lstm_q, "lstm_w");
    lstm.q_b = table_q(&get_coeff_lstm_q, "lstm_b");
    lstm.q_fc_w = table_q(&get_coeff_lstm_q, "lstm_fc_w");
    lstm.q_fc_b = table_q(&get_coeff_lstm_q, "lstm_fc_b");
    for (int v = 0; v < 2; v++) {
        lstm.c[v] = dl_matrix_alloc(LSTM_UNITS, 1);
        lstm.h[v] = dl_matrix_alloc(LSTM_UNITS, 1);
        lstm.scores[v] = dl_matrix_alloc(CLASSES, 1);
        lstm.probs[v] = dl_matrix_alloc(CLASSES, 1);
        trace(LSTM_FLOAT + v, "c", lstm.c[v], NULL);
        trace(LSTM_FLOAT + v, "h", lstm.h[v], NULL);
        trace(LSTM_FLOAT + v, "scores", lstm.scores[v], NULL);
        trace(LSTM_FLOAT + v, "softmax", lstm.probs[v], NULL);
    }
    lstm.pixels = dl_matrixq_alloc(NETWORK_SIDE, NETWORK_SIDE);
    lstm.q_c = dl_matrixq_alloc(LSTM_UNITS, 1);
    lstm.q_h = dl_matrixq_alloc(LSTM_UNITS, 1);
    lstm.q_scores = dl_matrixq_alloc(CLASSES, 1);
    lstm.q_probs = dl_matrixq_alloc(CLASSES, 1);
    trace(LSTM_FIXED, "c", NULL, lstm.q_c);
    trace(LSTM_FIXED, "h", NULL, lstm.q_h);
    trace(LSTM_FIXED, "scores", NULL, lstm.q_scores);
    trace(LSTM_FIXED, "softmax", NULL, lstm.q_probs);
}

static int lstm_float(const fptp_t *image, int v)
{
    dl_matrix2d_t *c = lstm.c[v], *h = lstm.h[v], *scores = lstm.scores[v];
    dl_matrix_zero(c);
    dl_matrix_zero(h);
    for (int t = 0; t < NETWORK_SIDE; t++) {
        dl_matrix2d_t row = net_view(image + NETWORK_SIDE * t, NETWORK_SIDE, 1);
        if (v == 0) MEASURED("lstm float: lstm step", dl_basic_lstm_layer(&row, c, h, lstm.w, lstm.b));
        else
            MEASURED("lstm quantised-weights: lstm step",
                     dl_basic_lstm_layer_quantised_weights(&row, c, h, lstm.qw_w, lstm.qw_b));
    }
    if (v == 0) {
        dl_fully_connect_layer(h, lstm.fc_w, lstm.fc_b, scores);
    } else {
        /* A fully connected layer with a fixed-point weight: product, then bias. */
        MEASURED("lstm quantised-weights: fc", dl_matrix_matrixq_dot(h, lstm.qw_fc_w, scores));
        dl_matrix_add(scores, lstm.qw_fc_b, scores);
    }
    dl_softmax(scores, lstm.probs[v]);
    return net_argmax_f(scores);
}

static int lstm_fixed(const fptp_t *image)
{
    /* The image is quantised as a whole, so that a blank row shares the
     * others' exponent; the zero states start at a fresh record's exponent
     * and so do not raise the input's in the first step's join. */
    dl_matrix2d_t whole = net_view(image, NETWORK_SIDE, NETWORK_SIDE);
    dl_matrixq_from_matrix2d(&whole, lstm.pixels);
    dl_matrixq_zero(lstm.q_c);
    dl_matrixq_zero(lstm.q_h);
    lstm.q_c->exponent = lstm.q_h->exponent = -31;
    for (int t = 0; t < NETWORK_SIDE; t++) {
        lstm.step = dl_matrixq_slice(lstm.pixels, 0, t, NETWORK_SIDE, 1, lstm.step);
        MEASURED("lstm fixed: lstm step",
                 dl_basic_lstm_layer_q(lstm.step, lstm.q_c, lstm.q_h, lstm.q_w, lstm.q_b, LSTM_SHIFT));
    }
    dl_fully_connect_layer_q(lstm.q_h, lstm.q_fc_w, lstm.q_fc_b, lstm.q_scores, LSTM_FC_SHIFT);
    dl_softmax_q(lstm.q_scores, lstm.q_probs);
    return net_argmax_q(lstm.q_scores);
}

/* ---- Convolution network: convolution, relu, fully connected, batch
 * normalisation, relu, fully connected. ---- */

#define CONV_GEOMETRY CONV_FILTER_W, CONV_FILTER_H, CONV_OUT_CHANNELS, CONV_STRIDE_X, CONV_STRIDE_Y, CONV_PADDING

static struct {
    /* float, and the float tables of the quantised-weights pair */
    const dl_matrix2d_t *conv_w, *conv_b[2], *fc1_w, *fc1_b[2], *offset[2], *scale[2], *mean[2], *root[2], *fc2_w,
        *fc2_b[2];
    const dl_matrix2dq_t *qw_conv_w, *qw_fc1_w, *qw_fc2_w;
    const dl_matrix2dq_t *q_conv_w, *q_fc1_w, *q_fc1_b, *q_offset, *q_scale, *q_mean, *q_root, *q_fc2_w, *q_fc2_b;
    dl_matrix2d_t *q_conv_b; /* the convolution takes a float bias */
    dl_matrix2d_t *features[3], *hidden[2], *scores[2], *probs[2];
    dl_matrix2dq_t *q_features, *q_hidden, *q_scores, *q_probs;
} conv;

static void conv_init(void)
{
    const model_coeff_getter_t *pair[2] = {&get_coeff_conv_f, &get_coeff_conv_qw};
    for (int v = 0; v < 2; v++) {
        conv.conv_b[v] = table_f(pair[v], "conv_b");
        conv.fc1_b[v] = table_f(pair[v], "fc1_b");
        conv.offset[v] = table_f(pair[v], "bn1_offset");
        conv.scale[v] = table_f(pair[v], "bn1_scale");
        conv.mean[v] = table_f(pair[v], "bn1_mean");
        conv.root[v] = table_f(pair[v], "bn1_var"); /* kelvane stored sqrt(variance + 0.001) */
        conv.fc2_b[v] = table_f(pair[v], "fc2_b");
    }
    conv.conv_w = table_f(&get_coeff_conv_f, "conv_w");
    conv.fc1_w = table_f(&get_coeff_conv_f, "fc1_w");
    conv.fc2_w = table_f(&get_coeff_conv_f, "fc2_w");
    conv.qw_conv_w = table_q(&get_coeff_conv_qw, "conv_w");
    conv.qw_fc1_w = table_q(&get_coeff_conv_qw, "fc1_w");
    conv.qw_fc2_w = table_q(&get_coeff_conv_qw, "fc2_w");
    const model_coeff_getter_t *q = &get_coeff_conv_q;
    conv.q_conv_w = table_q(q, "conv_w");
    conv.q_fc1_w = table_q(q, "fc1_w");
    conv.q_fc1_b = table_q(q, "fc1_b");
    conv.q_offset = table_q(q, "bn1_offset");
    conv.q_scale = table_q(q, "bn1_scale");
    conv.q_mean = table_q(q, "bn1_mean");
    conv.q_root = table_q(q, "bn1_var");
    conv.q_fc2_w = table_q(q, "fc2_w");
    conv.q_fc2_b = table_q(q, "fc2_b");
    const dl_matrix2dq_t *q_conv_b = table_q(q, "conv_b");
    if (missing) return;
    conv.q_conv_b = dl_matrix2d_from_matrixq(q_conv_b, NULL);
    for (int v = 0; v < 3; v++) {
        conv.features[v] = dl_matrix_alloc(CONV_OUT_SIZE, 1);
        trace(CONV_FLOAT + v, "conv+relu", conv.features[v], NULL);
    }
    for (int v = 0; v < 2; v++) {
        conv.hidden[v] = dl_matrix_alloc(FC1_OUTPUTS, 1);
        conv.scores[v] = dl_matrix_alloc(CLASSES, 1);
        conv.probs[v] = dl_matrix_alloc(CLASSES, 1);
        trace(CONV_FLOAT + v, "fc1+bn+relu", conv.hidden[v], NULL);
        trace(CONV_FLOAT + v, "scores", conv.scores[v], NULL);
        trace(CONV_FLOAT + v, "softmax", conv.probs[v], NULL);
    }
    conv.q_features = dl_matrixq_alloc(CONV_OUT_SIZE, 1);
    conv.q_hidden = dl_matrixq_alloc(FC1_OUTPUTS, 1);
    conv.q_scores = dl_matrixq_alloc(CLASSES, 1);
    conv.q_probs = dl_matrixq_alloc(CLASSES, 1);
    trace(CONV_FIXED, "conv+relu quantised", NULL, conv.q_features);
    trace(CONV_FIXED, "fc1+bn+relu", NULL, conv.q_hidden);
    trace(CONV_FIXED, "scores", NULL, conv.q_scores);
    trace(CONV_FIXED, "softmax", NULL, conv.q_probs);
}

static int conv_float(const fptp_t *image)
{
    dl_matrix2d_t whole = net_view(image, NETWORK_SIDE, NETWORK_SIDE);
    dl_matrix2d_t *features = conv.features[0], *hidden = conv.hidden[0], *scores = conv.scores[0];
    MEASURED("conv float: conv", dl_basic_conv_layer(&whole, conv.conv_w, conv.conv_b[0], CONV_GEOMETRY, features));
    dl_relu(features, RELU_CLIP, features);
    MEASURED("conv float: fc1", dl_fully_connect_layer(features, conv.fc1_w, conv.fc1_b[0], hidden));
    MEASURED("conv float: bn", dl_batch_normalize(hidden, conv.offset[0], conv.scale[0], conv.mean[0], conv.root[0]));
    dl_relu(hidden, RELU_CLIP, hidden);
    dl_fully_connect_layer(hidden, conv.fc2_w, conv.fc2_b[0], scores);
    dl_softmax(scores, conv.probs[0]);
    return net_argmax_f(scores);
}

static int conv_quantised_weights(const fptp_t *image)
{
    dl_matrix2d_t whole = net_view(image, NETWORK_SIDE, NETWORK_SIDE);
    dl_matrix2d_t *features = conv.features[1], *hidden = conv.hidden[1], *scores = conv.scores[1];
    MEASURED("conv quantised-weights: conv",
             dl_basic_conv_layer_quantised_weight(&whole, conv.qw_conv_w, conv.conv_b[1], CONV_GEOMETRY, features));
    dl_relu(features, RELU_CLIP, features);
    MEASURED("conv quantised-weights: fc1", dl_matrix_matrixq_dot(features, conv.qw_fc1_w, hidden));
    dl_matrix_add(hidden, conv.fc1_b[1], hidden);
    dl_batch_normalize(hidden, conv.offset[1], conv.scale[1], conv.mean[1], conv.root[1]);
    dl_relu(hidden, RELU_CLIP, hidden);
    dl_matrix_matrixq_dot(hidden, conv.qw_fc2_w, scores);
    dl_matrix_add(scores, conv.fc2_b[1], scores);
    dl_softmax(scores, conv.probs[1]);
    return net_argmax_f(scores);
}

static int conv_fixed(const fptp_t *image)
{
    dl_matrix2d_t whole = net_view(image, NETWORK_SIDE, NETWORK_SIDE);
    dl_matrix2d_t *features = conv.features[2];
    MEASURED("conv fixed: conv",
             dl_basic_conv_layer_quantised_weight(&whole, conv.q_conv_w, conv.q_conv_b, CONV_GEOMETRY, features));
    dl_relu(features, RELU_CLIP, features);
    dl_matrixq_from_matrix2d(features, conv.q_features);
    MEASURED("conv fixed: fc1",
             dl_fully_connect_layer_q(conv.q_features, conv.q_fc1_w, conv.q_fc1_b, conv.q_hidden, FC1_SHIFT));
    MEASURED("conv fixed: bn",
             dl_batch_normalize_q(conv.q_hidden, conv.q_offset, conv.q_scale, conv.q_mean, conv.q_root, BN1_SHIFT));
    dl_relu_q(conv.q_hidden, RELU_CLIP, conv.q_hidden);
    dl_fully_connect_layer_q(conv.q_hidden, conv.q_fc2_w, conv.q_fc2_b, conv.q_scores, FC2_SHIFT);
    dl_softmax_q(conv.q_scores, conv.q_probs);
    return net_argmax_q(conv.q_scores);
}

/* ---- Depthwise-separable CNN (examples/digits/cnn.c): convolution,
 * depthwise and pointwise convolutions, max pooling, fully connected. Each
 * run's trace is its scores. ---- */

static int cnn_classify(int r, const fptp_t *image)
{
    traces[r].count = 0;
    if (r == CNN_FIXED) {
        const dl_matrix2dq_t *scores;
        MEASURED("cnn fixed", scores = cnn_fixed(image));
        trace(r, "scores", NULL, scores);
        return net_argmax_q(scores);
    }
    const dl_matrix2d_t *scores;
    if (r == CNN_FLOAT) MEASURED("cnn float", scores = cnn_float(image));
    else MEASURED("cnn quantised-weights", scores = cnn_quantised_weights(image));
    trace(r, "scores", scores, NULL);
    return net_argmax_f(scores);
}

const char *network_init(void)
{
    missing = NULL;
    for (int r = 0; r < NETWORK_RUNS; r++) traces[r].count = 0;
    lstm_init();
    conv_init();
    const char *cnn_missing = cnn_init();
    return missing ? missing : cnn_missing;
}

int network_classify(int r, const fptp_t *image)
{
    switch (r) {
    case LSTM_FLOAT: return lstm_float(image, 0);
    case LSTM_QUANTISED_WEIGHTS: return lstm_float(image, 1);
    case LSTM_FIXED: return lstm_fixed(image);
    case CONV_FLOAT: return conv_float(image);
    case CONV_QUANTISED_WEIGHTS: return conv_quantised_weights(image);
    case CONV_FIXED: return conv_fixed(image);
    case CNN_FLOAT:
    case CNN_QUANTISED_WEIGHTS:
    case CNN_FIXED: return cnn_classify(r, image);
    }
    return -1;
}

const network_trace_t *network_trace(int r) { return &traces[r]; }

void network_free(void)
{
    for (int v = 0; v < 2; v++) {
        dl_matrix_free(lstm.c[v]);
        dl_matrix_free(lstm.h[v]);
        dl_matrix_free(lstm.scores[v]);
        dl_matrix_free(lstm.probs[v]);
        dl_matrix_free(conv.hidden[v]);
        dl_matrix_free(conv.scores[v]);
        dl_matrix_free(conv.probs[v]);
    }
    for (int v = 0; v < 3; v++) dl_matrix_free(conv.features[v]);
    dl_matrixq_free(lstm.pixels);
    dl_matrixq_free(lstm.step);
    dl_matrixq_free(lstm.q_c);
    dl_matrixq_free(lstm.q_h);
    dl_matrixq_free(lstm.q_scores);
    dl_matrixq_free(lstm.q_probs);
    dl_matrix_free(conv.q_conv_b);
    dl_matrixq_free(conv.q_features);
    dl_matrixq_free(conv.q_hidden);
    dl_matrixq_free(conv.q_scores);
    dl_matrixq_free(conv.q_probs);
    cnn_free();
}
