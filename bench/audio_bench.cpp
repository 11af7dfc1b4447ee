// Audio features at the defaults (30 ms windows every 20 ms, FFT of 512, 40
// mel bands, 13 cepstral coefficients) on one second of 16 kHz noise with
// tones, in float and fixed point, one-shot and through a stream fed 10 ms
// blocks. The counter audio_s is seconds of audio processed per second:
// the real-time factor on this machine.
//
//   audio_bench [--benchmark_filter=fixed] [...]
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include "dl_lib.h"

namespace {

constexpr int kRate = 16000, kMels = 40, kCeps = 13, kBins = 257;

std::vector<int16_t> one_second()
{
    std::mt19937 rng(1);
    std::uniform_int_distribution<int> noise(-2000, 2000);
    std::vector<int16_t> s(kRate);
    for (int i = 0; i < kRate; i++) s[i] = static_cast<int16_t>(noise(rng) + ((i / 8) % 2 ? 8000 : -8000));
    return s;
}

// Triangles of equal width on the bins: the cost of a real filter bank,
// which has the same shape.
dl_matrix2d_t *filter_bank()
{
    dl_matrix2d_t *m = dl_matrix_alloc(kMels, kBins);
    const float width = static_cast<float>(kBins) / (kMels + 1);
    for (int j = 0; j < kMels; j++)
        for (int k = 0; k < kBins; k++) {
            const float d = (static_cast<float>(k) - (j + 1) * width) / width;
            m->item[j + m->stride * k] = d > -1.0f && d < 1.0f ? 1.0f - (d < 0 ? -d : d) : 0.0f;
        }
    return m;
}

dl_matrix2d_t *dct_table()
{
    dl_matrix2d_t *m = dl_matrix_alloc(kCeps, kMels);
    for (int j = 0; j < kMels; j++)
        for (int c = 0; c < kCeps; c++) m->item[c + m->stride * j] = (j * 7 + c * 3) % 11 / 50.0f - 0.1f;
    return m;
}

void count_audio(benchmark::State &state)
{
    state.counters["audio_s"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

void bench_features(benchmark::State &state, bool fixed, bool cepstra)
{
    const dl_audio_config_t config = DL_AUDIO_CONFIG_DEFAULT;
    const std::vector<int16_t> s = one_second();
    dl_matrix2d_t *mel = filter_bank(), *dct = dct_table();
    dl_matrix2dq_t *melq = dl_matrixq_from_matrix2d(mel, nullptr), *dctq = dl_matrixq_from_matrix2d(dct, nullptr);
    dl_audio_features_t *f = fixed ? dl_audio_features_alloc_q(&config, melq, cepstra ? dctq : nullptr)
                                   : dl_audio_features_alloc(&config, mel, cepstra ? dct : nullptr);
    const int frames = dl_audio_frame_count(kRate, &config), width = dl_audio_features_width(f);
    dl_matrix2d_t *out = dl_matrix_alloc(width, frames);
    dl_matrix2dq_t *outq = dl_matrixq_alloc(width, frames);
    for (auto _ : state) {
        if (fixed) dl_audio_features_q(s.data(), kRate, f, outq);
        else dl_audio_features(s.data(), kRate, f, out);
        benchmark::ClobberMemory();
    }
    count_audio(state);
    dl_matrix_free(out);
    dl_matrixq_free(outq);
    dl_audio_features_free(f);
    dl_matrix_free(mel);
    dl_matrix_free(dct);
    dl_matrixq_free(melq);
    dl_matrixq_free(dctq);
}

void bench_stream(benchmark::State &state)
{
    const dl_audio_config_t config = DL_AUDIO_CONFIG_DEFAULT;
    const std::vector<int16_t> s = one_second();
    dl_matrix2d_t *mel = filter_bank();
    dl_matrix2dq_t *melq = dl_matrixq_from_matrix2d(mel, nullptr);
    dl_audio_features_t *f = dl_audio_features_alloc_q(&config, melq, nullptr);
    auto net = [](void *, const dl_matrix2dq_t *w, fptp_t *scores) { scores[0] = w->itemq[w->h - 1]; };
    dl_audio_stream_t *stream = dl_audio_stream_alloc_q(f, 49, 1, net, nullptr);
    for (auto _ : state)
        for (int at = 0; at < kRate; at += 160) dl_audio_stream_push(s.data() + at, 160, stream, nullptr, nullptr, 0);
    count_audio(state);
    dl_audio_stream_free(stream);
    dl_audio_features_free(f);
    dl_matrixq_free(melq);
    dl_matrix_free(mel);
}

BENCHMARK_CAPTURE(bench_features, float_logmel, false, false)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(bench_features, float_cepstra, false, true)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(bench_features, fixed_logmel, true, false)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(bench_features, fixed_cepstra, true, true)->Unit(benchmark::kMicrosecond);
BENCHMARK(bench_stream)->Name("fixed_stream_10ms_blocks")->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
