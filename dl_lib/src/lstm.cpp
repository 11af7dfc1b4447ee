#include "dl_lib.h"

#include "dl_lib_internal.h"

// ---- LSTM cell -----------------------------------------------------------

namespace {

// The four gates of the cell: views of consecutive quarters of one product.
template <class M>
struct Gates {
    M *i, *g, *f, *o;
};

// The float cell after the product: out_data holds the four quarters of
// [in, state_h] x weight. The slices are freed here; out_data is not.
void float_lstm_cell(dl_matrix2d_t *out_data, const dl_matrix2d_t *bias, dl_matrix2d_t *state_c, dl_matrix2d_t *state_h)
{
    if (bias) dl_matrix_add(out_data, bias, out_data);
    const int q = out_data->w / 4;
    Gates<dl_matrix2d_t> gate;
    gate.i = dl_matrix_slice(out_data, 0, 0, q, out_data->h, nullptr);
    gate.g = dl_matrix_slice(out_data, q, 0, q, out_data->h, nullptr);
    gate.f = dl_matrix_slice(out_data, 2 * q, 0, q, out_data->h, nullptr);
    gate.o = dl_matrix_slice(out_data, 3 * q, 0, q, out_data->h, nullptr);
    DL_ASSERT(gate.i && gate.g && gate.f && gate.o);

    dl_matrix_add_const(gate.f, 1.0f);  // the forget gate's bias towards keeping
    dl_sigmoid(gate.f, gate.f);
    dl_sigmoid(gate.i, gate.i);
    dl_tanh(gate.g, gate.g);
    dl_matrix_mul(state_c, gate.f, state_c);
    dl_matrix_mul(gate.i, gate.g, gate.i);
    dl_matrix_add(state_c, gate.i, state_c);
    // i is spent: it takes tanh of the new cell state.
    dl_tanh(state_c, gate.i);
    dl_sigmoid(gate.o, gate.o);
    dl_matrix_mul(gate.i, gate.o, state_h);

    dl_matrix_free(gate.i);
    dl_matrix_free(gate.g);
    dl_matrix_free(gate.f);
    dl_matrix_free(gate.o);
}

}  // namespace

namespace {

// The float layers differ only in the product of [in, h] with the weights.
template <class Weight>
dl_matrix2d_t *float_lstm_layer(const dl_matrix2d_t *in, dl_matrix2d_t *state_c, dl_matrix2d_t *state_h,
                                const Weight *weight, const dl_matrix2d_t *bias,
                                void (*product)(const dl_matrix2d_t *, const Weight *, dl_matrix2d_t *))
{
    dl_matrix2d_t *concat = dl_matrix_concat(in, state_h);
    DL_ASSERT_ALLOCATED(concat);
    dl_matrix2d_t *out_data = dl_matrix_alloc(weight->w, concat->h);
    DL_ASSERT_ALLOCATED(out_data);
    product(concat, weight, out_data);
    float_lstm_cell(out_data, bias, state_c, state_h);
    dl_matrix_free(concat);
    dl_matrix_free(out_data);
    return state_h;
}

}  // namespace

dl_matrix2d_t *dl_basic_lstm_layer(const dl_matrix2d_t *in, dl_matrix2d_t *state_c, dl_matrix2d_t *state_h,
                                   const dl_matrix2d_t *weight, const dl_matrix2d_t *bias)
{
    return float_lstm_layer(in, state_c, state_h, weight, bias, dl_matrix_dot);
}

dl_matrix2d_t *dl_basic_lstm_layer_quantised_weights(const dl_matrix2d_t *in, dl_matrix2d_t *state_c,
                                                     dl_matrix2d_t *state_h, const dl_matrix2dq_t *weight,
                                                     const dl_matrix2d_t *bias)
{
    return float_lstm_layer(in, state_c, state_h, weight, bias, dl_matrix_matrixq_dot);
}

