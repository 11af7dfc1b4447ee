#include "kws_cnn.h"

#include <string.h>

#include "cnn_net.h"
#include "kws_q.h"
#ifndef KWS_FIXED_ONLY
#include "kws_f.h"
#endif

#define WORDS 10 /* the commands: the first outputs; unknown and silence follow */
#define CONVS 7

/* One convolution of the network with its ReLU6, as train.py exported it. */
struct conv {
    const char *weight, *bias;
    int depthwise, stride_x, stride_y;
    dl_padding_t pad;
    fptp_t clip;
    int shift;
    int out_w, out_h, out_c;
};

#define CONV(n)                                                                                                 \
    {                                                                                                           \
        "kws_conv" #n "_w", "kws_conv" #n "_b", KWS_CONV##n##_DEPTHWISE, KWS_CONV##n##_STRIDE_X,                \
            KWS_CONV##n##_STRIDE_Y,                                                                             \
            {KWS_CONV##n##_PAD_TOP, KWS_CONV##n##_PAD_BOTTOM, KWS_CONV##n##_PAD_LEFT, KWS_CONV##n##_PAD_RIGHT}, \
            KWS_CONV##n##_RELU_CLIP, KWS_CONV##n##_SHIFT, KWS_CONV##n##_OUT_W, KWS_CONV##n##_OUT_H,             \
            KWS_CONV##n##_OUT_C                                                                                 \
    }

static const struct conv convs[CONVS] = {CONV(1), CONV(2), CONV(3), CONV(4), CONV(5), CONV(6), CONV(7)};

/* Activations of one run; row is the pooled tensor as the fully connected
 * layer's input (a view: no copy). */
struct floats {
    dl_matrix3d_t *a[CONVS], *pooled;
    dl_matrix2d_t *row, *logits;
};

struct fixed {
    dl_matrix3dq_t *in, *a[CONVS], *pooled;
    dl_matrix2dq_t *row, *logits;
    dl_matrix2d_t *logits_f;
};

static struct {
    const dl_matrix3d_t *w[CONVS], *b[CONVS];
    const dl_matrix3dq_t *wq[CONVS], *bq[CONVS];
    dl_matrix3d_t *bf[CONVS]; /* the fixed-point biases back in floats */
    dl_matrix2d_t *fc_w, *fc_b, *fc_bf;
    dl_matrix2dq_t *fc_wq, *fc_bq;
    dl_matrix3d_t *fc_bf_items;
    struct floats f, qw;
    struct fixed q;
} net;

static const char *missing;

#ifdef KWS_FIXED_ONLY
/* The device image holds the fixed-point tables only. */
static const dl_matrix3d_t *table_f(const char *name)
{
    (void)name;
    return NULL;
}
#else
static const dl_matrix3d_t *table_f(const char *name)
{
    const dl_matrix3d_t *t = dl_get_coeff_3d(&get_coeff_kws_f, name, NULL, 0);
    if (!t && !missing) missing = name;
    return t;
}
#endif

static const dl_matrix3dq_t *table_q(const char *name)
{
    const dl_matrix3dq_t *t = get_coeff_kws_q.getter_3dq ? get_coeff_kws_q.getter_3dq(name, NULL, 0) : NULL;
    if (!t && !missing) missing = name;
    return t;
}

#ifndef KWS_FIXED_ONLY
static void floats_alloc(struct floats *a)
{
    for (int i = 0; i < CONVS; i++) a->a[i] = dl_matrix3d_alloc(1, convs[i].out_w, convs[i].out_h, convs[i].out_c);
    a->pooled = dl_matrix3d_alloc(1, 1, 1, KWS_GLOBALPOOL1_OUT_C);
    a->row = dl_matrix2d_view_from_matrix3d(a->pooled, NULL);
    a->logits = dl_matrix_alloc(KWS_CLASSES, 1);
}
#endif

static void floats_free(struct floats *a)
{
    if (!a->logits) return; /* never made */
    for (int i = 0; i < CONVS; i++) dl_matrix3d_free(a->a[i]);
    dl_matrix_free(a->row);
    dl_matrix3d_free(a->pooled);
    dl_matrix_free(a->logits);
}

const char *kws_cnn_init(void)
{
    missing = NULL;
    for (int i = 0; i < CONVS; i++) {
        net.w[i] = table_f(convs[i].weight);
        net.b[i] = table_f(convs[i].bias);
        net.wq[i] = table_q(convs[i].weight);
        net.bq[i] = table_q(convs[i].bias);
    }
    const dl_matrix3d_t *fc_w = table_f("kws_fc1_w"), *fc_b = table_f("kws_fc1_b");
    const dl_matrix3dq_t *fc_wq = table_q("kws_fc1_w"), *fc_bq = table_q("kws_fc1_b");
    if (missing) return missing;

    net.fc_wq = dl_matrix2dq_weight_view_from_matrix3dq(fc_wq, NULL);
    net.fc_bq = dl_matrix2dq_view_from_matrix3dq(fc_bq, NULL);
#ifndef KWS_FIXED_ONLY
    for (int i = 0; i < CONVS; i++) net.bf[i] = dl_matrix3d_from_matrixq(net.bq[i]);
    /* A float weight is row-major, inputs by outputs: one transposed copy. */
    net.fc_w = dl_matrix2d_weight_from_matrix3d(fc_w, NULL);
    net.fc_b = dl_matrix2d_view_from_matrix3d(fc_b, NULL);
    net.fc_bf_items = dl_matrix3d_from_matrixq(fc_bq);
    net.fc_bf = dl_matrix2d_view_from_matrix3d(net.fc_bf_items, NULL);
    floats_alloc(&net.f);
    floats_alloc(&net.qw);
#else
    (void)fc_w;
    (void)fc_b;
#endif
    /* Fixed-point activations get their exponents from the layers. */
    net.q.in = dl_matrix3dq_alloc(1, KWS_MELS, KWS_FRAMES, 1, 0);
    for (int i = 0; i < CONVS; i++)
        net.q.a[i] = dl_matrix3dq_alloc(1, convs[i].out_w, convs[i].out_h, convs[i].out_c, 0);
    net.q.pooled = dl_matrix3dq_alloc(1, 1, 1, KWS_GLOBALPOOL1_OUT_C, 0);
    /* Made now, not on the first run: an arena gives memory back from the
     * top only, and a record made during a run would pin all made after. */
    net.q.row = dl_matrix2dq_view_from_matrix3dq(net.q.pooled, NULL);
    net.q.logits = dl_matrixq_alloc(KWS_CLASSES, 1);
    net.q.logits_f = dl_matrix_alloc(KWS_CLASSES, 1);
    return NULL;
}

void kws_cnn_free(void)
{
    for (int i = 0; i < CONVS; i++) {
        dl_matrix3d_free(net.bf[i]);
        dl_matrix3dq_free(net.q.a[i]);
    }
    dl_matrix_free(net.fc_w);
    dl_matrix_free(net.fc_b);
    dl_matrix_free(net.fc_bf);
    dl_matrix3d_free(net.fc_bf_items);
    dl_matrixq_free(net.fc_wq);
    dl_matrixq_free(net.fc_bq);
    floats_free(&net.f);
    floats_free(&net.qw);
    dl_matrix3dq_free(net.q.in);
    dl_matrixq_free(net.q.row);
    dl_matrix3dq_free(net.q.pooled);
    dl_matrixq_free(net.q.logits);
    dl_matrix_free(net.q.logits_f);
    memset(&net, 0, sizeof net);
}

static void scores_of(dl_matrix2d_t *logits, fptp_t *scores)
{
    dl_softmax(logits, logits);
    memcpy(scores, logits->item, WORDS * sizeof *scores);
}

static void run_floats(struct floats *a, const dl_matrix2d_t *window, int quantised_weights, fptp_t *scores)
{
    /* The stream's float window is row-major with stride == width: the
     * rows (frames) as a one-channel tensor, without a copy. */
    dl_matrix3d_t in = {.w = KWS_MELS, .h = KWS_FRAMES, .c = 1, .n = 1, .stride = KWS_MELS, .item = window->item};
    const dl_matrix3d_t *x = &in;
    for (int i = 0; i < CONVS; i++) {
        const struct conv *c = &convs[i];
        if (quantised_weights && c->depthwise)
            dl_matrix3d_depthwise_conv_layer_quantised_weight(x, net.wq[i], net.bf[i], c->stride_x, c->stride_y,
                                                              &c->pad, a->a[i]);
        else if (quantised_weights)
            dl_matrix3d_conv_layer_quantised_weight(x, net.wq[i], net.bf[i], c->stride_x, c->stride_y, &c->pad,
                                                    a->a[i]);
        else if (c->depthwise)
            dl_matrix3d_depthwise_conv_layer(x, net.w[i], net.b[i], c->stride_x, c->stride_y, &c->pad, a->a[i]);
        else dl_matrix3d_conv_layer(x, net.w[i], net.b[i], c->stride_x, c->stride_y, &c->pad, a->a[i]);
        dl_matrix3d_relu(a->a[i], c->clip, a->a[i]);
        x = a->a[i];
    }
    dl_matrix3d_global_avg_pool(x, a->pooled);
    if (quantised_weights) dl_fully_connect_layer_quantised_weight(a->row, net.fc_wq, net.fc_bf, a->logits);
    else dl_fully_connect_layer(a->row, net.fc_w, net.fc_b, a->logits);
    scores_of(a->logits, scores);
}

void kws_cnn_float(void *user, const dl_matrix2d_t *window, fptp_t *scores)
{
    (void)user;
    run_floats(&net.f, window, 0, scores);
}

void kws_cnn_quantised_weights(void *user, const dl_matrix2d_t *window, fptp_t *scores)
{
    (void)user;
    run_floats(&net.qw, window, 1, scores);
}

void kws_cnn_fixed(void *user, const dl_matrix2dq_t *window, fptp_t *scores)
{
    (void)user;
    struct fixed *a = &net.q;
    /* The stream's fixed-point window is column-major (one column of frames
     * per feature): the tensor, rows of features, is a transposed copy. */
    for (int y = 0; y < KWS_FRAMES; y++)
        for (int x = 0; x < KWS_MELS; x++) a->in->item[y * KWS_MELS + x] = window->itemq[y + window->stride * x];
    a->in->exponent = window->exponent;
    const dl_matrix3dq_t *x = a->in;
    for (int i = 0; i < CONVS; i++) {
        const struct conv *c = &convs[i];
        if (c->depthwise)
            dl_matrix3dq_depthwise_conv_layer_q(x, net.wq[i], net.bq[i], c->stride_x, c->stride_y, &c->pad, a->a[i],
                                                c->shift);
        else dl_matrix3dq_conv_layer_q(x, net.wq[i], net.bq[i], c->stride_x, c->stride_y, &c->pad, a->a[i], c->shift);
        dl_matrix3dq_relu_q(a->a[i], c->clip, a->a[i]);
        x = a->a[i];
    }
    dl_matrix3dq_global_avg_pool_q(x, a->pooled);
    /* The pooled tensor's exponent changes from run to run: its row view is
     * made again each time, in the record made at start-up. */
    a->row = dl_matrix2dq_view_from_matrix3dq(a->pooled, a->row);
    dl_fully_connect_layer_q(a->row, net.fc_wq, net.fc_bq, a->logits, KWS_FC1_SHIFT);
    /* Items times a power of two: exact in float, on every target. */
    dl_matrix2d_from_matrixq(a->logits, a->logits_f);
    scores_of(a->logits_f, scores);
}

const fptp_t *kws_cnn_probabilities(kws_format_t format)
{
    switch (format) {
    case KWS_FLOAT: return net.f.logits->item;
    case KWS_QUANTISED_WEIGHTS: return net.qw.logits->item;
    default: return net.q.logits_f->item;
    }
}
