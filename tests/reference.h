// Reference arithmetic and operands for the tests of the library's numbers:
// the ordered float product and the exact fixed-point sum as the library
// defines them, and records that reach the awkward corners (views with a
// wider stride, odd fixed-point heights, sentinels around them).
#ifndef DL_LIB_TEST_REFERENCE_H
#define DL_LIB_TEST_REFERENCE_H

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <random>
#include <utility>
#include <vector>

#include "dl_lib.h"
#include "kernels_internal.h"
#include "test_util.h"

namespace dl {
// Names the product path in the messages of parameterised tests.
inline void PrintTo(Isa isa, std::ostream *os) { *os << isa_name(isa); }
}  // namespace dl

namespace ref {

using Rng = std::mt19937;

// A test of one product path or instruction-set kernel, parameterised by
// the path: skipped where the path is not built or the processor lacks it.
class IsaTest : public testing::TestWithParam<dl::Isa> {
  protected:
    void SetUp() override
    {
        if (!dl::isa_usable(GetParam())) GTEST_SKIP() << dl::isa_name(GetParam()) << " not built or not supported here";
    }
};

// The float product of k terms: a float accumulator from 0.0, ascending
// index, each step rounded as acc = a(j) * b(j) + acc.
template <class A, class B>
float ordered_dot(int k, A a, B b)
{
    float acc = 0.0f;
    for (int j = 0; j < k; j++) acc = a(j) * b(j) + acc;
    return acc;
}

// The fixed-point product of k terms, summed exactly in 64 bits.
template <class A, class B>
int64_t exact_sum(int k, A a, B b)
{
    int64_t sum = 0;
    for (int j = 0; j < k; j++) sum += static_cast<int64_t>(a(j)) * static_cast<int64_t>(b(j));
    return sum;
}

// The default right shift of a product of k terms: 15, plus one for each
// halving of k down to 1.
inline int product_shift(int k)
{
    int s = 15;
    for (; k > 1; k /= 2) s++;
    return s;
}

// Symmetric saturation to a 16-bit item.
inline int32_t clamp(int64_t t) { return t > 32767 ? 32767 : t < -32767 ? -32767 : static_cast<int32_t>(t); }

inline int uniform(Rng &rng, int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); }

inline uint32_t bits(float f)
{
    uint32_t u;
    memcpy(&u, &f, sizeof u);
    return u;
}

// Bitwise equality, except that any NaN equals any NaN: the payload of a NaN
// made from two NaNs depends on operand order, which no path promises.
inline bool same_float(float a, float b) { return bits(a) == bits(b) || (std::isnan(a) && std::isnan(b)); }

// Mostly ordinary values, with signed zeros, small integers, subnormals and
// values large enough to overflow in a product mixed in.
inline float any_float(Rng &rng)
{
    switch (uniform(rng, 0, 19)) {
    case 0: return uniform(rng, 0, 1) ? 0.0f : -0.0f;
    case 1: return static_cast<float>(uniform(rng, -4, 4));
    case 2: return std::ldexp(static_cast<float>(uniform(rng, -100, 100)), -140);
    case 3: return std::ldexp(static_cast<float>(uniform(rng, -100, 100)), 90);
    default: return std::uniform_real_distribution<float>(-2.0f, 2.0f)(rng);
    }
}

// Items with the extremes 32767, -32767 and -32768 and the smallest ones
// well represented.
inline qtp_t any_item(Rng &rng)
{
    static const qtp_t corners[] = {32767, -32767, -32768, 0, 1, -1, 16383, -16384};
    switch (uniform(rng, 0, 5)) {
    case 0: return corners[uniform(rng, 0, 7)];
    case 1: return static_cast<qtp_t>(uniform(rng, -64, 64));
    default: return static_cast<qtp_t>(uniform(rng, -32768, 32767));
    }
}

// Where an element-wise result goes: a fresh record, or over an operand.
enum class Into { fresh, a, b };

inline void PrintTo(Into into, std::ostream *os)
{
    *os << (into == Into::a ? "over_a" : into == Into::b ? "over_b" : "fresh");
}

constexpr float kFloatSentinel = -12345.5f;
constexpr qtp_t kItemSentinel = 0x5a5a;

