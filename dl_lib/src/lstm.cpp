#include "dl_lib.h"

#include "dl_lib_internal.h"
#include "kernels_internal.h"

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
    int32_t largest() const { return hi > -lo ? hi : -lo; }
    // Whether dl_matrixq_check_sanity could warn about such items: fewer
    // than 11 bits used, or items at an end of the range, which may be
    // clipped ones. Only then is the check run on the items themselves.
    bool may_warn() const { return largest() < 1024 || hi >= dl::kItemMax || lo <= -dl::kItemMax; }
};

void check_if_needed(Extremes e, const dl_matrix2dq_t *m, const char *name)
{
    if (e.may_warn()) dl_matrixq_check_sanity(m, name);
}

// Items of one exponent brought to Q15 as the fixed-point activations align
// their input: right shifts round down and stop at 31; a left shift that
// leaves 32 bits gives +-(2^31 - 1).
class ToQ15 {
  public:
    explicit ToQ15(int exponent) : s_(exponent + 15), k_(-s_ < 31 ? -s_ : 31) {}
    // Inlined always: a call per item would cost as much as the shift.
    [[gnu::always_inline]] int32_t operator()(int32_t v) const { return s_ <= 0 ? v >> k_ : left(v); }

  private:
    int32_t left(int32_t v) const
    {
        if (s_ < 16) return dl::shl(v, s_);
        const int64_t w = static_cast<int64_t>(v) * (INT64_C(1) << (s_ < 32 ? s_ : 32));
        return w > INT32_MAX ? INT32_MAX : w < -INT32_MAX ? -INT32_MAX : static_cast<int32_t>(w);
    }
    int s_, k_;
};

[[gnu::always_inline]] inline qtp_t sigmoid_item(int32_t v, const ToQ15 &q15)
{
    return dl::low16(dl_sigmoid_op_q(q15(v)));
}
[[gnu::always_inline]] inline qtp_t tanh_item(int32_t v, const ToQ15 &q15) { return dl::low16(dl_tanh_op_q(q15(v))); }

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

// The passes below are kept out of line: inlined into the step, their loops
// lose their registers to the step's own values in a build for size and
// cost twice as much.

// How a pass walks records of one shape: one run of all items when every
// record lies back to back, else one run per column.
struct Walk {
    int runs, len;
    Walk(int w, int h, bool flat) : runs(flat ? 1 : w), len(flat ? w * h : h) {}
};

inline bool back_to_back(int w, int h, size_t stride) { return w <= 1 || stride == static_cast<size_t>(h); }

// out_data + bias in place, as dl_matrixq_add(out_data, bias, out_data, 1);
// returns the extremes of the sums.
[[gnu::noinline]] Extremes add_bias(dl_matrix2dq_t *out_data, const dl_matrix2dq_t *bias)
{
    const AlignedSum sum(out_data->exponent, bias->exponent);
    const Walk walk(out_data->w, out_data->h, dl::is_flat(out_data) && dl::is_flat(bias));
    int32_t hi = 0, lo = 0;
    for (int x = 0; x < walk.runs; x++) {
        qtp_t *o = out_data->itemq + static_cast<size_t>(out_data->stride) * x;
        const qtp_t *b = bias->itemq + static_cast<size_t>(bias->stride) * x;
        for (const qtp_t *end = o + walk.len; o != end; o++, b++) {
            const int32_t r = sum(*o, *b);
            *o = static_cast<qtp_t>(r);
            hi = r > hi ? r : hi;
            lo = r < lo ? r : lo;
        }
    }
    out_data->exponent = out_data->exponent > bias->exponent ? out_data->exponent : bias->exponent;
    return {hi, lo};
}

// f + one in place, after a right shift of n, with saturation, as
// dl_matrixq_add_const adds its constant; returns f's extremes after it.
[[gnu::noinline]] Extremes add_one(dl_matrix2dq_t *f, int32_t one, int n)
{
    const Walk walk(f->w, f->h, dl::is_flat(f));
    int32_t hi = 0, lo = 0;
    for (int x = 0; x < walk.runs; x++) {
        qtp_t *p = f->itemq + static_cast<size_t>(f->stride) * x;
        for (const qtp_t *end = p + walk.len; p != end; p++) {
            const int32_t r = one ? dl::saturate32((static_cast<int32_t>(*p) >> n) + one) : *p;
            *p = static_cast<qtp_t>(r);
            hi = r > hi ? r : hi;
            lo = r < lo ? r : lo;
        }
    }
    return {hi, lo};
}

