#include "kws_lstm.h"

#include <string.h>

#include "lstm_net.h"
#include "lstm_q.h"
#ifndef KWS_FIXED_ONLY
#include "lstm_f.h"
#include "lstm_qw.h"
#endif

#define WORDS 10

static struct {
    const dl_matrix2d_t *w, *b, *fc_w, *fc_b, *qw_b, *qw_fc_b;
    const dl_matrix2dq_t *qw_w, *qw_fc_w, *q_w, *q_b, *q_fc_w, *q_fc_b;
    dl_matrix2d_t *c[2], *h[2], *logits[2]; /* float, quantised weights */
    dl_matrix2dq_t *q_c, *q_h, *q_logits;
    dl_matrix2d_t *q_logits_f;
} net;

static const char *missing;

static const void *check(const void *table, const char *name)
{
    if (!table && !missing) missing = name;
    return table;
}

#define TABLE_F(pair, name) check((pair).getter_f ? (pair).getter_f(name, NULL, 0) : NULL, name)
#define TABLE_Q(pair, name) check((pair).getter_q ? (pair).getter_q(name, NULL, 0) : NULL, name)

const char *kws_lstm_init(void)
{
    missing = NULL;
#ifndef KWS_FIXED_ONLY
    net.w = TABLE_F(get_coeff_lstm_f, "lstm_w");
    net.b = TABLE_F(get_coeff_lstm_f, "lstm_b");
    net.fc_w = TABLE_F(get_coeff_lstm_f, "lstm_fc_w");
    net.fc_b = TABLE_F(get_coeff_lstm_f, "lstm_fc_b");
    net.qw_w = TABLE_Q(get_coeff_lstm_qw, "lstm_w");
    net.qw_b = TABLE_F(get_coeff_lstm_qw, "lstm_b");
    net.qw_fc_w = TABLE_Q(get_coeff_lstm_qw, "lstm_fc_w");
    net.qw_fc_b = TABLE_F(get_coeff_lstm_qw, "lstm_fc_b");
    for (int v = 0; v < 2; v++) {
        net.c[v] = dl_matrix_alloc(LSTM_UNITS, 1);
        net.h[v] = dl_matrix_alloc(LSTM_UNITS, 1);
        net.logits[v] = dl_matrix_alloc(KWS_CLASSES, 1);
    }
#endif
    net.q_w = TABLE_Q(get_coeff_lstm_q, "lstm_w");
    net.q_b = TABLE_Q(get_coeff_lstm_q, "lstm_b");
    net.q_fc_w = TABLE_Q(get_coeff_lstm_q, "lstm_fc_w");
    net.q_fc_b = TABLE_Q(get_coeff_lstm_q, "lstm_fc_b");
    if (missing) return missing;
    net.q_c = dl_matrixq_alloc(LSTM_UNITS, 1);
    net.q_h = dl_matrixq_alloc(LSTM_UNITS, 1);
    net.q_logits = dl_matrixq_alloc(KWS_CLASSES, 1);
    net.q_logits_f = dl_matrix_alloc(KWS_CLASSES, 1);
    kws_lstm_reset();
    return NULL;
}

void kws_lstm_free(void)
{
    for (int v = 0; v < 2; v++) {
        dl_matrix_free(net.c[v]);
        dl_matrix_free(net.h[v]);
        dl_matrix_free(net.logits[v]);
    }
    dl_matrixq_free(net.q_c);
    dl_matrixq_free(net.q_h);
    dl_matrixq_free(net.q_logits);
    dl_matrix_free(net.q_logits_f);
    memset(&net, 0, sizeof net);
}

void kws_lstm_reset(void)
{
    for (int v = 0; v < 2; v++)
        if (net.c[v]) {
            dl_matrix_zero(net.c[v]);
            dl_matrix_zero(net.h[v]);
        }
    /* Fresh records' exponent, so that the first step takes the input's. */
    dl_matrixq_zero(net.q_c);
    dl_matrixq_zero(net.q_h);
    net.q_c->exponent = net.q_h->exponent = -31;
}

static void scores_of(dl_matrix2d_t *logits, fptp_t *scores)
{
    dl_softmax(logits, logits);
    memcpy(scores, logits->item, WORDS * sizeof *scores);
}

void kws_lstm_float(void *user, const dl_matrix2d_t *frame, fptp_t *scores)
{
    (void)user;
    dl_basic_lstm_layer(frame, net.c[0], net.h[0], net.w, net.b);
    dl_fully_connect_layer(net.h[0], net.fc_w, net.fc_b, net.logits[0]);
    scores_of(net.logits[0], scores);
}

void kws_lstm_quantised_weights(void *user, const dl_matrix2d_t *frame, fptp_t *scores)
{
    (void)user;
    dl_basic_lstm_layer_quantised_weights(frame, net.c[1], net.h[1], net.qw_w, net.qw_b);
    dl_fully_connect_layer_quantised_weight(net.h[1], net.qw_fc_w, net.qw_fc_b, net.logits[1]);
    scores_of(net.logits[1], scores);
}

void kws_lstm_fixed(void *user, const dl_matrix2dq_t *frame, fptp_t *scores)
{
    (void)user;
    dl_basic_lstm_layer_q(frame, net.q_c, net.q_h, net.q_w, net.q_b, LSTM_SHIFT);
    dl_fully_connect_layer_q(net.q_h, net.q_fc_w, net.q_fc_b, net.q_logits, LSTM_FC_SHIFT);
    /* Items times a power of two: exact in float, on every target. */
    dl_matrix2d_from_matrixq(net.q_logits, net.q_logits_f);
    scores_of(net.q_logits_f, scores);
}

const fptp_t *kws_lstm_probabilities(kws_format_t format)
{
    switch (format) {
    case KWS_FLOAT: return net.logits[0]->item;
    case KWS_QUANTISED_WEIGHTS: return net.logits[1]->item;
    default: return net.q_logits_f->item;
    }
}
