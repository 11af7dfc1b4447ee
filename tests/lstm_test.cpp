#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "dl_lib.h"
#include "reference.h"

using namespace testutil;
using namespace ref;

namespace {

// ---- Float reference -----------------------------------------------------

// The gate inputs before the bias, `columns` per row, from the joined rows
// [in, state_h] (rows x k, row-major).
using Product = std::function<std::vector<float>(const std::vector<float> &joined, int rows, int k, int columns)>;

// The float product sums in ascending k from 0.0.
Product float_product(const dl_matrix2d_t *w)
{
    return [w](const std::vector<float> &joined, int rows, int k, int columns) {
        std::vector<float> z(static_cast<size_t>(rows * columns));
        for (int y = 0; y < rows; y++)
            for (int x = 0; x < columns; x++) {
                z[x + columns * y] = ordered_dot(
                    k, [&](int j) { return joined[j + k * y]; }, [&](int j) { return w->item[x + w->stride * j]; });
            }
        return z;
    };
}

// The joined rows quantised as a whole; each exact fixed-point sum with the
// weight's items is rounded once to float and scaled.
Product quantised_product(const dl_matrix2dq_t *w)
{
    return [w](const std::vector<float> &joined, int rows, int k, int columns) {
        std::vector<float> buf(joined);
        MatrixPtr m = own(dl_matrix_from_data(k, rows, k, buf.data()));
        MatrixqPtr q = own(dl_matrixq_from_matrix2d(m.get(), nullptr));
        const float scale = std::ldexp(1.0f, q->exponent + w->exponent);
        std::vector<float> z(static_cast<size_t>(rows * columns));
        for (int y = 0; y < rows; y++)
            for (int x = 0; x < columns; x++) {
                const int64_t sum = exact_sum(
                    k, [&](int j) { return item(q.get(), j, y); }, [&](int j) { return item(w, x, j); });
                z[x + columns * y] = static_cast<float>(sum) * scale;
            }
        return z;
    };
}

// One time step written as the cell's formulas, element by element, with
// the scalar activations (pinned by their own tests).
void reference_cell(const dl_matrix2d_t *in, std::vector<float> &c, std::vector<float> &h, int units, int columns,
                    const Product &product, const dl_matrix2d_t *bias)
{
    const int rows = in->h, k = in->w + units;
    std::vector<float> joined;
    for (int y = 0; y < rows; y++) {
        for (int j = 0; j < in->w; j++) joined.push_back(in->item[j + in->stride * y]);
        for (int j = 0; j < units; j++) joined.push_back(h[j + units * y]);
    }
    std::vector<float> z = product(joined, rows, k, columns);
    for (int y = 0; y < rows; y++) {
        const float *zy = z.data() + columns * y;
        for (int u = 0; u < units; u++) {
            auto pre = [&](int quarter) {
                return zy[quarter * units + u] + (bias ? bias->item[quarter * units + u + bias->stride * y] : 0.0f);
            };
            const float i = dl_sigmoid_op(pre(0));
            const float g = dl_tanh_op(pre(1));
            const float f = dl_sigmoid_op(pre(2) + 1.0f);
            const float o = dl_sigmoid_op(pre(3));
            float &cell = c[u + units * y];
            const float kept = cell * f;
            const float added = i * g;
            cell = kept + added;
            h[u + units * y] = dl_tanh_op(cell) * o;
        }
    }
}

struct LstmCase {
    int rows, inputs, units, extra_columns;
    bool bias;
};

void PrintTo(const LstmCase &c, std::ostream *os)
{
    *os << c.rows << " rows, " << c.inputs << " inputs, " << c.units << " units" << (c.bias ? ", bias" : "")
        << (c.extra_columns ? ", extra columns" : "");
}

class LstmReferenceTest : public testing::TestWithParam<LstmCase> {
  protected:
    // Three steps of a variant beside the reference, both states compared
    // exactly after each.
    template <class Step>
    void run(const Product &product, Step step)
    {
        const LstmCase &p = GetParam();
        std::mt19937 rng(static_cast<unsigned>(p.rows * 100 + p.units));
        const int columns = 4 * p.units + p.extra_columns;
        MatrixPtr b = random_matrix(rng, columns, p.rows, -1.0f, 1.0f);
        MatrixPtr c = random_matrix(rng, p.units, p.rows, -2.0f, 2.0f);
        MatrixPtr h = random_matrix(rng, p.units, p.rows, -1.0f, 1.0f);
        const dl_matrix2d_t *bias = p.bias ? b.get() : nullptr;
        std::vector<float> ref_c = items_of(c.get()), ref_h = items_of(h.get());
        for (int t = 0; t < 3; t++) {
            MatrixPtr in = random_matrix(rng, p.inputs, p.rows, -3.0f, 3.0f);
            const std::vector<float> in_before = items_of(in.get());
            reference_cell(in.get(), ref_c, ref_h, p.units, columns, product, bias);
            EXPECT_EQ(step(in.get(), c.get(), h.get(), bias), h.get());
            EXPECT_EQ(items_of(c.get()), ref_c) << "state_c, step " << t;
            EXPECT_EQ(items_of(h.get()), ref_h) << "state_h, step " << t;
            EXPECT_EQ(items_of(in.get()), in_before);
        }
    }

