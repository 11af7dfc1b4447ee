/*
 * insn_bench: what the library's kernels and the bundled networks cost in
 * instructions on a Cortex-M4F, run on QEMU's mps2-an386 with -icount
 * shift=0 (bench/device_insn.sh).
 *
 * With icount, QEMU advances the board's clock by one nanosecond per
 * instruction, so the SysTick timer, clocked from the 25 MHz system clock,
 * counts one tick per 40 instructions. Each piece of work runs reps times
 * between two readings; a loop of known instruction count calibrates the
 * ticks, and the harness's own cost (the same loop around an empty call) is
 * taken off. A reading is exact to one tick, so a figure per call is exact
 * to 2 ticks / reps (the error printed beside it).
 *
 * Beside the library, on the same data: an exact fixed-point dot product
 * written with the M4's dual 16-bit multiply-accumulate into a 64-bit sum
 * (SMLALD, <arm_acle.h>), two columns and eight items a step, a plain float
 * multiply-accumulate loop, and the digits convolution's product written
 * the same way (its windows laid out beforehand), checked to give the
 * layer's bits. Output, one line each:
 *     insn <label> <instructions per call> +- <error> macs <count>
 *     check <what> agrees|differs
 */
#include <arm_acle.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "dl_lib.h"
#include "network.h"

#define SYST_CSR (*(volatile uint32_t *)0xE000E010u)
#define SYST_RVR (*(volatile uint32_t *)0xE000E014u)
#define SYST_CVR (*(volatile uint32_t *)0xE000E018u)

static uint32_t ticks_between(uint32_t start, uint32_t end) { return (start - end) & 0xFFFFFFu; }

typedef void (*work_fn)(void *ctx);

static double insns_per_tick = 40.0;
static double harness_ticks; /* per call: the loop and the indirect call */

static void nothing(void *ctx) { (void)ctx; }

/* Ticks of reps calls of f, as a double. */
static double ticks_of(work_fn f, void *ctx, int reps)
{
    const uint32_t start = SYST_CVR;
    for (int i = 0; i < reps; i++) f(ctx);
    return (double)ticks_between(start, SYST_CVR);
}

/* A loop of exactly 2 * n + 2 instructions: subs and bne per turn. */
static void __attribute__((noinline)) known_loop(uint32_t n)
{
    __asm__ volatile("1: subs %0, %0, #1\n\tbne 1b" : "+r"(n) : : "cc");
}

static void calibrate(void)
{
    SYST_RVR = 0xFFFFFFu;
    SYST_CVR = 0;
    SYST_CSR = 5u; /* enabled, processor clock, no interrupt */
    const uint32_t n = 2000000u;
    const uint32_t start = SYST_CVR;
    known_loop(n);
    const uint32_t t = ticks_between(start, SYST_CVR);
    insns_per_tick = (2.0 * n + 2.0) / t;
    harness_ticks = ticks_of(nothing, NULL, 100000) / 100000.0;
    printf("calibration %lu instructions in %lu ticks\n", (unsigned long)(2 * n + 2), (unsigned long)t);
}

/* Instructions per call of f, repeated until about two million
 * instructions have run (at least once). */
static void report(const char *label, work_fn f, void *ctx, long macs)
{
    const double once = ticks_of(f, ctx, 1) * insns_per_tick;
    int reps = once > 0 ? (int)(2e6 / once) : 1000;
    if (reps < 1) reps = 1;
    if (reps > 10000) reps = 10000;
    const double per_call = (ticks_of(f, ctx, reps) / reps - harness_ticks) * insns_per_tick;
    /* newlib-nano's printf has no floating point: whole instructions. */
    printf("insn %s %ld +- %ld macs %ld\n", label, (long)(per_call + 0.5), (long)(2.0 * insns_per_tick / reps + 0.5),
           macs);
}

/* ---- Products ---------------------------------------------------------- */

struct product {
    dl_matrix2dq_t *a, *b, *res;
    dl_matrix2d_t *fa, *fb, *fres;
};

