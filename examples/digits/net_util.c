#include "net_util.h"

const dl_matrix2d_t *net_table_f(const model_coeff_getter_t *model, const char *name)
{
    return model->getter_f ? model->getter_f(name, NULL, 0) : NULL;
}

const dl_matrix2dq_t *net_table_q(const model_coeff_getter_t *model, const char *name)
{
    return model->getter_q ? model->getter_q(name, NULL, 0) : NULL;
}

dl_matrix2d_t net_view(const fptp_t *items, int w, int h)
{
    dl_matrix2d_t m = {w, h, w, DL_MF_FOREIGNDATA, (fptp_t *)items};
    return m;
}

int net_argmax_f(const dl_matrix2d_t *scores)
{
    int best = 0;
    for (int x = 1; x < scores->w; x++)
        if (scores->item[x] > scores->item[best]) best = x;
    return best;
}

int net_argmax_q(const dl_matrix2dq_t *scores)
{
    int best = 0;
    for (int x = 1; x < scores->w; x++)
        if (scores->itemq[scores->stride * x] > scores->itemq[scores->stride * best]) best = x;
    return best;
}
