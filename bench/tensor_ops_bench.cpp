// The tensor convolutions at the layer shapes of a keyword-spotting CNN
// (49 x 10 spectrogram: 10 x 4 and 3 x 3 windows, 64 channels, depthwise
// 3 x 3, pointwise 1 x 1) and of a small vision CNN (32 x 32 x 3 image, 3 x 3
// windows, 16 and 32 channels, stride 2). Each form runs by its portable
// loops ("plain", what a microcontroller runs: register tiles for float, the
// direct loops for fixed point) and by the public function (the product
// kernel this machine chose), beside the matrix product of the same
// number of multiply-accumulates: positions x places times places x
// channels. Rates are multiply-accumulates per second ("MAC/s"); beside each
// layer, "of_product" is its rate over the product's, measured in
// alternation with it (the figure to compare on a shared machine).
//
//   tensor_ops_bench [--benchmark_filter=kws] [...]
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <random>
#include <string>

#include "dl_lib.h"
#include "tensor_ops_internal.h"

namespace {

struct Layer {
    const char *name;
    int w, h, c;        // input
    int kw, kh, out_c;  // window and output channels (depthwise: out_c == c)
    int sx, sy;
    bool depthwise, image;
};

const Layer kLayers[] = {
    {"kws_conv10x4", 10, 49, 1, 4, 10, 64, 2, 2, false, false},
    {"kws_conv3x3", 5, 25, 64, 3, 3, 64, 1, 1, false, false},
    {"kws_depthwise3x3", 5, 25, 64, 3, 3, 64, 1, 1, true, false},
    {"kws_pointwise", 5, 25, 64, 1, 1, 64, 1, 1, false, false},
    {"vision_conv3x3_16", 32, 32, 3, 3, 3, 16, 1, 1, false, true},
    {"vision_conv3x3_32_s2", 32, 32, 16, 3, 3, 32, 2, 2, false, false},
};

enum class Form { float_form, quantised_weight, fixed_point };

const char *form_name(Form f)
{
    switch (f) {
    case Form::float_form: return "float";
    case Form::quantised_weight: return "quantised_weight";
    case Form::fixed_point: return "q";
    }
    return "?";
}

void fill(dl_matrix3d_t *t, std::mt19937 &rng)
{
    std::uniform_real_distribution<float> d(-1.0f, 1.0f);
    for (int i = 0; i < t->n * t->h * t->w * t->c; i++) t->item[i] = d(rng);
}

// Everything one layer needs in all forms, made once per benchmark.
struct Operands {
    dl_padding_t pad;
    dl_matrix3d_t *in, *filter, *bias;
    dl_matrix3dq_t *qin, *qfilter, *qbias;
    dl_matrix3du_t *image;
    int wo, ho;

    explicit Operands(const Layer &l)
    {
        std::mt19937 rng(1);
        pad = dl_padding_same(l.w, l.h, l.kw, l.kh, l.sx, l.sy, 1);
        in = dl_matrix3d_alloc(1, l.w, l.h, l.c);
        filter = dl_matrix3d_alloc(l.depthwise ? 1 : l.out_c, l.kw, l.kh, l.c);
        bias = dl_matrix3d_alloc(1, 1, 1, l.out_c);
        fill(in, rng);
        fill(filter, rng);
        fill(bias, rng);
        qin = dl_matrixq_from_matrix3d(in);
        qfilter = dl_matrixq_from_matrix3d(filter);
        qbias = dl_matrixq_from_matrix3d(bias);
        image = dl_matrix3du_alloc(1, l.w, l.h, l.c);
        for (int i = 0; i < l.w * l.h * l.c; i++) image->item[i] = static_cast<uc_t>(rng());
        wo = (l.w + l.sx - 1) / l.sx;
        ho = (l.h + l.sy - 1) / l.sy;
    }
    ~Operands()
    {
        dl_matrix3d_free(in);
        dl_matrix3d_free(filter);
        dl_matrix3d_free(bias);
        dl_matrix3dq_free(qin);
        dl_matrix3dq_free(qfilter);
        dl_matrix3dq_free(qbias);
        dl_matrix3du_free(image);
    }
};

double macs(const Layer &l, const Operands &o)
{
    return static_cast<double>(o.wo) * o.ho * l.kw * l.kh * (l.depthwise ? 1 : l.c) * l.out_c;
}

void run_once(const Layer &l, Form form, dl::Isa isa, Operands &o, dl_matrix3d_t *out, dl_matrix3dq_t *qout)
{
    const dl_padding_t *p = &o.pad;
    if (l.depthwise) {
        // The fixed-point forms have one loop for every target.
        switch (form) {
        case Form::float_form: dl::depthwise_conv_layer(isa, o.in, o.filter, o.bias, l.sx, l.sy, p, out); break;
        case Form::quantised_weight:
            dl_matrix3d_depthwise_conv_layer_quantised_weight(o.in, o.qfilter, o.bias, l.sx, l.sy, p, out);
            break;
        case Form::fixed_point:
            dl_matrix3dq_depthwise_conv_layer_q(o.qin, o.qfilter, o.qbias, l.sx, l.sy, p, qout, 0);
            break;
        }
        return;
    }
    switch (form) {
    case Form::float_form:
        if (l.image) dl::conv_layer(isa, o.image, o.filter, o.bias, l.sx, l.sy, p, out);
        else dl::conv_layer(isa, o.in, o.filter, o.bias, l.sx, l.sy, p, out);
        break;
    case Form::quantised_weight:
        if (l.image) dl::conv_layer_quantised_weight(isa, o.image, o.qfilter, o.bias, l.sx, l.sy, p, out);
        else dl::conv_layer_quantised_weight(isa, o.in, o.qfilter, o.bias, l.sx, l.sy, p, out);
        break;
    case Form::fixed_point:
        if (l.image) dl::conv_layer_q(isa, o.image, o.qfilter, o.qbias, l.sx, l.sy, p, qout, 0);
        else dl::conv_layer_q(isa, o.qin, o.qfilter, o.qbias, l.sx, l.sy, p, qout, 0);
        break;
    }
}

// The matrix product of a layer's multiply-accumulates: positions x places
// (per output channel) times places x output channels.
struct Product {
    dl_matrix2d_t *a, *b, *r;
    dl_matrix2dq_t *qa, *qb, *qr;
    double macs;

