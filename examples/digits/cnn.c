#include "cnn.h"

#include "cnn_f.h"
#include "cnn_net.h"
#include "cnn_q.h"

#define CLASSES 10

static const char *missing;

static const dl_matrix3d_t *table_f(const char *name)
{
    const dl_matrix3d_t *t = dl_get_coeff_3d(&get_coeff_cnn_f, name, NULL, 0);
    if (!t && !missing) missing = name;
    return t;
}

static const dl_matrix3dq_t *table_q(const char *name)
{
    const dl_matrix3dq_t *t = get_coeff_cnn_q.getter_3dq ? get_coeff_cnn_q.getter_3dq(name, NULL, 0) : NULL;
    if (!t && !missing) missing = name;
    return t;
}

static const dl_padding_t pad1 = {CNN_CONV1_PAD_TOP, CNN_CONV1_PAD_BOTTOM, CNN_CONV1_PAD_LEFT, CNN_CONV1_PAD_RIGHT};
static const dl_padding_t pad2 = {CNN_CONV2_PAD_TOP, CNN_CONV2_PAD_BOTTOM, CNN_CONV2_PAD_LEFT, CNN_CONV2_PAD_RIGHT};
static const dl_padding_t pad3 = {CNN_CONV3_PAD_TOP, CNN_CONV3_PAD_BOTTOM, CNN_CONV3_PAD_LEFT, CNN_CONV3_PAD_RIGHT};

/* Activations of one image: conv1, conv2 (depthwise), conv3 (pointwise),
 * the pooled tensor, and the pooled tensor as the fully connected layer's
 * row (a view: no copy). */
struct floats {
    dl_matrix3d_t *a1, *a2, *a3, *pooled;
    dl_matrix2d_t *row, *scores;
};

struct fixed {
    dl_matrix3dq_t *a1, *a2, *a3, *pooled;
    dl_matrix2dq_t *row, *scores;
};

static struct {
    /* float */
    const dl_matrix3d_t *w1, *b1, *w2, *b2, *w3, *b3;
    dl_matrix2d_t *fc_w, *fc_b; /* weight transposed once; bias a view */
    /* fixed point */
    const dl_matrix3dq_t *w1q, *b1q, *w2q, *b2q, *w3q, *b3q;
    dl_matrix2dq_t *fc_wq, *fc_bq; /* views of the tensors' items */
    /* quantised weights: the fixed-point biases back in floats */
    dl_matrix3d_t *b1f, *b2f, *b3f, *fc_bf_items;
    dl_matrix2d_t *fc_bf;
    struct floats f, qw;
    struct fixed q;
} net;

static void floats_alloc(struct floats *a)
{
    a->a1 = dl_matrix3d_alloc(1, CNN_CONV1_OUT_W, CNN_CONV1_OUT_H, CNN_CONV1_OUT_C);
    a->a2 = dl_matrix3d_alloc(1, CNN_CONV2_OUT_W, CNN_CONV2_OUT_H, CNN_CONV2_OUT_C);
    a->a3 = dl_matrix3d_alloc(1, CNN_CONV3_OUT_W, CNN_CONV3_OUT_H, CNN_CONV3_OUT_C);
    a->pooled = dl_matrix3d_alloc(1, CNN_MAXPOOL1_OUT_W, CNN_MAXPOOL1_OUT_H, CNN_MAXPOOL1_OUT_C);
    a->row = dl_matrix2d_view_from_matrix3d(a->pooled, NULL);
    a->scores = dl_matrix_alloc(CLASSES, 1);
}

static void floats_free(struct floats *a)
{
    dl_matrix3d_free(a->a1);
    dl_matrix3d_free(a->a2);
    dl_matrix3d_free(a->a3);
    dl_matrix_free(a->row);
    dl_matrix3d_free(a->pooled);
    dl_matrix_free(a->scores);
}