static void fill_q(dl_matrix2dq_t *m, uint32_t seed)
{
    for (int x = 0; x < m->w; x++)
        for (int y = 0; y < m->h; y++) {
            seed = seed * 1664525u + 1013904223u;
            m->itemq[y + m->stride * x] = (qtp_t)((int32_t)(seed >> 16) - 32768) / 2;
        }
    m->exponent = -15;
}

static void product_make(struct product *p, int k, int n)
{
    p->a = dl_matrixq_alloc(k, 1);
    p->b = dl_matrixq_alloc(n, k);
    p->res = dl_matrixq_alloc(n, 1);
    fill_q(p->a, 1u);
    fill_q(p->b, 2u);
    p->fa = dl_matrix2d_from_matrixq(p->a, NULL);
    p->fb = dl_matrix2d_from_matrixq(p->b, NULL);
    p->fres = dl_matrix_alloc(n, 1);
}

static void product_free(struct product *p)
{
    dl_matrixq_free(p->a);
    dl_matrixq_free(p->b);
    dl_matrixq_free(p->res);
    dl_matrix_free(p->fa);
    dl_matrix_free(p->fb);
    dl_matrix_free(p->fres);
}

static void run_dot_q(void *ctx)
{
    struct product *p = ctx;
    dl_matrixq_dot(p->a, p->b, p->res, 0);
}

static void run_dot_f(void *ctx)
{
    struct product *p = ctx;
    dl_matrix_dot(p->fa, p->fb, p->fres);
}

/* The reference: one row of a (contiguous) against the columns of b,
 * exact 64-bit sums by SMLALD, two columns and eight items a step, then the
 * library's shift and saturation. */
static inline uint32_t pair(const qtp_t *p)
{
    uint32_t w;
    memcpy(&w, p, sizeof w);
    return w;
}

static void run_smlald_reference(void *ctx)
{
    struct product *p = ctx;
    const int K = p->a->w, N = p->b->w, s = 15 + (K >= 256 ? 8 : K >= 128 ? 7 : K >= 64 ? 6 : 5);
    const qtp_t *a = p->a->itemq;
    for (int x = 0; x < N; x += 2) {
        const qtp_t *b0 = p->b->itemq + p->b->stride * x, *b1 = b0 + p->b->stride;
        int64_t s0 = 0, s1 = 0;
        for (int k = 0; k < K; k += 8) {
            const uint32_t a0 = pair(a + k), a1 = pair(a + k + 2), a2 = pair(a + k + 4), a3 = pair(a + k + 6);
            s0 = __smlald((int16x2_t)a0, (int16x2_t)pair(b0 + k), s0);
            s1 = __smlald((int16x2_t)a0, (int16x2_t)pair(b1 + k), s1);
            s0 = __smlald((int16x2_t)a1, (int16x2_t)pair(b0 + k + 2), s0);
            s1 = __smlald((int16x2_t)a1, (int16x2_t)pair(b1 + k + 2), s1);
            s0 = __smlald((int16x2_t)a2, (int16x2_t)pair(b0 + k + 4), s0);
            s1 = __smlald((int16x2_t)a2, (int16x2_t)pair(b1 + k + 4), s1);
            s0 = __smlald((int16x2_t)a3, (int16x2_t)pair(b0 + k + 6), s0);
            s1 = __smlald((int16x2_t)a3, (int16x2_t)pair(b1 + k + 6), s1);
        }
        s0 >>= s;
        s1 >>= s;
        p->res->itemq[x] = (qtp_t)(s0 > 32767 ? 32767 : s0 < -32767 ? -32767 : s0);
        p->res->itemq[x + 1] = (qtp_t)(s1 > 32767 ? 32767 : s1 < -32767 ? -32767 : s1);
    }
}

/* The float reference: each result's sum in a register, ascending. */
static void run_float_reference(void *ctx)
{
    struct product *p = ctx;
    const int K = p->fa->w, N = p->fb->w;
    const fptp_t *a = p->fa->item;
    for (int x = 0; x < N; x++) {
        const fptp_t *b = p->fb->item + x;
        fptp_t sum = 0.0f;
        for (int k = 0; k < K; k++) sum = a[k] * b[p->fb->stride * k] + sum;
        p->fres->item[x] = sum;
    }
}

