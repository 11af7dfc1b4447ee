// The layers at sizes a small model uses: one LSTM step (64 inputs, 128
// units, one row; and 8 inputs, 32 units, the digits network's) in its three
// variants, the fixed-point weights as given or prepared once
// (dl_matrixq_prepare), and both convolution layers on a
// 32 x 32 input with a 3 x 3 filter and 16 channels, for stride 1 and 2 and
// padding 0 and 1. Times are per call.
//
//   layers_bench [--benchmark_filter=conv] [...]
#include <benchmark/benchmark.h>

#include <cstdio>
#include <random>
#include <string>
#include <utility>

#include "dl_lib.h"

namespace {

dl_matrix2d_t *random_floats(int w, int h, float range, std::mt19937 &rng)
{
    dl_matrix2d_t *m = dl_matrix_alloc(w, h);
    std::uniform_real_distribution<float> d(-range, range);
    for (int i = 0; i < w * h; i++) m->item[i] = d(rng);
    return m;
}

dl_matrix2dq_t *quantised(const dl_matrix2d_t *m) { return dl_matrixq_from_matrix2d(m, nullptr); }

enum class Lstm { float_cell, quantised_weights, fixed_point };

void bench_lstm(benchmark::State &state, Lstm variant, int inputs, int units, bool prepared)
{
    std::mt19937 rng(1);
    dl_matrix2d_t *in = random_floats(inputs, 1, 1.0f, rng);
    dl_matrix2d_t *w = random_floats(4 * units, inputs + units, 0.1f, rng);
    dl_matrix2d_t *b = random_floats(4 * units, 1, 0.5f, rng);
    dl_matrix2d_t *c = random_floats(units, 1, 1.0f, rng), *h = random_floats(units, 1, 0.5f, rng);
    dl_matrix2dq_t *qin = quantised(in), *qb = quantised(b), *qc = quantised(c), *qh = quantised(h);
    dl_matrix2dq_t *qw = quantised(w);
    if (prepared) {
        dl_matrix2dq_t *p = dl_matrixq_prepare(qw);
        dl_matrixq_free(qw);
        qw = p;
    }
    // The states evolve from call to call, as in a sequence.
    for (auto _ : state) {
        switch (variant) {
        case Lstm::float_cell: dl_basic_lstm_layer(in, c, h, w, b); break;
        case Lstm::quantised_weights: dl_basic_lstm_layer_quantised_weights(in, c, h, qw, b); break;
        case Lstm::fixed_point: dl_basic_lstm_layer_q(qin, qc, qh, qw, qb, 2); break;
        }
        benchmark::ClobberMemory();
    }
    dl_matrix_free(in);
    dl_matrix_free(w);
    dl_matrix_free(b);
    dl_matrix_free(c);
    dl_matrix_free(h);
    dl_matrixq_free(qin);
    dl_matrixq_free(qw);
    dl_matrixq_free(qb);
    dl_matrixq_free(qc);
    dl_matrixq_free(qh);
}

constexpr int kSide = 32, kFilter = 3, kChannels = 16;

void bench_conv(benchmark::State &state, bool quantised_filter, int stride, int padding)
{
    std::mt19937 rng(2);
    dl_matrix2d_t *in = random_floats(kSide, kSide, 1.0f, rng);
    dl_matrix2d_t *filter = random_floats(kChannels, kFilter * kFilter, 0.5f, rng);
    dl_matrix2d_t *bias = random_floats(kChannels, 1, 0.1f, rng);
    dl_matrix2dq_t *qfilter = quantised(filter);
    dl_matrix2d_t *out =
        quantised_filter
            ? dl_basic_conv_layer_quantised_weight(in, qfilter, bias, kFilter, kFilter, kChannels, stride, stride,
                                                   padding, nullptr)
            : dl_basic_conv_layer(in, filter, bias, kFilter, kFilter, kChannels, stride, stride, padding, nullptr);
    for (auto _ : state) {
        if (quantised_filter)
            dl_basic_conv_layer_quantised_weight(in, qfilter, bias, kFilter, kFilter, kChannels, stride, stride,
                                                 padding, out);
        else dl_basic_conv_layer(in, filter, bias, kFilter, kFilter, kChannels, stride, stride, padding, out);
        benchmark::ClobberMemory();
    }
    state.counters["positions"] = out->w / kChannels;
    dl_matrix_free(in);
    dl_matrix_free(filter);
    dl_matrix_free(bias);
    dl_matrixq_free(qfilter);
    dl_matrix_free(out);
}

}  // namespace

int main(int argc, char **argv)
{
    for (const auto &[inputs, units] : {std::pair{64, 128}, std::pair{8, 32}}) {
        char name[96];
        snprintf(name, sizeof name, "lstm/float/%dx%d", inputs, units);
        benchmark::RegisterBenchmark(name, bench_lstm, Lstm::float_cell, inputs, units, false)
            ->Unit(benchmark::kMicrosecond);
        for (bool prepared : {false, true}) {
            const char *how = prepared ? "/prepared" : "";
            snprintf(name, sizeof name, "lstm/quantised_weights/%dx%d%s", inputs, units, how);
            benchmark::RegisterBenchmark(name, bench_lstm, Lstm::quantised_weights, inputs, units, prepared)
                ->Unit(benchmark::kMicrosecond);
            snprintf(name, sizeof name, "lstm/fixed_point/%dx%d%s", inputs, units, how);
            benchmark::RegisterBenchmark(name, bench_lstm, Lstm::fixed_point, inputs, units, prepared)
                ->Unit(benchmark::kMicrosecond);
        }
    }
    for (bool q : {false, true})
        for (int stride : {1, 2})
            for (int padding : {0, 1}) {
                const std::string name = std::string(q ? "conv/quantised_weight" : "conv/float") + "/stride" +
                                         std::to_string(stride) + "/padding" + std::to_string(padding);
                benchmark::RegisterBenchmark(name.c_str(), bench_conv, q, stride, padding)
                    ->Unit(benchmark::kMicrosecond);
            }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
