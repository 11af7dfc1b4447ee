// The stream against one-shot features for blocks of every size, with the
// detector on top, and a long silence that neither allocates nor drifts.
#include <gtest/gtest.h>

#include <algorithm>
#include <type_traits>
#include <vector>

#include "audio_test_util.h"
#include "dl_lib.h"
#include "test_util.h"

using testutil::MatrixPtr;
using testutil::MatrixqPtr;
using testutil::own;

// Every allocation of the library passes these counters (see CMakeLists.txt).
namespace {
long g_allocations = 0;
}
extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void *__real_realloc(void *p, size_t size);
void *__wrap_malloc(size_t size)
{
    g_allocations++;
    return __real_malloc(size);
}
void *__wrap_calloc(size_t count, size_t size)
{
    g_allocations++;
    return __real_calloc(count, size);
}
void *__wrap_realloc(void *p, size_t size)
{
    g_allocations++;
    return __real_realloc(p, size);
}
}

namespace {

/* What the network sees on each run, checked against the one-shot features
 * of the whole signal: the window's rows are frames run - n + 1 .. run, the
 * rows before frame 0 those of a silent frame. Scores: the newest frame's
 * first item and the run's number. */
struct Expectation {
    const dl_matrix2d_t *frames = nullptr;
    const dl_matrix2dq_t *frames_q = nullptr;
    std::vector<float> silent;
    int exponent = 0;  // of the fixed-point windows
    int64_t runs = 0;
    int mismatches = 0;
};

float item(const dl_matrix2d_t *m, int x, int y) { return m->item[x + m->stride * y]; }
float item(const dl_matrix2dq_t *m, int x, int y) { return m->itemq[y + m->stride * x]; }

float expected_item(const Expectation &e, int64_t frame, int x)
{
    if (frame < 0) return e.silent[x];
    return e.frames ? item(e.frames, x, static_cast<int>(frame)) : item(e.frames_q, x, static_cast<int>(frame));
}

template <class Matrix>
void check_window(void *user, const Matrix *window, fptp_t *scores)
{
    auto *e = static_cast<Expectation *>(user);
    if constexpr (std::is_same_v<Matrix, dl_matrix2dq_t>) e->mismatches += window->exponent != e->exponent;
    for (int y = 0; y < window->h; y++)
        for (int x = 0; x < window->w; x++)
            if (item(window, x, y) != expected_item(*e, e->runs - window->h + 1 + y, x)) e->mismatches++;
    scores[0] = item(window, 0, window->h - 1);
    scores[1] = static_cast<fptp_t>(e->runs++);
}

struct StreamCase {
    const char *name;
    bool fixed;
    bool cepstra;
    int n_frames;
};

void PrintTo(const StreamCase &c, std::ostream *os) { *os << c.name; }

class Stream : public testing::TestWithParam<StreamCase> {
  protected:
    audiotest::Fixtures data;
};

// Blocks of 0 samples go between the blocks of every other size.
TEST_P(Stream, AnyBlockSizeGivesTheOneShotFrames)
{
    const StreamCase &c = GetParam();
    FeaturesPtr f = c.fixed ? features_q(data.melq.get(), c.cepstra ? data.dctq.get() : nullptr)
                            : features(data.mel.get(), c.cepstra ? data.dct.get() : nullptr);
    MatrixPtr once = c.fixed ? MatrixPtr(nullptr, dl_matrix_free)
                             : own(dl_audio_features(data.samples.data(), data.n(), f.get(), nullptr));
    MatrixqPtr once_q = c.fixed ? own(dl_audio_features_q(data.samples.data(), data.n(), f.get(), nullptr))
                                : MatrixqPtr(nullptr, dl_matrixq_free);
    const int width = dl_audio_features_width(f.get()), frames = once ? once->h : once_q->h;
    std::vector<int16_t> zeros(480);
    std::vector<fptp_t> silent(width);
    std::vector<qtp_t> silent_q(width);
    if (c.fixed) dl_audio_frame_q(zeros.data(), f.get(), silent_q.data(), 1);
    else dl_audio_frame(zeros.data(), f.get(), silent.data());
    if (c.fixed) silent.assign(silent_q.begin(), silent_q.end());
    for (int block : {0, 1, 7, 160, 1000, data.n()}) {
        Expectation e{once.get(), once_q.get(), silent, c.fixed ? once_q->exponent : 0};
        StreamPtr s(c.fixed ? dl_audio_stream_alloc_q(f.get(), c.n_frames, 2, check_window<dl_matrix2dq_t>, &e)
                            : dl_audio_stream_alloc(f.get(), c.n_frames, 2, check_window<dl_matrix2d_t>, &e),
                    dl_audio_stream_free);
        const int step = block ? block : 333;
        for (int at = 0; at < data.n(); at += step) {
            if (!block) dl_audio_stream_push(data.samples.data() + at, 0, s.get(), nullptr, nullptr, 0);
            dl_audio_stream_push(data.samples.data() + at, std::min(step, data.n() - at), s.get(), nullptr, nullptr, 0);
        }
        EXPECT_EQ(dl_audio_stream_runs(s.get()), frames) << "block " << block;
        EXPECT_EQ(e.runs, frames) << "block " << block;
        EXPECT_EQ(e.mismatches, 0) << "block " << block;
        EXPECT_EQ(dl_audio_stream_scores(s.get())[1], static_cast<float>(frames - 1));
    }
}

INSTANTIATE_TEST_SUITE_P(Paths, Stream,
                         testing::Values(StreamCase{"float_cnn_window", false, false, 24},
                                         StreamCase{"float_recurrent", false, true, 1},
                                         StreamCase{"fixed_cnn_window", true, true, 24},
                                         StreamCase{"fixed_recurrent", true, false, 1},
                                         StreamCase{"fixed_window_longer_than_signal", true, false, 80}),
                         testutil::CaseName());

// A hop longer than the window drops the samples between frames, also
// across blocks.
TEST(StreamHop, LongerThanWindowSkipsSamples)
{
    const dl_audio_config_t config = {100, 250, 128};
    MatrixqPtr mel = own(dl_matrixq_alloc(1, 65));
    for (int k = 0; k < 65; k++) mel->itemq[k] = 100;
    FeaturesPtr f = own(dl_audio_features_alloc_q(&config, mel.get(), nullptr));
    std::vector<int16_t> signal(2000);
    for (int i = 0; i < 2000; i++) signal[i] = static_cast<int16_t>((i * 7919) % 20000 - 10000);
    MatrixqPtr once = own(dl_audio_features_q(signal.data(), 2000, f.get(), nullptr));
    Expectation e{nullptr, once.get(), {}, once->exponent};
    StreamPtr s(dl_audio_stream_alloc_q(f.get(), 2, 2, check_window<dl_matrix2dq_t>, &e), dl_audio_stream_free);
    qtp_t silent;
    std::vector<int16_t> zeros(100);
    dl_audio_frame_q(zeros.data(), f.get(), &silent, 1);
    e.silent = {static_cast<float>(silent)};
    for (int at = 0; at < 2000; at += 7)
        dl_audio_stream_push(signal.data() + at, std::min(7, 2000 - at), s.get(), nullptr, nullptr, 0);
    EXPECT_EQ(e.runs, 8);
    EXPECT_EQ(e.mismatches, 0);
}

// Ten minutes of silence in blocks of 1000: no allocation, the same window
// on every run, no detection; then a word still fires at the right place.
TEST(StreamSilence, LongRunNeitherAllocatesNorDrifts)
{
    audiotest::Fixtures data;
    FeaturesPtr f = features_q(data.melq.get(), data.dctq.get());
    struct Silence {
        std::vector<qtp_t> first = std::vector<qtp_t>(30 * 13);
        int64_t runs = 0;
        int changed = 0;
        bool loud = false;
    } state;
    auto net = [](void *user, const dl_matrix2dq_t *w, fptp_t *scores) {
        auto *st = static_cast<Silence *>(user);
        for (int x = 0, i = 0; x < w->w; x++)
            for (int y = 0; y < w->h; y++, i++) {
                const qtp_t v = w->itemq[y + w->stride * x];
                if (st->runs == 0) st->first[i] = v;
                else if (!st->loud && v != st->first[i]) st->changed++;
            }
        st->runs++;
        scores[0] = st->loud ? 0.9f : 0.3f;
    };
    const int win = 3;
    const fptp_t thresh[2] = {0.8f, 0.5f};
    DetectorPtr d(dl_detector_alloc(1, &win, thresh), dl_detector_free);
    const long at_creation = g_allocations;
    StreamPtr s(dl_audio_stream_alloc_q(f.get(), 30, 1, net, &state), dl_audio_stream_free);
    ASSERT_GT(g_allocations, at_creation);  // the counters see the library's allocations
    std::vector<int16_t> zeros(1000);
    dl_detection_t found[2];
    int detections = 0;
    const long before = g_allocations;
    for (int i = 0; i < 16 * 600; i++)
        detections += dl_audio_stream_push(zeros.data(), 1000, s.get(), d.get(), found, 2);
    EXPECT_EQ(g_allocations, before);
    EXPECT_EQ(detections, 0);
    EXPECT_EQ(state.changed, 0);
    EXPECT_EQ(state.runs, (9600000 - 480) / 320 + 1);
    state.loud = true;
    ASSERT_EQ(dl_audio_stream_push(zeros.data(), 1000, s.get(), d.get(), found, 2), 1);
    // This block's runs, 29999 to 30001, are loud: the window of 3 averages
    // 0.5, 0.7, then 0.9 at run 30001, which ends at 30001 * 320 + 480.
    EXPECT_EQ(found[0].sample, INT64_C(30001) * 320 + 480);
}

void death_stream_float_on_fixed_features()
{
    dl_audio_features_t *f = dl_audio_features_alloc_q(&kDefaultConfig, dl_matrixq_alloc(2, 257), nullptr);
    dl_audio_stream_alloc(
        f, 4, 1, [](void *, const dl_matrix2d_t *, fptp_t *) {}, nullptr);
}
void death_detector_words()
{
    dl_audio_features_t *f = dl_audio_features_alloc_q(&kDefaultConfig, dl_matrixq_alloc(2, 257), nullptr);
    dl_audio_stream_t *s = dl_audio_stream_alloc_q(
        f, 4, 2, [](void *, const dl_matrix2dq_t *, fptp_t *) {}, nullptr);
    const int win = 1;
    const fptp_t thresh[2] = {0.5f, 0.4f};
    dl_audio_stream_push(nullptr, 0, s, dl_detector_alloc(1, &win, thresh), nullptr, 0);
}

const testutil::DeathCase kStreamDeaths[] = {
    {"float_on_fixed_features", death_stream_float_on_fixed_features, "Assertion `features->mel' failed"},
    {"detector_words", death_detector_words, "Assertion `detector->words==s->n_scores' failed"},
};

DEATH_TEST_TABLE(StreamDeathTest, kStreamDeaths);

}  // namespace