static void products(void)
{
    static const int shapes[][2] = {{40, 128}, {64, 32}, {256, 32}};
    for (int i = 0; i < 3; i++) {
        struct product p;
        const int k = shapes[i][0], n = shapes[i][1];
        char label[64];
        product_make(&p, k, n);
        snprintf(label, sizeof label, "product 1x%dx%d dl_matrixq_dot", k, n);
        report(label, run_dot_q, &p, (long)k * n);
        snprintf(label, sizeof label, "product 1x%dx%d smlald-reference", k, n);
        report(label, run_smlald_reference, &p, (long)k * n);
        snprintf(label, sizeof label, "product 1x%dx%d dl_matrix_dot", k, n);
        report(label, run_dot_f, &p, (long)k * n);
        snprintf(label, sizeof label, "product 1x%dx%d float-reference", k, n);
        report(label, run_float_reference, &p, (long)k * n);
        product_free(&p);
    }
}

/* ---- Layers ------------------------------------------------------------ */

enum { LSTM_IN = 8, LSTM_UNITS = 32 };

struct lstm {
    dl_matrix2dq_t *in, *w, *b, *c, *h;
    dl_matrix2d_t *fin, *fw, *fb, *fc, *fh;
};

static void run_lstm_q(void *ctx)
{
    struct lstm *l = ctx;
    l->c->exponent = l->h->exponent = -31;
    dl_basic_lstm_layer_q(l->in, l->c, l->h, l->w, l->b, 0);
}

static void run_lstm_f(void *ctx)
{
    struct lstm *l = ctx;
    dl_basic_lstm_layer(l->fin, l->fc, l->fh, l->fw, l->fb);
}

static void run_lstm_qw(void *ctx)
{
    struct lstm *l = ctx;
    dl_basic_lstm_layer_quantised_weights(l->fin, l->fc, l->fh, l->w, l->fb);
}

static void lstm_step(void)
{
    struct lstm l;
    l.in = dl_matrixq_alloc(LSTM_IN, 1);
    l.w = dl_matrixq_alloc(4 * LSTM_UNITS, LSTM_IN + LSTM_UNITS);
    l.b = dl_matrixq_alloc(4 * LSTM_UNITS, 1);
    l.c = dl_matrixq_alloc(LSTM_UNITS, 1);
    l.h = dl_matrixq_alloc(LSTM_UNITS, 1);
    fill_q(l.in, 3u);
    fill_q(l.w, 4u);
    fill_q(l.b, 5u);
    l.fin = dl_matrix2d_from_matrixq(l.in, NULL);
    l.fw = dl_matrix2d_from_matrixq(l.w, NULL);
    l.fb = dl_matrix2d_from_matrixq(l.b, NULL);
    l.fc = dl_matrix_alloc(LSTM_UNITS, 1);
    l.fh = dl_matrix_alloc(LSTM_UNITS, 1);
    const long macs = (long)(LSTM_IN + LSTM_UNITS) * 4 * LSTM_UNITS;
    report("lstm step 8x32 dl_basic_lstm_layer_q", run_lstm_q, &l, macs);
    report("lstm step 8x32 dl_basic_lstm_layer", run_lstm_f, &l, macs);
    report("lstm step 8x32 dl_basic_lstm_layer_quantised_weights", run_lstm_qw, &l, macs);
    dl_matrixq_free(l.in);
    dl_matrixq_free(l.w);
    dl_matrixq_free(l.b);
    dl_matrixq_free(l.c);
    dl_matrixq_free(l.h);
    dl_matrix_free(l.fin);
    dl_matrix_free(l.fw);
    dl_matrix_free(l.fb);
    dl_matrix_free(l.fc);
    dl_matrix_free(l.fh);
}

/* The digits network's convolution: 8 x 8, 3 x 3, 4 channels, padded. */
struct conv {
    dl_matrix2d_t *in, *filter, *bias, *out;
    dl_matrix2dq_t *qfilter;
    /* For the reference: each position's window of the quantised, framed
     * input and each channel's filter as 10 items (the 9 places and a 0),
     * and the factor 2^(e_in + e_filter). */
    qtp_t windows[64][10], filters[4][10];
    fptp_t factor;
};