// Where the processor has a vector kernel for the Q15 activations, the
// gates are activated whole, in place in out_data (the step's own scratch),
// before the passes, which then only multiply and add (Activated = true);
// the new cell's tanh goes into gate i, spent by then, between the update's
// two halves. Items, exponents and extremes are the same either way.

// The alignment shift of a kernel for items of exponent e, when it has one:
// right shifts stop at 31 as ToQ15's do.
bool kernel_shift(int e, int *s)
{
    *s = e + 15 < -31 ? -31 : e + 15;
    return dl::activation_q15_kernel(dl::detected_isa(), dl::Activation::sigmoid, nullptr, nullptr, 0, *s);
}

void activate(dl::Activation act, const qtp_t *in, qtp_t *out, int n, int s)
{
    dl::activation_q15_kernel(dl::detected_isa(), act, in, out, n, s);
}

// c * sigmoid(f) in place (exponent e_c - 15 + 16); returns c's extremes.
template <bool Activated>
[[gnu::noinline]] Extremes keep(dl_matrix2dq_t *c, const dl_matrix2dq_t *f)
{
    const ToQ15 q15(f->exponent);
    const Walk walk(c->w, c->h, dl::is_flat(c) && dl::is_flat(f));
    int32_t hi = 0, lo = 0;
    for (int x = 0; x < walk.runs; x++) {
        qtp_t *pc = c->itemq + static_cast<size_t>(c->stride) * x;
        const qtp_t *pf = f->itemq + static_cast<size_t>(f->stride) * x;
        for (const qtp_t *end = pc + walk.len; pc != end; pc++, pf++) {
            const int32_t r = mul_item(*pc, Activated ? *pf : sigmoid_item(*pf, q15));
            *pc = static_cast<qtp_t>(r);
            hi = r > hi ? r : hi;
            lo = r < lo ? r : lo;
        }
    }
    c->exponent += 1;
    return {hi, lo};
}

// The gates i, g and o: columns of out_data, `column` items apart, at one
// exponent.
struct GateColumns {
    qtp_t *i, *g, *o;
    size_t column;
    int exponent;
};

// c + sigmoid(i) * tanh(g) (the product at -14) in place, then
// h = tanh(c) * sigmoid(o) at -14; notes both states' extremes.
[[gnu::noinline]] void update(const GateColumns &gates, dl_matrix2dq_t *c, dl_matrix2dq_t *h, Extremes *cell,
                              Extremes *out)
{
    const AlignedSum sum(c->exponent, -14);
    int32_t c_hi = 0, c_lo = 0, h_hi = 0, h_lo = 0;
    const int e_c = c->exponent > -14 ? c->exponent : -14;
    const ToQ15 q15_c(e_c), q15_gates(gates.exponent);
    const Walk walk(c->w, c->h, dl::is_flat(c) && dl::is_flat(h) && back_to_back(c->w, c->h, gates.column));
    for (int x = 0; x < walk.runs; x++) {
        qtp_t *pc = c->itemq + static_cast<size_t>(c->stride) * x;
        qtp_t *ph = h->itemq + static_cast<size_t>(h->stride) * x;
        const size_t at = gates.column * x;
        const qtp_t *pi = gates.i + at, *pg = gates.g + at, *po = gates.o + at;
        for (int k = 0; k < walk.len; k++) {
            const int32_t ct = sum(pc[k], mul_item(sigmoid_item(pi[k], q15_gates), tanh_item(pg[k], q15_gates)));
            pc[k] = static_cast<qtp_t>(ct);
            c_hi = ct > c_hi ? ct : c_hi;
            c_lo = ct < c_lo ? ct : c_lo;
            const int32_t ht = mul_item(tanh_item(ct, q15_c), sigmoid_item(po[k], q15_gates));
            ph[k] = static_cast<qtp_t>(ht);
            h_hi = ht > h_hi ? ht : h_hi;
            h_lo = ht < h_lo ? ht : h_lo;
        }
    }
    c->exponent = e_c;
    h->exponent = -14;
    *cell = {c_hi, c_lo};
    *out = {h_hi, h_lo};
}