// A w x h float matrix inside a buffer with `pad` spare items after each row
// and before the first: stride w + pad.
struct FloatBox {
    std::vector<float> buf;
    dl_matrix2d_t m;

    FloatBox(int w, int h, int pad) : buf(static_cast<size_t>((w + pad) * h + pad), kFloatSentinel)
    {
        m = {w, h, w + pad, DL_MF_FOREIGNDATA, buf.data() + pad};
    }
    FloatBox(Rng &rng, int w, int h, int pad) : FloatBox(w, h, pad)
    {
        for (int y = 0; y < h; y++)
            for (int x = 0; x < w; x++) at(x, y) = any_float(rng);
    }
    FloatBox(const FloatBox &o) : buf(o.buf), m(o.m) { m.item = buf.data() + (o.m.item - o.buf.data()); }
    FloatBox &operator=(const FloatBox &) = delete;
    float &at(int x, int y) { return m.item[x + m.stride * y]; }
    // True when no item outside the matrix has changed.
    bool margins_intact() const
    {
        for (size_t i = 0; i < buf.size(); i++) {
            const long off = static_cast<long>(i) - (m.item - buf.data());
            const bool inside = m.w > 0 && m.h > 0 && off >= 0 && off % m.stride < m.w && off / m.stride < m.h;
            if (!inside && bits(buf[i]) != bits(kFloatSentinel)) return false;
        }
        return true;
    }
};

// A w x h fixed-point matrix inside a buffer: stride h + pad, so pad 0 gives
// the odd strides of generated tables and pad 1 those of dl_matrixq_alloc.
struct ItemBox {
    std::vector<qtp_t> buf;
    dl_matrix2dq_t m;

    ItemBox(int w, int h, int pad, int exponent = 0) : buf(static_cast<size_t>((h + pad) * w + pad), kItemSentinel)
    {
        m = {w, h, h + pad, DL_MF_FOREIGNDATA, exponent, buf.data() + pad};
    }
    ItemBox(Rng &rng, int w, int h, int pad, int exponent) : ItemBox(w, h, pad, exponent)
    {
        for (int x = 0; x < w; x++)
            for (int y = 0; y < h; y++) at(x, y) = any_item(rng);
    }
    ItemBox(const ItemBox &o) : buf(o.buf), m(o.m) { m.itemq = buf.data() + (o.m.itemq - o.buf.data()); }
    ItemBox &operator=(const ItemBox &) = delete;
    qtp_t &at(int x, int y) { return m.itemq[y + m.stride * x]; }
    template <class F>
    void each(F f)
    {
        for (int x = 0; x < m.w; x++)
            for (int y = 0; y < m.h; y++) at(x, y) = static_cast<qtp_t>(f(at(x, y)));
    }
    bool margins_intact() const
    {
        for (size_t i = 0; i < buf.size(); i++) {
            const long off = static_cast<long>(i) - (m.itemq - buf.data());
            const bool inside = m.w > 0 && m.h > 0 && off >= 0 && off % m.stride < m.h && off / m.stride < m.w;
            if (!inside && buf[i] != kItemSentinel) return false;
        }
        return true;
    }
};

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

// A fixed-point record's items row by row (as qmatrix takes them) and its
// exponent, for one comparison of both.
using QState = std::pair<std::vector<int>, int>;

inline QState state(const dl_matrix2dq_t *m)
{
    QState s{{}, m->exponent};
    for (int y = 0; y < m->h; y++)
        for (int x = 0; x < m->w; x++) s.first.push_back(item(m, x, y));
    return s;
}

// A tensor's items in storage order and its exponent.
inline QState state(const dl_matrix3dq_t *t)
{
    return {std::vector<int>(t->item, t->item + static_cast<size_t>(t->n) * t->w * t->h * t->c), t->exponent};
}

// A w x h matrix of values uniform in [lo, hi).
inline testutil::MatrixPtr random_matrix(Rng &rng, int w, int h, float lo, float hi)
{
    std::uniform_real_distribution<float> d(lo, hi);
    testutil::MatrixPtr m = testutil::own(dl_matrix_alloc(w, h));
    for (int i = 0; i < w * h; i++) m->item[i] = d(rng);
    return m;
}

}  // namespace ref

#endif