static void run_conv_f(void *ctx)
{
    struct conv *c = ctx;
    dl_basic_conv_layer(c->in, c->filter, c->bias, 3, 3, 4, 1, 1, 1, c->out);
}

static void run_conv_qw(void *ctx)
{
    struct conv *c = ctx;
    dl_basic_conv_layer_quantised_weight(c->in, c->qfilter, c->bias, 3, 3, 4, 1, 1, 1, c->out);
}

/* The convolution's product through the SMLALD reference: the 64 x 9 x 4
 * multiply-accumulates of the windows (laid out beforehand, as the product
 * reference's rows are) with the filter, pairs of items loaded as words,
 * two channels a step, each exact sum converted to float in one rounding,
 * scaled and added to its channel's bias. */
static inline fptp_t to_float(int64_t sum)
{
    return sum >= INT32_MIN && sum <= INT32_MAX ? (fptp_t)(int32_t)sum : (fptp_t)sum;
}

static void run_conv_smlald_reference(void *ctx)
{
    struct conv *c = ctx;
    for (int p = 0; p < 64; p++) {
        const qtp_t *w = c->windows[p];
        const uint32_t a0 = pair(w), a1 = pair(w + 2), a2 = pair(w + 4), a3 = pair(w + 6), a4 = pair(w + 8);
        for (int oc = 0; oc < 4; oc += 2) {
            const qtp_t *f0 = c->filters[oc], *f1 = c->filters[oc + 1];
            int64_t s0 = 0, s1 = 0;
            s0 = __smlald((int16x2_t)a0, (int16x2_t)pair(f0), s0);
            s1 = __smlald((int16x2_t)a0, (int16x2_t)pair(f1), s1);
            s0 = __smlald((int16x2_t)a1, (int16x2_t)pair(f0 + 2), s0);
            s1 = __smlald((int16x2_t)a1, (int16x2_t)pair(f1 + 2), s1);
            s0 = __smlald((int16x2_t)a2, (int16x2_t)pair(f0 + 4), s0);
            s1 = __smlald((int16x2_t)a2, (int16x2_t)pair(f1 + 4), s1);
            s0 = __smlald((int16x2_t)a3, (int16x2_t)pair(f0 + 6), s0);
            s1 = __smlald((int16x2_t)a3, (int16x2_t)pair(f1 + 6), s1);
            s0 = __smlald((int16x2_t)a4, (int16x2_t)pair(f0 + 8), s0);
            s1 = __smlald((int16x2_t)a4, (int16x2_t)pair(f1 + 8), s1);
            c->out->item[4 * p + oc] = to_float(s0) * c->factor + c->bias->item[oc];
            c->out->item[4 * p + oc + 1] = to_float(s1) * c->factor + c->bias->item[oc + 1];
        }
    }
}

/* The reference's operands: the input quantised as the layer quantises it,
 * in a zero frame of one item, cut into the 3 x 3 windows. */
static void conv_reference_operands(struct conv *c)
{
    dl_matrix2dq_t *q = dl_matrixq_from_matrix2d(c->in, NULL);
    memset(c->windows, 0, sizeof c->windows);
    memset(c->filters, 0, sizeof c->filters);
    for (int p = 0; p < 64; p++)
        for (int d = 0; d < 9; d++) {
            const int x = p % 8 + d % 3 - 1, y = p / 8 + d / 3 - 1;
            c->windows[p][d] = x >= 0 && x < 8 && y >= 0 && y < 8 ? q->itemq[y + q->stride * x] : 0;
        }
    for (int oc = 0; oc < 4; oc++)
        for (int d = 0; d < 9; d++) c->filters[oc][d] = c->qfilter->itemq[d + c->qfilter->stride * oc];
    c->factor = 1.0f;
    for (int e = q->exponent + c->qfilter->exponent; e < 0; e++) c->factor /= 2.0f;
    dl_matrixq_free(q);
}