    MatrixPtr random_weight(unsigned seed)
    {
        const LstmCase &p = GetParam();
        std::mt19937 rng(seed);
        return random_matrix(rng, 4 * p.units + p.extra_columns, p.inputs + p.units, -0.5f, 0.5f);
    }
};

TEST_P(LstmReferenceTest, FloatCell)
{
    MatrixPtr w = random_weight(7);
    run(float_product(w.get()), [&](const dl_matrix2d_t *in, dl_matrix2d_t *c, dl_matrix2d_t *h,
                                    const dl_matrix2d_t *b) { return dl_basic_lstm_layer(in, c, h, w.get(), b); });
}

TEST_P(LstmReferenceTest, QuantisedWeightCell)
{
    MatrixPtr wf = random_weight(8);
    MatrixqPtr w = own(dl_matrixq_from_matrix2d(wf.get(), nullptr));
    run(quantised_product(w.get()),
        [&](const dl_matrix2d_t *in, dl_matrix2d_t *c, dl_matrix2d_t *h, const dl_matrix2d_t *b) {
            return dl_basic_lstm_layer_quantised_weights(in, c, h, w.get(), b);
        });
}

INSTANTIATE_TEST_SUITE_P(Shapes, LstmReferenceTest,
                         testing::Values(LstmCase{1, 5, 4, 0, true}, LstmCase{1, 3, 6, 0, false},
                                         LstmCase{3, 4, 2, 0, true},
                                         // q = 13 / 4 = 3: the last column is computed and left out.
                                         LstmCase{1, 2, 3, 1, true}));

// ---- Fixed point ---------------------------------------------------------

// One unit, one row, one input: the two states after one step, as state_c's
// item and exponent, then state_h's.
using States = std::tuple<int, int, int, int>;

States q_step(const std::vector<int> &weight, int w_exponent, const std::vector<int> *bias, int b_exponent, int c_item,
              int c_exponent, int shift, std::string *errors)
{
    MatrixqPtr in = qmatrix(1, 1, -15, {16384});
    MatrixqPtr c = qmatrix(1, 1, c_exponent, {c_item}), h = qmatrix(1, 1, -15, {0});
    MatrixqPtr w = qmatrix(4, 2, w_exponent, weight);
    MatrixqPtr b = bias ? qmatrix(4, 1, b_exponent, *bias) : own(static_cast<dl_matrix2dq_t *>(nullptr));
    testing::internal::CaptureStderr();
    EXPECT_EQ(dl_basic_lstm_layer_q(in.get(), c.get(), h.get(), w.get(), b.get(), shift), h.get());
    *errors = testing::internal::GetCapturedStderr();
    EXPECT_EQ(item(in.get(), 0, 0), 16384);
    return {item(c.get(), 0, 0), c->exponent, item(h.get(), 0, 0), h->exponent};
}

TEST(LstmQ, ExponentTrailWithZeroWeight)
{
    // Gates: f = sigmoid(1.0) = 23950, i = o = sigmoid(0) = 16382, g = 0,
    // all at -15 (f's 1.0 is added at out_data's exponent, -15 - 15 + 16).
    // state_c 1.0 (16384 at -14) times f: 5987 at -14 - 15 + 16 = -13; plus
    // i * g (0 at -14) stays at the larger -13. tanh of 5987 << 2 in Q15,
    // times o: 5090 at -14 for state_h. Readjusted: c 23948 at -15 and
    // h 20360 at -16 (0.7308 and 0.3107).
    std::string errors;
    const std::vector<int> zero(8, 0);
    EXPECT_EQ(q_step(zero, -15, nullptr, 0, 16384, -14, 0, &errors), States(23948, -15, 20360, -16));
    EXPECT_EQ(dl_tanh_op_q(23948), 20365);
    EXPECT_EQ((20365 * 16382) >> 16, 5090);
    EXPECT_EQ(errors, "");
}

TEST(LstmQ, ExponentTrailWithSaturatedGates)
{
    // A bias of 8, 4, 8, 8 at -11 drives every gate to 32767 (f to 9.0).
    // state_c 32767 at -16 times f: 16383 at -15; i * g: 16383 at -14. The
    // sum takes the larger -14 and halves state_c's items: 8191 + 16383 =
    // 24574, which the readjustment keeps. state_h: tanh(1.49997) * 32767 at
    // -14, raised one bit by the readjustment.
    std::string errors;
    const std::vector<int> zero(8, 0), bias = {16384, 8192, 16384, 16384};
    const int h = (dl_tanh_op_q(24574 << 1) * 32767) >> 16;
    EXPECT_EQ(q_step(zero, -15, &bias, -11, 32767, -16, 0, &errors), States(24574, -14, h << 1, -15));
    EXPECT_EQ(errors, "");
}

TEST(LstmQ, SanityLabels)
{
    // A product of tiny items (shifted by 13, not 16) uses a few bits only: the warnings
    // name the step, and "after bias" appears only with a bias.
    std::string errors;
    const std::vector<int> tiny = {1, 2, 3, 1, 1, 2, 3, 1};
    const std::vector<int> bias = {1, 1, 1, 1};
    q_step(tiny, -15, nullptr, 0, 0, -15, 3, &errors);
    EXPECT_NE(errors.find("CheckSanity: lstm out_data: only "), std::string::npos) << errors;
    EXPECT_EQ(errors.find("after bias"), std::string::npos) << errors;
    q_step(tiny, -15, &bias, -14, 0, -15, 3, &errors);
    EXPECT_NE(errors.find("CheckSanity: lstm out_data after bias: only "), std::string::npos) << errors;
}

// ---- Fixed point against the library's operations -------------------------

// The fixed-point step as the composition of the library's operations, one
// pass each: dl_basic_lstm_layer_q must give the same items, exponents and
// warnings.
void composed_step_q(const dl_matrix2dq_t *in, dl_matrix2dq_t *c, dl_matrix2dq_t *h, const dl_matrix2dq_t *weight,
                     const dl_matrix2dq_t *bias, int shift)
{
    MatrixqPtr concat = own(dl_matrixq_concat(in, h));
    MatrixqPtr out = own(dl_matrixq_alloc(weight->w, concat->h));
    dl_matrixq_dot(concat.get(), weight, out.get(), shift);
    dl_matrixq_check_sanity(out.get(), "lstm out_data");
    if (bias) {
        dl_matrixq_add(out.get(), bias, out.get(), 1);
        dl_matrixq_check_sanity(out.get(), "lstm out_data after bias");
    }
    const int q = out->w / 4;
    MatrixqPtr i = own(dl_matrixq_slice(out.get(), 0, 0, q, out->h, nullptr));
    MatrixqPtr g = own(dl_matrixq_slice(out.get(), q, 0, q, out->h, nullptr));
    MatrixqPtr f = own(dl_matrixq_slice(out.get(), 2 * q, 0, q, out->h, nullptr));
    MatrixqPtr o = own(dl_matrixq_slice(out.get(), 3 * q, 0, q, out->h, nullptr));
    dl_matrixq_add_const(f.get(), 1.0f, 1);
    dl_matrixq_check_sanity(f.get(), "lstm f after add_const");
    dl_sigmoid_q(f.get(), f.get());
    dl_sigmoid_q(i.get(), i.get());
    dl_tanh_q(g.get(), g.get());
    dl_matrixq_mul(c, f.get(), c);
    dl_matrixq_check_sanity(c, "lstm state_c after mul");
    dl_matrixq_mul(i.get(), g.get(), i.get());
    dl_matrixq_add(c, i.get(), c, 1);
    dl_matrixq_check_sanity(c, "lstm state_c after add");
    dl_tanh_q(c, i.get());
    dl_sigmoid_q(o.get(), o.get());
    dl_matrixq_mul(i.get(), o.get(), h);
    dl_matrixq_readjust_exp(c);
    dl_matrixq_check_sanity(c, "lstm state_c after exp readjust");
    dl_matrixq_readjust_exp(h);
    dl_matrixq_check_sanity(h, "lstm state_h after exp readjust");
}

struct QCase {
    const char *name;
    int rows, inputs, units, extra_columns;
    bool bias;
    int e_weight, e_bias, e_state, shift;
    int limit;   // items of in, weight and bias within +-limit (0: any item)
    bool views;  // the states lie in wider columns, as slices of larger records
};

class LstmQComposedTest : public testing::TestWithParam<QCase> {};

// Collects the sanity warnings of a run.
void collect(const char *text, void *arg) { *static_cast<std::string *>(arg) += text; }

TEST_P(LstmQComposedTest, SameItemsExponentsAndWarnings)
{
    const QCase &p = GetParam();
    Rng rng(static_cast<unsigned>(p.rows * 1000 + p.units * 10 + p.e_state + 40));
    // Operands at dl_matrixq_alloc's strides.
    const auto operand = [&](int w, int h, int e, int limit) {
        ItemBox b(w, h, h > 1 ? h % 2 : 0, e);
        b.each([&](int) { return limit ? uniform(rng, -limit, limit) : any_item(rng); });
        return b;
    };
    const int columns = 4 * p.units + p.extra_columns, state_pad = p.views ? 3 : p.rows > 1 ? p.rows % 2 : 0;
    ItemBox w = operand(columns, p.inputs + p.units, p.e_weight, p.limit);
    ItemBox b = operand(columns, p.rows, p.e_bias, p.limit);
    ItemBox c(rng, p.units, p.rows, state_pad, p.e_state), h(rng, p.units, p.rows, state_pad, p.e_state);
    ItemBox rc = c, rh = h;
    for (int t = 0; t < 4; t++) {
        ItemBox in = operand(p.inputs, p.rows, -15, p.limit);
        std::string want, got;
        dl_set_sanity_handler(collect, &want);
        composed_step_q(&in.m, &rc.m, &rh.m, &w.m, p.bias ? &b.m : nullptr, p.shift);
        dl_set_sanity_handler(collect, &got);
        EXPECT_EQ(dl_basic_lstm_layer_q(&in.m, &c.m, &h.m, &w.m, p.bias ? &b.m : nullptr, p.shift), &h.m);
        dl_set_sanity_handler(nullptr, nullptr);
        EXPECT_EQ(got, want) << "step " << t;
        EXPECT_TRUE(p.limit == 0 || want != "");  // small items do make the checks warn
        ASSERT_EQ(state(&c.m), state(&rc.m)) << "step " << t;
        ASSERT_EQ(state(&h.m), state(&rh.m)) << "step " << t;
        ASSERT_TRUE(c.margins_intact() && h.margins_intact());
    }
}

// Exponents that put the gates on the flat ends, in the middle and near 0;
// small items make every check warn, any items saturate the sums. The first
// row is the digits example's shape; each other reaches branches no other does.
INSTANTIATE_TEST_SUITE_P(Cases, LstmQComposedTest,
                         testing::Values(QCase{"digits_shape", 1, 8, 32, 0, true, -15, -15, -15, 0, 0, false},
                                         QCase{"odd_rows_views_extra_columns", 3, 5, 7, 3, true, -14, -11, -16, 2, 0,
                                               true},
                                         QCase{"bias_finer", 2, 4, 5, 0, true, -12, -20, -31, 0, 0, false},
                                         QCase{"large_gates", 1, 6, 9, 1, true, -8, -9, 2, 0, 0, false},
                                         QCase{"tiny_no_bias", 1, 3, 4, 0, false, -15, -15, -15, 3, 8, true},
                                         QCase{"coarse_state", 1, 8, 16, 0, true, -15, -3, 10, 19, 0, false}),
                         CaseName());

}  // namespace
