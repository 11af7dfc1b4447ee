#include "kernels_internal.h"

// The instruction-set kernels are built on x86-64 only, each source file
// with its own target flags; every other target runs the plain loops.
#if defined(DL_LIB_X86_KERNELS) && defined(__x86_64__)
#define DL_X86_KERNELS 1
#include <atomic>  // bare-metal toolchains ship no C++ headers: x86-64 only
namespace dl::avx2 {
bool matrix_dot(const dl_matrix2d_t *a, const dl_matrix2d_t *b, dl_matrix2d_t *res);
bool matrixq_dot(const dl_matrix2dq_t *a, const dl_matrix2dq_t *b, const QDotOut &out);
bool matrixq_dot_pairs(const dl_matrix2dq_t *a, const dl_matrix2dq_t *b, const int16_t *packed, const QDotOut &out);
}  // namespace dl::avx2
namespace dl::avx512 {
bool matrix_dot(const dl_matrix2d_t *a, const dl_matrix2d_t *b, dl_matrix2d_t *res);
bool matrixq_dot(const dl_matrix2dq_t *a, const dl_matrix2dq_t *b, const QDotOut &out);
}  // namespace dl::avx512
#else
#define DL_X86_KERNELS 0
#endif

namespace dl {

const char *isa_name(Isa isa)
{
    switch (isa) {
    case Isa::none: return "plain";
    case Isa::avx2: return "avx2";
    case Isa::avx512: return "avx512";
    case Isa::dsp: return "dsp";
    }
    return "?";
}

bool isa_usable(Isa isa)
{
#if DL_X86_KERNELS
    __builtin_cpu_init();  // harmless when done already; needed before main
    switch (isa) {
    case Isa::none: return true;
    case Isa::avx2: return __builtin_cpu_supports("avx2");
    case Isa::avx512: return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw");
    case Isa::dsp: return false;
    }
    return false;
#else
    return isa == Isa::none || (DL_DSP_KERNELS && isa == Isa::dsp);
#endif
}

Isa detected_isa()
{
#if DL_X86_KERNELS
    // Worked out on the first call and kept. A plain static with an atomic
    // rather than a function-local static: the latter needs the C++ runtime's
    // guard functions, which a C program linking the library lacks. Two
    // threads racing on the first call store the same value.
    static std::atomic<int> cached{-1};
    int best = cached.load(std::memory_order_relaxed);
    if (best < 0) {
        best = static_cast<int>(isa_usable(Isa::avx512) ? Isa::avx512 : isa_usable(Isa::avx2) ? Isa::avx2 : Isa::none);
        cached.store(best, std::memory_order_relaxed);
    }
    return static_cast<Isa>(best);
#else
    return DL_DSP_KERNELS ? Isa::dsp : Isa::none;
#endif
}

bool matrix_dot_kernel(Isa isa, [[maybe_unused]] const dl_matrix2d_t *a, [[maybe_unused]] const dl_matrix2d_t *b,
                       [[maybe_unused]] dl_matrix2d_t *res)
{
    switch (isa) {
    case Isa::none: return false;
#if DL_X86_KERNELS
    case Isa::avx2: return avx2::matrix_dot(a, b, res);
    case Isa::avx512: return avx512::matrix_dot(a, b, res);
#else
    case Isa::avx2:
    case Isa::avx512: return false;
#endif
    case Isa::dsp: return false;  // the float product's plain loop is already its fast form
    }
    return false;
}

void pack_pairs(const dl_matrix2dq_t *b, int16_t *dst)
{
    // Written in order, group by group; read column by column.
    const int K = b->h, N = b->w, pairs = pair_count(K);
    for (int x0 = 0; x0 < N; x0 += kPairLanes) {
        const int n = N - x0 < kPairLanes ? N - x0 : kPairLanes;
        for (int p = 0; p < pairs; p++) {
            const int k = 2 * p;
            for (int plane = 0; plane < 2; plane++) {
                for (int lane = 0; lane < kPairLanes; lane++, dst += 2) {
                    const qtp_t *col = b->itemq + static_cast<size_t>(b->stride) * (x0 + (lane < n ? lane : 0));
                    const int32_t v0 = lane < n ? col[k] : 0, v1 = lane < n && k + 1 < K ? col[k + 1] : 0;
                    dst[0] = static_cast<int16_t>(plane ? v0 >> 8 : v0 & 0xff);
                    dst[1] = static_cast<int16_t>(plane ? v1 >> 8 : v1 & 0xff);
                }
            }
        }
    }
}

bool activation_kernel(Isa isa, [[maybe_unused]] Activation act, [[maybe_unused]] const fptp_t *in,
                       [[maybe_unused]] fptp_t *out, [[maybe_unused]] int n)
{
#if DL_X86_KERNELS
    if (isa == Isa::avx2 || isa == Isa::avx512) {
        avx2::activation(act, in, out, n);
        return true;
    }
#endif
    (void)isa;
    return false;
}

bool relu_kernel(Isa isa, [[maybe_unused]] const fptp_t *in, [[maybe_unused]] fptp_t *out, [[maybe_unused]] int n,
                 [[maybe_unused]] fptp_t clip)
{
#if DL_X86_KERNELS
    if (isa == Isa::avx2 || isa == Isa::avx512) {
        avx2::relu(in, out, n, clip);
        return true;
    }
#endif
    (void)isa;
    return false;
}

bool activation_q15_kernel(Isa isa, [[maybe_unused]] Activation act, [[maybe_unused]] const qtp_t *in,
                           [[maybe_unused]] qtp_t *out, [[maybe_unused]] int n, [[maybe_unused]] int s)
{
#if DL_X86_KERNELS
    if ((isa == Isa::avx2 || isa == Isa::avx512) && s < 16) {
        avx2::activation_q15(act, in, out, n, s);
        return true;
    }
#endif
    (void)isa;
    return false;
}

bool add_items_kernel(Isa isa, [[maybe_unused]] const qtp_t *hi, [[maybe_unused]] const qtp_t *lo,
                      [[maybe_unused]] qtp_t *out, [[maybe_unused]] int n, [[maybe_unused]] int k,
                      [[maybe_unused]] int kind, [[maybe_unused]] bool halve)
{
#if DL_X86_KERNELS
    if (isa == Isa::avx2 || isa == Isa::avx512) {
        avx2::add_items(hi, lo, out, n, k, kind, halve);
        return true;
    }
#endif
    (void)isa;
    return false;
}

bool float_range_kernel(Isa isa, [[maybe_unused]] const fptp_t *in, [[maybe_unused]] int n, [[maybe_unused]] fptp_t *lo,
                        [[maybe_unused]] fptp_t *hi)
{
#if DL_X86_KERNELS
    if (isa == Isa::avx2 || isa == Isa::avx512) {
        avx2::float_range(in, n, lo, hi);
        return true;
    }
#endif
    (void)isa;
    return false;
}

bool quantise_kernel(Isa isa, [[maybe_unused]] const fptp_t *in, [[maybe_unused]] int n, [[maybe_unused]] fptp_t half,
                     [[maybe_unused]] fptp_t mult, [[maybe_unused]] qtp_t *out)
{
#if DL_X86_KERNELS
    if (isa == Isa::avx2 || isa == Isa::avx512) {
        avx2::quantise(in, n, half, mult, out);
        return true;
    }
#endif
    (void)isa;
    return false;
}

bool pairs_usable()
{
#if DL_X86_KERNELS
    const Isa isa = detected_isa();
    return isa == Isa::avx2 || isa == Isa::avx512;
#else
    return false;
#endif
}

#if DL_X86_KERNELS
// The pair kernel's sums stay exact in doubles up to 2^53, which sums of
// fewer than 2^23 products of two items never leave.
constexpr int kPairsMaxK = 1 << 22;

// Products that go to the pair kernel (AVX2 code, which AVX-512 processors
// run as well): a prepared b, which is packed already, and short sums over
// several rows of a, where packing b per call is paid back by the rows and
// the kernel that vectorises along k would mostly add padding.
static bool use_pairs(const dl_matrix2dq_t *a, const dl_matrix2dq_t *b, const int16_t *packed)
{
    if (b->h > kPairsMaxK) return false;
    return packed || (a->h >= 2 && b->h <= 64);
}
#endif

bool matrixq_dot_kernel(Isa isa, [[maybe_unused]] const dl_matrix2dq_t *a, [[maybe_unused]] const dl_matrix2dq_t *b,
                        [[maybe_unused]] const QDotOut &out)
{
#if DL_X86_KERNELS
    if (isa == Isa::avx2 || isa == Isa::avx512) {
        const int16_t *packed = prepared_pairs(b);
        if (use_pairs(a, b, packed)) return avx2::matrixq_dot_pairs(a, b, packed, out);
    }
#endif
    switch (isa) {
    case Isa::none: return false;
#if DL_X86_KERNELS
    case Isa::avx2: return avx2::matrixq_dot(a, b, out);
    case Isa::avx512: return avx512::matrixq_dot(a, b, out);
#else
    case Isa::avx2:
    case Isa::avx512: return false;
#endif
#if DL_DSP_KERNELS
    case Isa::dsp: return dsp::matrixq_dot(a, b, out);
#else
    case Isa::dsp: return false;
#endif
    }
    return false;
}

}  // namespace dl