static void convolution(void)
{
    static struct conv c;
    dl_matrix2dq_t *qin = dl_matrixq_alloc(8, 8);
    c.qfilter = dl_matrixq_alloc(4, 9);
    fill_q(qin, 6u);
    fill_q(c.qfilter, 7u);
    c.in = dl_matrix2d_from_matrixq(qin, NULL);
    c.filter = dl_matrix2d_from_matrixq(c.qfilter, NULL);
    c.bias = dl_matrix_alloc(4, 1);
    for (int i = 0; i < 4; i++) c.bias->item[i] = 0.25f * (float)i - 0.3f;
    c.out = dl_matrix_alloc(4 * 64, 1);
    report("conv 8x8 3x3x4 dl_basic_conv_layer", run_conv_f, &c, 64L * 9 * 4);
    report("conv 8x8 3x3x4 dl_basic_conv_layer_quantised_weight", run_conv_qw, &c, 64L * 9 * 4);
    conv_reference_operands(&c);
    report("conv 8x8 3x3x4 smlald-reference", run_conv_smlald_reference, &c, 64L * 9 * 4);
    /* The reference does the layer's work: both give the same bits. */
    static fptp_t layer[4 * 64];
    run_conv_qw(&c);
    memcpy(layer, c.out->item, sizeof layer);
    run_conv_smlald_reference(&c);
    printf("check conv smlald-reference %s\n", memcmp(layer, c.out->item, sizeof layer) ? "differs" : "agrees");
    dl_matrixq_free(qin);
    dl_matrixq_free(c.qfilter);
    dl_matrix_free(c.in);
    dl_matrix_free(c.filter);
    dl_matrix_free(c.bias);
    dl_matrix_free(c.out);
}

/* Tensor convolutions at keyword-spotting shapes: a 3 x 3 depthwise layer,
 * a 1 x 1 pointwise layer and a 3 x 3 convolution on 25 x 5 positions of 32
 * channels (the middle of a small depthwise-separable network), in fixed
 * point and float; the first layer of that network (10 x 4 windows at
 * stride 2 over a 49 x 10 spectrogram) and of a small vision network (3 x 3
 * windows over a 32 x 32 RGB image), in fixed point and float. */
struct tensor_conv {
    dl_matrix3dq_t *in, *dw, *pw, *k3, *out;
    dl_matrix3d_t *fin, *fdw, *fpw, *fk3, *fout;
    dl_matrix3dq_t *spectrogram, *k10x4, *first_out;
    dl_matrix3d_t *fspectrogram, *fk10x4;
    dl_matrix3du_t *image;
    dl_matrix3dq_t *k_rgb, *image_out;
    dl_matrix3d_t *fk_rgb, *fimage_out;
};

static const dl_padding_t same3 = {1, 1, 1, 1};

static void run_depthwise_q(void *ctx)
{
    struct tensor_conv *t = ctx;
    dl_matrix3dq_depthwise_conv_layer_q(t->in, t->dw, NULL, 1, 1, &same3, t->out, 0);
}

static void run_pointwise_q(void *ctx)
{
    struct tensor_conv *t = ctx;
    dl_matrix3dq_conv_layer_q(t->in, t->pw, NULL, 1, 1, NULL, t->out, 0);
}

static void run_depthwise_qw(void *ctx)
{
    struct tensor_conv *t = ctx;
    dl_matrix3d_depthwise_conv_layer_quantised_weight(t->fin, t->dw, NULL, 1, 1, &same3, t->fout);
}

static void run_conv3x3_q(void *ctx)
{
    struct tensor_conv *t = ctx;
    dl_matrix3dq_conv_layer_q(t->in, t->k3, NULL, 1, 1, &same3, t->out, 0);
}

static void run_first_layer_q(void *ctx)
{
    struct tensor_conv *t = ctx;
    const dl_padding_t same = dl_padding_same(10, 49, 4, 10, 2, 2, 1);
    dl_matrix3dq_conv_layer_q(t->spectrogram, t->k10x4, NULL, 2, 2, &same, t->first_out, 0);
}