    Product(const Layer &l, const Operands &o)
    {
        const int m = o.wo * o.ho, k = l.kw * l.kh * (l.depthwise ? 1 : l.c), n = l.out_c;
        std::mt19937 rng(2);
        a = dl_matrix_alloc(k, m);
        b = dl_matrix_alloc(n, k);
        r = dl_matrix_alloc(n, m);
        std::uniform_real_distribution<float> d(-1.0f, 1.0f);
        for (int i = 0; i < k * m; i++) a->item[i] = d(rng);
        for (int i = 0; i < n * k; i++) b->item[i] = d(rng);
        qa = dl_matrixq_from_matrix2d(a, nullptr);
        qb = dl_matrixq_from_matrix2d(b, nullptr);
        qr = dl_matrixq_alloc(n, m);
        macs = static_cast<double>(m) * k * n;
    }
    ~Product()
    {
        dl_matrix_free(a);
        dl_matrix_free(b);
        dl_matrix_free(r);
        dl_matrixq_free(qa);
        dl_matrixq_free(qb);
        dl_matrixq_free(qr);
    }
    void run(bool fixed)
    {
        if (fixed) dl_matrixq_dot(qa, qb, qr, 0);
        else dl_matrix_dot(a, b, r);
    }
};

// The layer's rate as a fraction of the product's ("of_product"): the two
// run in alternation, one call each a round (300 rounds, or fewer past a
// quarter of a second), and the fastest call of each counts, so that the
// load of a shared machine weighs on both alike.
template <class RunLayer, class RunProduct>
double rate_of_product(RunLayer layer, RunProduct product)
{
    using Clock = std::chrono::steady_clock;
    double best_layer = 1e30, best_product = 1e30;
    const auto start = Clock::now();
    for (int round = 0; round < 300 && (round < 10 || Clock::now() - start < std::chrono::milliseconds(250)); round++) {
        const auto t0 = Clock::now();
        layer();
        const auto t1 = Clock::now();
        product();
        const auto t2 = Clock::now();
        best_layer = std::min(best_layer, std::chrono::duration<double>(t1 - t0).count());
        best_product = std::min(best_product, std::chrono::duration<double>(t2 - t1).count());
    }
    return best_product / best_layer;
}

void bench_layer(benchmark::State &state, Layer l, Form form, dl::Isa isa)
{
    Operands o(l);
    dl_matrix3d_t *out = dl_matrix3d_alloc(1, o.wo, o.ho, l.out_c);
    dl_matrix3dq_t *qout = dl_matrix3dq_alloc(1, o.wo, o.ho, l.out_c, 0);
    for (auto _ : state) {
        run_once(l, form, isa, o, out, qout);
        benchmark::ClobberMemory();
    }
    state.counters["MAC/s"] = benchmark::Counter(macs(l, o), benchmark::Counter::kIsIterationInvariantRate);
    // Float layers against the float product, the others against the
    // fixed-point one.
    Product p(l, o);
    const bool fixed = form != Form::float_form;
    state.counters["of_product"] =
        rate_of_product([&] { run_once(l, form, isa, o, out, qout); }, [&] { p.run(fixed); });
    dl_matrix3d_free(out);
    dl_matrix3dq_free(qout);
}

void bench_dot(benchmark::State &state, Layer l, bool fixed)
{
    Operands o(l);
    Product p(l, o);
    for (auto _ : state) {
        p.run(fixed);
        benchmark::ClobberMemory();
    }
    state.counters["MAC/s"] = benchmark::Counter(p.macs, benchmark::Counter::kIsIterationInvariantRate);
    state.counters["of_product"] = 1.0;  // every case has the same counters, as the CSV output requires
}

}  // namespace

int main(int argc, char **argv)
{
    for (const Layer &l : kLayers) {
        const std::string base = l.name;
        benchmark::RegisterBenchmark((base + "/dl_matrix_dot").c_str(), bench_dot, l, false);
        benchmark::RegisterBenchmark((base + "/dl_matrixq_dot").c_str(), bench_dot, l, true);
        for (Form form : {Form::float_form, Form::quantised_weight, Form::fixed_point}) {
            const std::string name = base + "/" + form_name(form);
            if (!l.depthwise || form == Form::float_form)
                benchmark::RegisterBenchmark((name + "/plain").c_str(), bench_layer, l, form, dl::Isa::none);
            benchmark::RegisterBenchmark((name + "/fast").c_str(), bench_layer, l, form, dl::detected_isa());
        }
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
