#include "network.h"

#include <stdio.h>

#include "fw_model_f.h"
#include "fw_model_q.h"

const char *const network_variant_name[NETWORK_VARIANTS] = {"float", "quantised-weights", "fixed"};

static int missing;

static const dl_matrix2d_t *table_f(const char *name)
{
    const dl_matrix2d_t *m = get_coeff_fw_model_f.getter_f(name, NULL, 0);
    if (!m) {
        printf("table %s missing\n", name);
        missing = 1;
    }
    return m;
}

static const dl_matrix2dq_t *table_q(const char *name)
{
    const dl_matrix2dq_t *m = get_coeff_fw_model_q.getter_q(name, NULL, 0);
    if (!m) {
        printf("table %s missing\n", name);
        missing = 1;
    }
    return m;
}

static void trace(network_t *net, int variant, const char *name, const dl_matrix2d_t *f, const dl_matrix2dq_t *q)
{
    network_trace_t *t = &net->trace[variant];
    network_step_t s = {name, f, q};
    t->step[t->count++] = s;
}

int network_init(network_t *net)
{
    missing = 0;
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
    if (missing) return 0;

    for (int v = 0; v < NETWORK_VARIANTS; v++) net->trace[v].count = 0;
    net->conv_q = dl_matrixq_alloc(8, 6);
    net->conv[1] = dl_matrix_alloc(8, 6);
    trace(net, NETWORK_FIXED, "input", NULL, net->conv_q);
    trace(net, NETWORK_QUANTISED_WEIGHTS, "input", net->conv[1], NULL);
    return 1;
}

void network_run(network_t *net, int variant, const dl_matrix2d_t *in)
{
    switch (variant) {
    case NETWORK_FLOAT:
        break;
    case NETWORK_QUANTISED_WEIGHTS:
        dl_matrix2d_from_matrixq(net->conv_q, net->conv[1]);
        break;
    case NETWORK_FIXED:
        dl_matrixq_from_matrix2d(in, net->conv_q);
        break;
    }
}

void network_free(network_t *net)
{
    dl_matrixq_free(net->conv_q);
    dl_matrix_free(net->conv[1]);
}