// The same on activated gates and records of one run each; s_c is the
// kernel's shift for the new cell's exponent.
[[gnu::noinline]] void update_activated(const GateColumns &gates, int s_c, dl_matrix2dq_t *c, dl_matrix2dq_t *h,
                                        Extremes *cell, Extremes *out)
{
    const AlignedSum sum(c->exponent, -14);
    int32_t c_hi = 0, c_lo = 0, h_hi = 0, h_lo = 0;
    const int n = c->w * c->h;
    for (int k = 0; k < n; k++) {
        const int32_t ct = sum(c->itemq[k], mul_item(gates.i[k], gates.g[k]));
        c->itemq[k] = static_cast<qtp_t>(ct);
        c_hi = ct > c_hi ? ct : c_hi;
        c_lo = ct < c_lo ? ct : c_lo;
    }
    activate(dl::Activation::tanh, c->itemq, gates.i, n, s_c);
    for (int k = 0; k < n; k++) {
        const int32_t ht = mul_item(gates.i[k], gates.o[k]);
        h->itemq[k] = static_cast<qtp_t>(ht);
        h_hi = ht > h_hi ? ht : h_hi;
        h_lo = ht < h_lo ? ht : h_lo;
    }
    c->exponent = c->exponent > -14 ? c->exponent : -14;
    h->exponent = -14;
    *cell = {c_hi, c_lo};
    *out = {h_hi, h_lo};
}

// Brings the largest magnitude of a state to 16383 or more, or halves the
// items once when some are clipped, as dl_matrixq_readjust_exp does; e are
// the state's extremes. The states' items lie within +-32767, so an extreme
// at an end of the range is a clipped item.
void readjust(dl_matrix2dq_t *m, Extremes e)
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
    const size_t column = static_cast<size_t>(out_data->stride), quarter = column * q;
    dl_matrix2dq_t gate_f = *out_data;
    gate_f.w = q;
    gate_f.flags = DL_MF_FOREIGNDATA;
    gate_f.itemq += 2 * quarter;
    const GateColumns gates = {out_data->itemq, out_data->itemq + quarter, out_data->itemq + 3 * quarter, column,
                               out_data->exponent};

    // f + 1.0, as dl_matrixq_add_const(f, 1.0f, 1): the constant in items
    // of f's exponent, truncated; halved with the items while beyond 32766.
    const int e = out_data->exponent;
    int32_t one = dl::trunc_i32(e < 0 ? dl::pow2f(-e) * 1.0f : 1.0f / dl::pow2f(e));
    int n = 0;
    if (one != 0) {
        while (one > 32766 || one < -32766) {
            n++;
            one /= 2;
        }
        gate_f.exponent += n;
    }
    check_if_needed(add_one(&gate_f, one, n), &gate_f, "lstm f after add_const");

    // The vector kernels take gates and states that lie in one run each.
    const int units = q * rows;
    const int e_c = state_c->exponent + 1 > -14 ? state_c->exponent + 1 : -14;  // the cell's, after keep
    int s_f, s_gates, s_c;
    const bool by_kernels = dl::kVectorKernels && dl::is_flat(state_c) && dl::is_flat(state_h) &&
                            back_to_back(q, rows, column) && kernel_shift(gate_f.exponent, &s_f) &&
                            kernel_shift(out_data->exponent, &s_gates) && kernel_shift(e_c, &s_c);
    if (by_kernels) {
        activate(dl::Activation::sigmoid, gate_f.itemq, gate_f.itemq, units, s_f);
        activate(dl::Activation::sigmoid, gates.i, gates.i, units, s_gates);
        activate(dl::Activation::tanh, gates.g, gates.g, units, s_gates);
        activate(dl::Activation::sigmoid, gates.o, gates.o, units, s_gates);
    }
    check_if_needed(by_kernels ? keep<true>(state_c, &gate_f) : keep<false>(state_c, &gate_f), state_c,
                    "lstm state_c after mul");
    Extremes cell, out;
    if (by_kernels) update_activated(gates, s_c, state_c, state_h, &cell, &out);
    else update(gates, state_c, state_h, &cell, &out);
    check_if_needed(cell, state_c, "lstm state_c after add");

    // Both states go to the next step at full precision.
    readjust(state_c, cell);
    readjust(state_h, out);

    dl_matrixq_free(concat);
    dl_matrixq_free(out_data);
    return state_h;
}