static void run_image_q(void *ctx)
{
    struct tensor_conv *t = ctx;
    dl_matrix3du_conv_layer_q(t->image, t->k_rgb, NULL, 1, 1, &same3, t->image_out, 0);
}

static void run_depthwise_f(void *ctx)
{
    struct tensor_conv *t = ctx;
    dl_matrix3d_depthwise_conv_layer(t->fin, t->fdw, NULL, 1, 1, &same3, t->fout);
}

static void run_pointwise_f(void *ctx)
{
    struct tensor_conv *t = ctx;
    dl_matrix3d_conv_layer(t->fin, t->fpw, NULL, 1, 1, NULL, t->fout);
}

static void run_conv3x3_f(void *ctx)
{
    struct tensor_conv *t = ctx;
    dl_matrix3d_conv_layer(t->fin, t->fk3, NULL, 1, 1, &same3, t->fout);
}

static void run_first_layer_f(void *ctx)
{
    struct tensor_conv *t = ctx;
    const dl_padding_t same = dl_padding_same(10, 49, 4, 10, 2, 2, 1);
    dl_matrix3d_conv_layer(t->fspectrogram, t->fk10x4, NULL, 2, 2, &same, t->fout);
}

static void run_image_f(void *ctx)
{
    struct tensor_conv *t = ctx;
    dl_matrix3du_conv_layer(t->image, t->fk_rgb, NULL, 1, 1, &same3, t->fimage_out);
}

static void fill_tensor(dl_matrix3dq_t *m, uint32_t seed)
{
    const int count = m->n * m->h * m->w * m->c;
    for (int i = 0; i < count; i++) {
        seed = seed * 1664525u + 1013904223u;
        m->item[i] = (qtp_t)(((int32_t)(seed >> 16) - 32768) / 2);
    }
}

