/*
 * kernels_internal.h - the matrix products: their plain loops, and the
 * instruction-set kernels that compute the same bits faster; not installed.
 *
 * The plain loops are the definition, written in the order the arithmetic
 * is defined, and they are what a microcontroller runs. A kernel may walk the
 * operands in any order that leaves every result item unchanged: the float
 * product keeps each item's ascending sum over k with separate roundings and
 * is vectorised across items; the fixed-point products form exact 64-bit sums
 * by any exact means. Tests compare every kernel with its plain loop.
 */
#ifndef DL_LIB_KERNELS_INTERNAL_H
#define DL_LIB_KERNELS_INTERNAL_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "dl_lib_types.h"

/* The DSP kernels are built where the target has the extension (32-bit ARM
 * cores such as the Cortex-M4 and M7), and then always used for the
 * fixed-point sums. */
#if defined(__ARM_FEATURE_DSP) && defined(__arm__)
#define DL_DSP_KERNELS 1
#else
#define DL_DSP_KERNELS 0
#endif

namespace dl {

/* Instruction sets with a kernel. `none` is the plain loop. The x86-64 ones
 * are chosen at run time; `dsp` (32-bit ARM with the DSP extension, fixed-point
 * products only) is built in when the target has it, and then always used. */
enum class Isa { none, avx2, avx512, dsp };

const char *isa_name(Isa isa);

/* Whether a kernel for isa is built in and this processor runs it. */
bool isa_usable(Isa isa);

/* The best usable instruction set, found on the first call. */
Isa detected_isa();

/* Where the exact sums of a fixed-point product go. A sum for column x, row
 * y either becomes an item of a fixed-point record, shifted right
 * arithmetically (rounding down) and saturated at +-32767, or an item of a
 * float record, converted in one rounding and scaled by a power of two. */
struct QDotOut {
    dl_matrix2dq_t *items;  // when set, the sums become its items
    int shift;
    dl_matrix2d_t *floats;  // otherwise the sums become its floats
    fptp_t factor;
};

static inline QDotOut qdot_to_items(dl_matrix2dq_t *res, int shift) { return {res, shift, nullptr, 0.0f}; }
static inline QDotOut qdot_to_floats(dl_matrix2d_t *res, fptp_t factor) { return {nullptr, 0, res, factor}; }

/* Internal linkage on purpose, like everything the kernels use: each
 * instruction-set file compiles its own copy under its own target flags, and
 * no copy of one can stand in for the portable code's. */
static inline void qdot_store(const QDotOut &out, int x, int y, int64_t sum)
{
    if (out.items) {
        const int64_t v = sum >> out.shift;
        out.items->itemq[y + out.items->stride * x] = static_cast<qtp_t>(v > 32767 ? 32767 : v < -32767 ? -32767 : v);
    } else {
        // A sum within 32 bits is converted as a 32-bit integer: the same
        // rounding to nearest of the same value, but one instruction on a
        // 32-bit core, where the 64-bit conversion is a library routine.
        const fptp_t f = sum >= INT32_MIN && sum <= INT32_MAX ? static_cast<fptp_t>(static_cast<int32_t>(sum))
                                                              : static_cast<fptp_t>(sum);
        out.floats->item[x + out.floats->stride * y] = f * out.factor;
    }
}

/* res = a x b for the float records, shapes already checked. */
void matrix_dot_plain(const dl_matrix2d_t *a, const dl_matrix2d_t *b, dl_matrix2d_t *res);

/* The fixed-point products' sums, a x b, into out; shapes already checked. */
void matrixq_dot_plain(const dl_matrix2dq_t *a, const dl_matrix2dq_t *b, const QDotOut &out);

/* The same with isa's kernel. False, with nothing written, when that kernel
 * is not built in or cannot get its scratch memory; the caller then runs the
 * plain loop. The caller checks that isa is usable. */
bool matrix_dot_kernel(Isa isa, const dl_matrix2d_t *a, const dl_matrix2d_t *b, dl_matrix2d_t *res);
bool matrixq_dot_kernel(Isa isa, const dl_matrix2dq_t *a, const dl_matrix2dq_t *b, const QDotOut &out);

/* ---- Products over pairs of k, vectorised across result columns ----------
 *
 * The right-hand operand b in bytes, b = 256 * high + low with low from 0 to
 * 255 and high from -128 to 127, packed as pair words: for each group of
 * kPairLanes columns and each pair p of rows (2p, 2p + 1), one vector of the
 * low bytes, then one of the high bytes, each holding the group's columns
 * one after the other as byte(x, 2p), byte(x, 2p + 1); zero beyond b's rows
 * and columns. Item (lane, j) of plane q (0 low, 1 high) of pair p of group
 * g sits at (((g * pairs + p) * 2 + q) * kPairLanes + lane) * 2 + j. One
 * multiply-add of such a vector by a broadcast pair of a's items then serves
 * kPairLanes result items, with no horizontal sum. */
constexpr int kPairLanes = 8;

static inline int pair_count(int k) { return k / 2 + (k & 1); }
static inline int pair_groups(int n) { return n / kPairLanes + (n % kPairLanes != 0); }

/* Items of b's packed form. */
static inline size_t packed_pair_items(const dl_matrix2dq_t *b)
{
    return static_cast<size_t>(pair_groups(b->w)) * static_cast<size_t>(pair_count(b->h)) * (4 * kPairLanes);
}

/* Writes b's packed form to dst (packed_pair_items(b) items). */
void pack_pairs(const dl_matrix2dq_t *b, int16_t *dst);

/* A record made by dl_matrixq_prepare is one block: this header, its items,
 * then the packed form (when this processor has the kernel that reads it).
 * The header repeats the record's shape and item pointer, so that a copy of
 * the record that was reshaped, or pointed elsewhere, is not taken for the
 * record the packing describes. */
struct PreparedHeader {
    uint32_t magic;
    int w, h, stride;
    const qtp_t *items;
    const int16_t *pairs;  // the packed form, or null
};
constexpr uint32_t kPreparedMagic = 0x70616972u;
constexpr size_t kPreparedHeaderBytes = 64;  // keeps the items 64-byte aligned within the block
static_assert(sizeof(PreparedHeader) <= kPreparedHeaderBytes, "header fits before the items");

static inline const unsigned char *prepared_header(const dl_matrix2dq_t *m)
{
    if (!(m->flags & DL_MF_PREPARED) || !m->itemq) return nullptr;
    return reinterpret_cast<const unsigned char *>(m->itemq) - kPreparedHeaderBytes;
}

/* b's packed form when b is a prepared record as it was made, else null.
 * The header is copied out: a copy of the record whose items were moved by
 * a few items would find it misaligned. */
static inline const int16_t *prepared_pairs(const dl_matrix2dq_t *b)
{
    const unsigned char *at = prepared_header(b);
    if (!at) return nullptr;
    PreparedHeader p;
    memcpy(&p, at, sizeof p);
    if (p.magic != kPreparedMagic || p.items != b->itemq || p.w != b->w || p.h != b->h || p.stride != b->stride)
        return nullptr;
    return p.pairs;
}

/* Whether vector kernels can exist in this build at all (x86-64): elsewhere
 * the code that only feeds them is left out at compile time, so a device
 * build pays nothing for it. */
#if defined(__x86_64__)
constexpr bool kVectorKernels = true;
#else
constexpr bool kVectorKernels = false;
#endif

/* Whether the pair kernel runs here: dl_matrixq_prepare packs only then. */
bool pairs_usable();

/* ---- Activations ---------------------------------------------------------
 *
 * The sigmoid and tanh over one run of n contiguous items, in may be out,
 * with the bits of dl_sigmoid_op / dl_tanh_op and of dl_sigmoid_op_q /
 * dl_tanh_op_q. The Q15 forms take items aligned as the matrix functions
 * align them, by s = exponent + 15: left for s from 1 to 15, right (at most
 * 31) for s <= 0; the caller runs the scalar ops for larger s. False, with
 * nothing written, when isa has no such kernel. */
enum class Activation { sigmoid, tanh };

bool activation_kernel(Isa isa, Activation act, const fptp_t *in, fptp_t *out, int n);
/* dl_relu_op(in[i], clip) over the run, in may be out. */
bool relu_kernel(Isa isa, const fptp_t *in, fptp_t *out, int n, fptp_t clip);
bool activation_q15_kernel(Isa isa, Activation act, const qtp_t *in, qtp_t *out, int n, int s);

/* ---- Element-wise sums of fixed-point items ------------------------------
 *
 * out[i] = hi[i] op (lo[i] >> k) over n items, op + (kind 0), hi - lo (1) or
 * lo - hi (2); with halve the exact result shifted right by one (rounding
 * down), else saturated at +-32767. k from 0 to 31. out may be hi or lo.
 * False, with nothing written, when isa has no such kernel. */
bool add_items_kernel(Isa isa, const qtp_t *hi, const qtp_t *lo, qtp_t *out, int n, int k, int kind, bool halve);

/* ---- The quantiser over one run of n floats -------------------------------
 *
 * lo and hi: the lowest and highest item, by ordered comparisons from the
 * first item on, as matrix_get_range finds them, except that where zeros of
 * both signs tie for an extreme either may be given (the block exponent is
 * the same). items: low16(trunc_i32((in[i] + half) * mult)). False, with
 * nothing written, when isa has no such kernel. */
bool float_range_kernel(Isa isa, const fptp_t *in, int n, fptp_t *lo, fptp_t *hi);
bool quantise_kernel(Isa isa, const fptp_t *in, int n, fptp_t half, fptp_t mult, qtp_t *out);

namespace avx2 {
void float_range(const fptp_t *in, int n, fptp_t *lo, fptp_t *hi);
void quantise(const fptp_t *in, int n, fptp_t half, fptp_t mult, qtp_t *out);
void add_items(const qtp_t *hi, const qtp_t *lo, qtp_t *out, int n, int k, int kind, bool halve);
void activation(Activation act, const fptp_t *in, fptp_t *out, int n);
void relu(const fptp_t *in, fptp_t *out, int n, fptp_t clip);
void activation_q15(Activation act, const qtp_t *in, qtp_t *out, int n, int s);
}  // namespace avx2

/* The DSP kernel: always succeeds where it is built in. */
namespace dsp {
bool matrixq_dot(const dl_matrix2dq_t *a, const dl_matrix2dq_t *b, const QDotOut &out);
}

}  // namespace dl

#endif /* DL_LIB_KERNELS_INTERNAL_H */
