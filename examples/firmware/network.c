#include "network.h"

#include "fw_model_f.h"
#include "fw_model_q.h"
#include "measure.h"

const char *const network_variant_name[NETWORK_VARIANTS] = {"float", "quantised-weights", "fixed"};

/* The input is 8 x 6; the convolution's geometry gives 4 x 3 positions of
 * 4 channels. */
enum { IN_W = 8, IN_H = 6, CONV_OUT = 48, FC1_OUT = 16, UNITS = 8, CLASSES = 3 };
#define FILTER 3, 3, 4, 2, 2, 1 /* filter_w, filter_h, out_channels, stride_x, stride_y, padding */
#define RELU_CLIP 6.0f

static const char *missing;

static const dl_matrix2d_t *table_f(const char *name)
{
    const dl_matrix2d_t *m = get_coeff_fw_model_f.getter_f(name, NULL, 0);
    if (!m && !missing) missing = name;
    return m;
}

static const dl_matrix2dq_t *table_q(const char *name)
{
    const dl_matrix2dq_t *m = get_coeff_fw_model_q.getter_q(name, NULL, 0);
    if (!m && !missing) missing = name;
    return m;
}

static void trace_f(network_t *net, int variant, const char *name, const dl_matrix2d_t *m)
{
    network_trace_t *t = &net->trace[variant];
    t->step[t->count].name = name;
    t->step[t->count].f = m;
    t->step[t->count].q = NULL;
    t->count++;
}

static void trace_q(network_t *net, int variant, const char *name, const dl_matrix2dq_t *m)
{
    network_trace_t *t = &net->trace[variant];
    t->step[t->count].name = name;
    t->step[t->count].f = NULL;
    t->step[t->count].q = m;
    t->count++;
}

static dl_matrix2dq_t *state_q(void)
{
    dl_matrix2dq_t *m = dl_matrixq_alloc(UNITS, 1);
    m->exponent = -15;
    return m;
}

const char *network_init(network_t *net)
{
    missing = NULL;
    net->conv_w = table_f("conv_w");
    net->conv_b = table_f("conv_b");
    net->fc1_w = table_f("fc1_w");
    net->fc1_b = table_f("fc1_b");
    net->bn_offset = table_f("bn1_offset");
    net->bn_scale = table_f("bn1_scale");
    net->bn_mean = table_f("bn1_mean");
    net->bn_sqrtvar = table_f("pop_var");
    net->lstm_w = table_f("lstm_w");
    net->lstm_b = table_f("lstm_b");
    net->fc2_w = table_f("fc2_w");
    net->fc2_b = table_f("fc2_b");
    net->conv_wq = table_q("conv_w");
    net->fc1_wq = table_q("fc1_w");
    net->fc1_bq = table_q("fc1_b");
    net->bn_offset_q = table_q("bn1_offset");
    net->bn_scale_q = table_q("bn1_scale");
    net->bn_mean_q = table_q("bn1_mean");
    net->bn_sqrtvar_q = table_q("pop_var");
    net->lstm_wq = table_q("lstm_w");
    net->lstm_bq = table_q("lstm_b");
    net->fc2_wq = table_q("fc2_w");
    net->fc2_bq = table_q("fc2_b");
    if (missing) return missing;

    for (int v = 0; v < 2; v++) {
        net->conv[v] = dl_matrix_alloc(CONV_OUT, 1);
        net->fc1[v] = dl_matrix_alloc(FC1_OUT, 1);
        net->state_c[v] = dl_matrix_alloc(UNITS, 1);
        net->state_h[v] = dl_matrix_alloc(UNITS, 1);
        net->fc2[v] = dl_matrix_alloc(CLASSES, 1);
        net->prob[v] = dl_matrix_alloc(CLASSES, 1);
        net->trace[v].count = 0;
        trace_f(net, v, "conv+relu", net->conv[v]);
        trace_f(net, v, "fc1+bn", net->fc1[v]);
        trace_f(net, v, "lstm c", net->state_c[v]);
        trace_f(net, v, "lstm h", net->state_h[v]);
        trace_f(net, v, "fc2", net->fc2[v]);
        trace_f(net, v, "softmax", net->prob[v]);
    }
    net->conv_f = dl_matrix_alloc(CONV_OUT, 1);
    net->conv_q = dl_matrixq_alloc(CONV_OUT, 1);
    net->fc1_q = dl_matrixq_alloc(FC1_OUT, 1);
    net->state_cq = state_q();
    net->state_hq = state_q();
    net->fc2_q = dl_matrixq_alloc(CLASSES, 1);
    net->prob_q = dl_matrixq_alloc(CLASSES, 1);
    net->trace[NETWORK_FIXED].count = 0;
    trace_f(net, NETWORK_FIXED, "conv", net->conv_f);
    trace_q(net, NETWORK_FIXED, "conv+relu", net->conv_q);
    trace_q(net, NETWORK_FIXED, "fc1+bn", net->fc1_q);
    trace_q(net, NETWORK_FIXED, "lstm c", net->state_cq);
    trace_q(net, NETWORK_FIXED, "lstm h", net->state_hq);
    trace_q(net, NETWORK_FIXED, "fc2", net->fc2_q);
    trace_q(net, NETWORK_FIXED, "softmax", net->prob_q);
    return NULL;
}

void network_run(network_t *net, int variant, const dl_matrix2d_t *in)
{
    /* Until the layers are in: the fixed variant quantises its input. */
    if (variant == NETWORK_FIXED) {
        measure_begin();
        dl_matrix2dq_t *q = dl_matrixq_from_matrix2d(in, NULL);
        measure_end("fixed quantise");
        net->fc1_q->exponent = q->exponent;
        for (int i = 0; i < FC1_OUT; i++) net->fc1_q->itemq[i] = q->itemq[i];
        dl_matrixq_free(q);
    }
}

void network_free(network_t *net)
{
    for (int v = 0; v < 2; v++) {
        dl_matrix_free(net->conv[v]);
        dl_matrix_free(net->fc1[v]);
        dl_matrix_free(net->state_c[v]);
        dl_matrix_free(net->state_h[v]);
        dl_matrix_free(net->fc2[v]);
        dl_matrix_free(net->prob[v]);
    }
    dl_matrix_free(net->conv_f);
    dl_matrixq_free(net->conv_q);
    dl_matrixq_free(net->fc1_q);
    dl_matrixq_free(net->state_cq);
    dl_matrixq_free(net->state_hq);
    dl_matrixq_free(net->fc2_q);
    dl_matrixq_free(net->prob_q);
}