static void tensor_convolutions(void)
{
    enum { W = 5, H = 25, C = 32 };
    struct tensor_conv t;
    t.in = dl_matrix3dq_alloc(1, W, H, C, -15);
    t.dw = dl_matrix3dq_alloc(1, 3, 3, C, -15);
    t.pw = dl_matrix3dq_alloc(C, 1, 1, C, -15);
    t.out = dl_matrix3dq_alloc(1, W, H, C, 0);
    fill_tensor(t.in, 8u);
    fill_tensor(t.dw, 9u);
    fill_tensor(t.pw, 10u);
    t.fin = dl_matrix3d_from_matrixq(t.in);
    t.fdw = dl_matrix3d_from_matrixq(t.dw);
    t.fpw = dl_matrix3d_from_matrixq(t.pw);
    t.fout = dl_matrix3d_alloc(1, W, H, C);
    t.k3 = dl_matrix3dq_alloc(C, 3, 3, C, -15);
    fill_tensor(t.k3, 11u);
    t.spectrogram = dl_matrix3dq_alloc(1, 10, 49, 1, -15);
    t.k10x4 = dl_matrix3dq_alloc(C, 4, 10, 1, -15);
    t.first_out = dl_matrix3dq_alloc(1, W, H, C, 0);
    fill_tensor(t.spectrogram, 12u);
    fill_tensor(t.k10x4, 13u);
    t.image = dl_matrix3du_alloc(1, 32, 32, 3);
    for (int i = 0; i < 32 * 32 * 3; i++) t.image->item[i] = (uc_t)(i * 37u + 11u);
    t.k_rgb = dl_matrix3dq_alloc(16, 3, 3, 3, -15);
    fill_tensor(t.k_rgb, 14u);
    t.image_out = dl_matrix3dq_alloc(1, 32, 32, 16, 0);
    t.fk3 = dl_matrix3d_from_matrixq(t.k3);
    t.fspectrogram = dl_matrix3d_from_matrixq(t.spectrogram);
    t.fk10x4 = dl_matrix3d_from_matrixq(t.k10x4);
    t.fk_rgb = dl_matrix3d_from_matrixq(t.k_rgb);
    t.fimage_out = dl_matrix3d_alloc(1, 32, 32, 16);
    report("tensor depthwise 25x5x32 3x3 dl_matrix3dq_depthwise_conv_layer_q", run_depthwise_q, &t,
           (long)W * H * C * 9);
    report("tensor depthwise 25x5x32 3x3 dl_matrix3d_depthwise_conv_layer", run_depthwise_f, &t, (long)W * H * C * 9);
    report("tensor pointwise 25x5x32 1x1x32 dl_matrix3dq_conv_layer_q", run_pointwise_q, &t, (long)W * H * C * C);
    report("tensor pointwise 25x5x32 1x1x32 dl_matrix3d_conv_layer", run_pointwise_f, &t, (long)W * H * C * C);
    report("tensor depthwise 25x5x32 3x3 dl_matrix3d_depthwise_conv_layer_quantised_weight", run_depthwise_qw, &t,
           (long)W * H * C * 9);
    report("tensor conv 25x5x32 3x3x32 dl_matrix3dq_conv_layer_q", run_conv3x3_q, &t, (long)W * H * C * 9 * C);
    report("tensor conv 25x5x32 3x3x32 dl_matrix3d_conv_layer", run_conv3x3_f, &t, (long)W * H * C * 9 * C);
    report("tensor conv 49x10x1 10x4 stride 2 to 32 dl_matrix3dq_conv_layer_q", run_first_layer_q, &t,
           (long)W * H * C * 40);
    report("tensor conv 49x10x1 10x4 stride 2 to 32 dl_matrix3d_conv_layer", run_first_layer_f, &t,
           (long)W * H * C * 40);
    report("tensor conv 32x32x3 image 3x3 to 16 dl_matrix3du_conv_layer_q", run_image_q, &t, 32L * 32 * 16 * 27);
    report("tensor conv 32x32x3 image 3x3 to 16 dl_matrix3du_conv_layer", run_image_f, &t, 32L * 32 * 16 * 27);
    dl_matrix3dq_free(t.in);
    dl_matrix3dq_free(t.dw);
    dl_matrix3dq_free(t.pw);
    dl_matrix3dq_free(t.out);
    dl_matrix3dq_free(t.k3);
    dl_matrix3dq_free(t.spectrogram);
    dl_matrix3dq_free(t.k10x4);
    dl_matrix3dq_free(t.first_out);
    dl_matrix3du_free(t.image);
    dl_matrix3dq_free(t.k_rgb);
    dl_matrix3dq_free(t.image_out);
    dl_matrix3d_free(t.fin);
    dl_matrix3d_free(t.fdw);
    dl_matrix3d_free(t.fpw);
    dl_matrix3d_free(t.fout);
    dl_matrix3d_free(t.fk3);
    dl_matrix3d_free(t.fspectrogram);
    dl_matrix3d_free(t.fk10x4);
    dl_matrix3d_free(t.fk_rgb);
    dl_matrix3d_free(t.fimage_out);
}

/* ---- Whole networks ---------------------------------------------------- */

struct inference {
    int run;
    const fptp_t *image;
};

static void run_inference(void *ctx)
{
    const struct inference *i = ctx;
    network_classify(i->run, i->image);
}

static void networks(void)
{
    static fptp_t image[NETWORK_SIDE * NETWORK_SIDE];
    for (int i = 0; i < NETWORK_SIDE * NETWORK_SIDE; i++) image[i] = (float)((i * 7) % 17) / 16.0f;
    const char *missing = network_init();
    if (missing) {
        printf("table %s missing\n", missing);
        return;
    }
    for (int r = 0; r < NETWORK_RUNS; r++) {
        struct inference i = {r, image};
        char label[64];
        snprintf(label, sizeof label, "network %s", network_run_name[r]);
        report(label, run_inference, &i, 0);
    }
    network_free();
}

static void quiet(const char *text, void *arg)
{
    (void)text;
    (void)arg;
}

int main(void)
{
    dl_set_sanity_handler(quiet, NULL); /* random layers' warnings are no news */
    calibrate();
    products();
    lstm_step();
    convolution();
    tensor_convolutions();
    networks();
    return 0;
}