const char *cnn_init(void)
{
    missing = NULL;
    net.w1 = table_f("cnn_conv1_w");
    net.b1 = table_f("cnn_conv1_b");
    net.w2 = table_f("cnn_conv2_w");
    net.b2 = table_f("cnn_conv2_b");
    net.w3 = table_f("cnn_conv3_w");
    net.b3 = table_f("cnn_conv3_b");
    const dl_matrix3d_t *fc_w = table_f("cnn_fc1_w"), *fc_b = table_f("cnn_fc1_b");
    net.w1q = table_q("cnn_conv1_w");
    net.b1q = table_q("cnn_conv1_b");
    net.w2q = table_q("cnn_conv2_w");
    net.b2q = table_q("cnn_conv2_b");
    net.w3q = table_q("cnn_conv3_w");
    net.b3q = table_q("cnn_conv3_b");
    const dl_matrix3dq_t *fc_wq = table_q("cnn_fc1_w"), *fc_bq = table_q("cnn_fc1_b");
    if (missing) return missing;

    /* A float weight is row-major, inputs by outputs: one transposed copy. */
    net.fc_w = dl_matrix2d_weight_from_matrix3d(fc_w, NULL);
    net.fc_b = dl_matrix2d_view_from_matrix3d(fc_b, NULL);
    net.fc_wq = dl_matrix2dq_weight_view_from_matrix3dq(fc_wq, NULL);
    net.fc_bq = dl_matrix2dq_view_from_matrix3dq(fc_bq, NULL);
    net.b1f = dl_matrix3d_from_matrixq(net.b1q);
    net.b2f = dl_matrix3d_from_matrixq(net.b2q);
    net.b3f = dl_matrix3d_from_matrixq(net.b3q);
    net.fc_bf_items = dl_matrix3d_from_matrixq(fc_bq);
    net.fc_bf = dl_matrix2d_view_from_matrix3d(net.fc_bf_items, NULL);
    floats_alloc(&net.f);
    floats_alloc(&net.qw);
    /* Fixed-point activations get their exponents from the layers. */
    net.q.a1 = dl_matrix3dq_alloc(1, CNN_CONV1_OUT_W, CNN_CONV1_OUT_H, CNN_CONV1_OUT_C, 0);
    net.q.a2 = dl_matrix3dq_alloc(1, CNN_CONV2_OUT_W, CNN_CONV2_OUT_H, CNN_CONV2_OUT_C, 0);
    net.q.a3 = dl_matrix3dq_alloc(1, CNN_CONV3_OUT_W, CNN_CONV3_OUT_H, CNN_CONV3_OUT_C, 0);
    net.q.pooled = dl_matrix3dq_alloc(1, CNN_MAXPOOL1_OUT_W, CNN_MAXPOOL1_OUT_H, CNN_MAXPOOL1_OUT_C, 0);
    net.q.scores = dl_matrixq_alloc(CLASSES, 1);
    return NULL;
}

void cnn_free(void)
{
    dl_matrix_free(net.fc_w);
    dl_matrix_free(net.fc_b);
    dl_matrixq_free(net.fc_wq);
    dl_matrixq_free(net.fc_bq);
    dl_matrix3d_free(net.b1f);
    dl_matrix3d_free(net.b2f);
    dl_matrix3d_free(net.b3f);
    dl_matrix_free(net.fc_bf);
    dl_matrix3d_free(net.fc_bf_items);
    floats_free(&net.f);
    floats_free(&net.qw);
    dl_matrix3dq_free(net.q.a1);
    dl_matrix3dq_free(net.q.a2);
    dl_matrix3dq_free(net.q.a3);
    dl_matrixq_free(net.q.row);
    dl_matrix3dq_free(net.q.pooled);
    dl_matrixq_free(net.q.scores);
    net.q.row = NULL;
}

/* The image as a one-channel tensor over the caller's floats. */
static dl_matrix3d_t image_tensor(const fptp_t *image)
{
    dl_matrix3d_t t = {
        .w = CNN_CONV1_IN_W, .h = CNN_CONV1_IN_H, .c = 1, .n = 1, .stride = CNN_CONV1_IN_W, .item = (fptp_t *)image};
    return t;
}

static void pool_and_classify(struct floats *a, const dl_matrix2d_t *fc_b, int quantised_weight)
{
    dl_matrix3d_max_pool(a->a3, CNN_MAXPOOL1_FILTER_W, CNN_MAXPOOL1_FILTER_H, CNN_MAXPOOL1_STRIDE_X,
                         CNN_MAXPOOL1_STRIDE_Y, a->pooled);
    if (quantised_weight) dl_fully_connect_layer_quantised_weight(a->row, net.fc_wq, fc_b, a->scores);
    else dl_fully_connect_layer(a->row, net.fc_w, fc_b, a->scores);
}

