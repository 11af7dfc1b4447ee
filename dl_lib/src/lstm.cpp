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

dl_matrix2dq_t *dl_basic_lstm_layer_q(const dl_matrix2dq_t *in, dl_matrix2dq_t *state_c, dl_matrix2dq_t *state_h,
                                      const dl_matrix2dq_t *weight, const dl_matrix2dq_t *bias, int shift)
{
    dl_matrix2dq_t *concat = dl_matrixq_concat(in, state_h);
    DL_ASSERT_ALLOCATED(concat);
    dl_matrix2dq_t *out_data = dl_matrixq_alloc(weight->w, concat->h);
    DL_ASSERT_ALLOCATED(out_data);
    dl_matrixq_dot(concat, weight, out_data, shift);
    dl_matrixq_check_sanity(out_data, "lstm out_data");
    if (bias) {
        dl_matrixq_add(out_data, bias, out_data, 1);
        dl_matrixq_check_sanity(out_data, "lstm out_data after bias");
    }
    // Each slice takes out_data's exponent now and keeps its own from here:
    // the gates share the items but not the scale.
    const int q = out_data->w / 4;
    Gates<dl_matrix2dq_t> gate;
    gate.i = dl_matrixq_slice(out_data, 0, 0, q, out_data->h, nullptr);
    gate.g = dl_matrixq_slice(out_data, q, 0, q, out_data->h, nullptr);
    gate.f = dl_matrixq_slice(out_data, 2 * q, 0, q, out_data->h, nullptr);
    gate.o = dl_matrixq_slice(out_data, 3 * q, 0, q, out_data->h, nullptr);
    DL_ASSERT(gate.i && gate.g && gate.f && gate.o);

    dl_matrixq_add_const(gate.f, 1.0f, 1);
    dl_matrixq_check_sanity(gate.f, "lstm f after add_const");
    dl_sigmoid_q(gate.f, gate.f);  // f, i, g: exponent -15
    dl_sigmoid_q(gate.i, gate.i);
    dl_tanh_q(gate.g, gate.g);
    dl_matrixq_mul(state_c, gate.f, state_c);  // e_c - 15 + 16
    dl_matrixq_check_sanity(state_c, "lstm state_c after mul");
    dl_matrixq_mul(gate.i, gate.g, gate.i);       // -14
    dl_matrixq_add(state_c, gate.i, state_c, 1);  // max(e_c + 1, -14)
    dl_matrixq_check_sanity(state_c, "lstm state_c after add");
    dl_tanh_q(state_c, gate.i);  // -15
    dl_sigmoid_q(gate.o, gate.o);
    dl_matrixq_mul(gate.i, gate.o, state_h);  // -14
    // Both states go to the next step at full precision.
    dl_matrixq_readjust_exp(state_c);
    dl_matrixq_check_sanity(state_c, "lstm state_c after exp readjust (should never see this)");
    dl_matrixq_readjust_exp(state_h);
    dl_matrixq_check_sanity(state_h, "lstm state_h after exp readjust (should never see this)");

    dl_matrixq_free(gate.i);
    dl_matrixq_free(gate.g);
    dl_matrixq_free(gate.f);
    dl_matrixq_free(gate.o);
    dl_matrixq_free(concat);
    dl_matrixq_free(out_data);
    return state_h;
}