namespace {

// The smallest and the largest item a pass has written, both starting from
// 0 as the spread of a sanity check does.
struct Extremes {
    int32_t hi = 0, lo = 0;
    void see(int32_t v)
    {
        hi = v > hi ? v : hi;
        lo = v < lo ? v : lo;
    }
    int32_t largest() const { return hi > -lo ? hi : -lo; }
    // Whether dl_matrixq_check_sanity could warn about such items: fewer
    // than 11 bits used, or items at an end of the range, which may be
    // clipped ones. Only then is the check run on the items themselves.
    bool may_warn() const { return largest() < 1024 || hi >= dl::kItemMax || lo <= -dl::kItemMax; }
};

void check_if_needed(const Extremes &e, const dl_matrix2dq_t *m, const char *name)
{
    if (e.may_warn()) dl_matrixq_check_sanity(m, name);
}

// An item brought to Q15 by a shift of s, as the fixed-point activations
// align their input: right shifts round down and stop at 31; a left shift
// that leaves 32 bits gives +-(2^31 - 1).
inline int32_t to_q15(int32_t v, int s)
{
    if (s <= 0) return v >> (-s < 31 ? -s : 31);
    if (s < 16) return dl::shl(v, s);
    const int64_t w = static_cast<int64_t>(v) * (INT64_C(1) << (s < 32 ? s : 32));
    return w > INT32_MAX ? INT32_MAX : w < -INT32_MAX ? -INT32_MAX : static_cast<int32_t>(w);
}

inline qtp_t sigmoid_item(int32_t v, int s) { return dl::low16(dl_sigmoid_op_q(to_q15(v, s))); }
inline qtp_t tanh_item(int32_t v, int s) { return dl::low16(dl_tanh_op_q(to_q15(v, s))); }

// The upper half of the product of two items, rounded down, as
// dl_matrixq_mul forms it: the exponents add up, plus 16.
inline qtp_t mul_item(int32_t a, int32_t b) { return static_cast<qtp_t>((a * b) >> 16); }

// The saturating sum of two items of the exponents ea and eb, at the larger
// one: the other item is shifted right (rounding down) by the difference,
// at most 31, as dl_matrixq_add with shift 1 does.
struct AlignedSum {
    int ka, kb;
    AlignedSum(int ea, int eb)
    {
        const int d = ea >= eb ? ea - eb : eb - ea;
        const int k = d < 31 ? d : 31;
        ka = ea >= eb ? 0 : k;
        kb = ea >= eb ? k : 0;
    }
    qtp_t operator()(int32_t a, int32_t b) const { return static_cast<qtp_t>(dl::saturate32((a >> ka) + (b >> kb))); }
};

// out_data + bias in place, as dl_matrixq_add(out_data, bias, out_data, 1);
// returns the extremes of the sums.
Extremes add_bias(dl_matrix2dq_t *out_data, const dl_matrix2dq_t *bias)
{
    const AlignedSum sum(out_data->exponent, bias->exponent);
    Extremes e;
    dl::map_items(out_data, bias, out_data, [&](qtp_t a, qtp_t b) {
        const qtp_t r = sum(a, b);
        e.see(r);
        return r;
    });
    out_data->exponent = out_data->exponent > bias->exponent ? out_data->exponent : bias->exponent;
    return e;
}

// Brings the largest magnitude of a state to 16383 or more, or halves the
// items once when some are clipped, as dl_matrixq_readjust_exp does; e are
// the state's extremes. The states' items lie within +-32767, so an extreme
// at an end of the range is a clipped item.
void readjust(dl_matrix2dq_t *m, const Extremes &e)
{
    int32_t largest = e.largest();
    if (largest == 0) return;
    int adjust = 0;
    if (e.hi == dl::kItemMax || e.lo == -dl::kItemMax) {
        adjust = -1;
    } else {
        while (largest < 16383) {
            adjust++;
            largest *= 2;
        }
    }
    if (adjust == 0) return;
    if (adjust < 0) dl::map_items(m, m, [](qtp_t v) { return static_cast<qtp_t>(static_cast<int32_t>(v) >> 1); });
    else dl::map_items(m, m, [adjust](qtp_t v) { return static_cast<qtp_t>(dl::shl(v, adjust)); });
    m->exponent -= adjust;
}

}  // namespace