const dl_matrix2d_t *cnn_float(const fptp_t *image)
{
    struct floats *a = &net.f;
    dl_matrix3d_t in = image_tensor(image);
    dl_matrix3d_conv_layer(&in, net.w1, net.b1, CNN_CONV1_STRIDE_X, CNN_CONV1_STRIDE_Y, &pad1, a->a1);
    dl_matrix3d_relu(a->a1, CNN_CONV1_RELU_CLIP, a->a1);
    dl_matrix3d_depthwise_conv_layer(a->a1, net.w2, net.b2, CNN_CONV2_STRIDE_X, CNN_CONV2_STRIDE_Y, &pad2, a->a2);
    dl_matrix3d_relu(a->a2, CNN_CONV2_RELU_CLIP, a->a2);
    dl_matrix3d_conv_layer(a->a2, net.w3, net.b3, CNN_CONV3_STRIDE_X, CNN_CONV3_STRIDE_Y, &pad3, a->a3);
    dl_matrix3d_relu(a->a3, CNN_CONV3_RELU_CLIP, a->a3);
    pool_and_classify(a, net.fc_b, 0);
    return a->scores;
}

const dl_matrix2d_t *cnn_quantised_weights(const fptp_t *image)
{
    struct floats *a = &net.qw;
    dl_matrix3d_t in = image_tensor(image);
    dl_matrix3d_conv_layer_quantised_weight(&in, net.w1q, net.b1f, CNN_CONV1_STRIDE_X, CNN_CONV1_STRIDE_Y, &pad1,
                                            a->a1);
    dl_matrix3d_relu(a->a1, CNN_CONV1_RELU_CLIP, a->a1);
    dl_matrix3d_depthwise_conv_layer_quantised_weight(a->a1, net.w2q, net.b2f, CNN_CONV2_STRIDE_X, CNN_CONV2_STRIDE_Y,
                                                      &pad2, a->a2);
    dl_matrix3d_relu(a->a2, CNN_CONV2_RELU_CLIP, a->a2);
    dl_matrix3d_conv_layer_quantised_weight(a->a2, net.w3q, net.b3f, CNN_CONV3_STRIDE_X, CNN_CONV3_STRIDE_Y, &pad3,
                                            a->a3);
    dl_matrix3d_relu(a->a3, CNN_CONV3_RELU_CLIP, a->a3);
    pool_and_classify(a, net.fc_bf, 1);
    return a->scores;
}

const dl_matrix2dq_t *cnn_fixed(const fptp_t *image)
{
    struct fixed *a = &net.q;
    dl_matrix3d_t in = image_tensor(image);
    /* The image gets the exponent of its own range, as a float input does
     * in the quantised-weight layers. */
    dl_matrix3dq_t *in_q = dl_matrixq_from_matrix3d(&in);
    dl_matrix3dq_conv_layer_q(in_q, net.w1q, net.b1q, CNN_CONV1_STRIDE_X, CNN_CONV1_STRIDE_Y, &pad1, a->a1,
                              CNN_CONV1_SHIFT);
    dl_matrix3dq_free(in_q);
    dl_matrix3dq_relu_q(a->a1, CNN_CONV1_RELU_CLIP, a->a1);
    dl_matrix3dq_depthwise_conv_layer_q(a->a1, net.w2q, net.b2q, CNN_CONV2_STRIDE_X, CNN_CONV2_STRIDE_Y, &pad2, a->a2,
                                        CNN_CONV2_SHIFT);
    dl_matrix3dq_relu_q(a->a2, CNN_CONV2_RELU_CLIP, a->a2);
    dl_matrix3dq_conv_layer_q(a->a2, net.w3q, net.b3q, CNN_CONV3_STRIDE_X, CNN_CONV3_STRIDE_Y, &pad3, a->a3,
                              CNN_CONV3_SHIFT);
    dl_matrix3dq_relu_q(a->a3, CNN_CONV3_RELU_CLIP, a->a3);
    dl_matrix3dq_max_pool_q(a->a3, CNN_MAXPOOL1_FILTER_W, CNN_MAXPOOL1_FILTER_H, CNN_MAXPOOL1_STRIDE_X,
                            CNN_MAXPOOL1_STRIDE_Y, a->pooled);
    /* The pooled tensor's exponent changes from image to image: its row view
     * is made again each time (in the record made the first time). */
    a->row = dl_matrix2dq_view_from_matrix3dq(a->pooled, a->row);
    dl_fully_connect_layer_q(a->row, net.fc_wq, net.fc_bq, a->scores, CNN_FC1_SHIFT);
    return a->scores;
}
