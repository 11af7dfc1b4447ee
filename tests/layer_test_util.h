// Helpers shared by the tests of the activations and the layers.
#ifndef DL_LIB_LAYER_TEST_UTIL_H
#define DL_LIB_LAYER_TEST_UTIL_H

#include <random>
#include <vector>

#include "dl_lib.h"
#include "test_util.h"

namespace layertest {

// A fixed-point matrix at exponent e from its items given row by row (as a
// reader writes them), stored column-major by dl_matrixq_alloc.
inline testutil::MatrixqPtr qmatrix(int w, int h, int e, const std::vector<int> &rows)
{
    testutil::MatrixqPtr m = testutil::own(dl_matrixq_alloc(w, h));
    for (int y = 0; y < h; y++)
        for (int x = 0; x < w; x++) m->itemq[y + m->stride * x] = static_cast<qtp_t>(rows[x + w * y]);
    m->exponent = e;
    return m;
}

inline int item(const dl_matrix2dq_t *m, int x, int y) { return m->itemq[y + m->stride * x]; }

// A w x h matrix of values uniform in [lo, hi).
inline testutil::MatrixPtr random_matrix(std::mt19937 &rng, int w, int h, float lo, float hi)
{
    std::uniform_real_distribution<float> d(lo, hi);
    testutil::MatrixPtr m = testutil::own(dl_matrix_alloc(w, h));
    for (int i = 0; i < w * h; i++) m->item[i] = d(rng);
    return m;
}

}  // namespace layertest

#endif