// The step is the composition of the library's operations: the product,
// the bias added with saturation, 1.0 added to the forget gate, the
// activations, state_c * f + i * g, tanh of that times o, and both states
// renormalised. It is computed unit by unit in a few passes rather than one
// pass per operation, with the same items and exponents at every stage.
// The sanity checks of the intermediate records run on the items only when
// the extremes the passes noted say that a check could warn; the checks of
// the renormalised states never can (their largest item is 16383 or more,
// none clipped), so they are left out.
dl_matrix2dq_t *dl_basic_lstm_layer_q(const dl_matrix2dq_t *in, dl_matrix2dq_t *state_c, dl_matrix2dq_t *state_h,
                                      const dl_matrix2dq_t *weight, const dl_matrix2dq_t *bias, int shift)
{
    dl_matrix2dq_t *concat = dl_matrixq_concat(in, state_h);
    DL_ASSERT_ALLOCATED(concat);
    dl_matrix2dq_t *out_data = dl_matrixq_alloc(weight->w, concat->h);
    DL_ASSERT_ALLOCATED(out_data);
    dl_matrixq_dot(concat, weight, out_data, shift);
    const int q = out_data->w / 4, rows = out_data->h;
    DL_ASSERT(state_c->w==q && state_c->h==rows);
    DL_ASSERT(state_h->w==q && state_h->h==rows);
    dl_matrixq_check_sanity(out_data, "lstm out_data");
    if (bias) {
        DL_ASSERT(dl_matrixq_same_shape(out_data, bias));
        check_if_needed(add_bias(out_data, bias), out_data, "lstm out_data after bias");
    }

    // The gates: quarters of out_data's columns, at its exponent.
    const int e_gates = out_data->exponent;
    const size_t column = static_cast<size_t>(out_data->stride), quarter = column * q;
    const qtp_t *gate_i = out_data->itemq, *gate_g = gate_i + quarter, *gate_o = gate_i + 3 * quarter;
    dl_matrix2dq_t gate_f = *out_data;
    gate_f.w = q;
    gate_f.flags = DL_MF_FOREIGNDATA;
    gate_f.itemq += 2 * quarter;

    // f + 1.0, as dl_matrixq_add_const(f, 1.0f, 1): the constant in items
    // of f's exponent, truncated; halved with the items while beyond 32766.
    const fptp_t units = e_gates < 0 ? dl::pow2f(-e_gates) * 1.0f : 1.0f / dl::pow2f(e_gates);
    int32_t one = dl::trunc_i32(units);
    int n = 0;
    if (one != 0) {
        while (one > 32766 || one < -32766) {
            n++;
            one /= 2;
        }
        gate_f.exponent += n;
    }
    Extremes forget;
    dl::map_items(&gate_f, &gate_f, [one, n, &forget](qtp_t item) {
        const qtp_t v = one ? static_cast<qtp_t>(dl::saturate32((static_cast<int32_t>(item) >> n) + one)) : item;
        forget.see(v);
        return v;
    });
    check_if_needed(forget, &gate_f, "lstm f after add_const");

    // state_c * sigmoid(f), in place: exponent e_c - 15 + 16.
    const int s_f = gate_f.exponent + 15, s_gates = e_gates + 15;
    Extremes kept;
    for (int x = 0; x < q; x++) {
        qtp_t *c = state_c->itemq + static_cast<size_t>(state_c->stride) * x;
        const qtp_t *f = gate_f.itemq + column * x;
        for (int y = 0; y < rows; y++) {
            c[y] = mul_item(c[y], sigmoid_item(f[y], s_f));
            kept.see(c[y]);
        }
    }
    state_c->exponent += 1;
    check_if_needed(kept, state_c, "lstm state_c after mul");

    // state_c + sigmoid(i) * tanh(g) (exponent -14), then
    // state_h = tanh(state_c) * sigmoid(o) at -14.
    const AlignedSum sum(state_c->exponent, -14);
    const int e_c = state_c->exponent > -14 ? state_c->exponent : -14, s_c = e_c + 15;
    Extremes cell, out;
    for (int x = 0; x < q; x++) {
        qtp_t *c = state_c->itemq + static_cast<size_t>(state_c->stride) * x;
        qtp_t *h = state_h->itemq + static_cast<size_t>(state_h->stride) * x;
        const size_t at = column * x;
        for (int y = 0; y < rows; y++) {
            const qtp_t ig = mul_item(sigmoid_item(gate_i[at + y], s_gates), tanh_item(gate_g[at + y], s_gates));
            const qtp_t ct = sum(c[y], ig);
            c[y] = ct;
            cell.see(ct);
            h[y] = mul_item(tanh_item(ct, s_c), sigmoid_item(gate_o[at + y], s_gates));
            out.see(h[y]);
        }
    }
    state_c->exponent = e_c;
    state_h->exponent = -14;
    check_if_needed(cell, state_c, "lstm state_c after add");

    // Both states go to the next step at full precision.
    readjust(state_c, cell);
    readjust(state_h, out);

    dl_matrixq_free(concat);
    dl_matrixq_free(out_data);
    return state_h;
}
