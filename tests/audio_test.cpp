// Audio features against the NumPy twin's committed outputs on synthesised
// speech with noise and a full-scale square wave (tests/data/audio).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "audio_internal.h"
#include "audio_test_util.h"
#include "dl_lib.h"
#include "reference.h"

using testutil::CaseName;
using testutil::MatrixPtr;
using testutil::MatrixqPtr;
using testutil::own;

namespace {

constexpr int kFftFrame = 10;  // the frame whose spectrum the fixtures hold

class AudioFeatures : public testing::Test {
  protected:
    audiotest::Fixtures data;
};

TEST_F(AudioFeatures, FixedFftIsTheTwins)
{
    FeaturesPtr f = features_q(data.melq.get(), nullptr);
    std::vector<int32_t> x(480), re(257), im(257);
    for (int n = 0; n < 480; n++) x[n] = (data.samples[kFftFrame * 320 + n] * f->win_q15[n] + (1 << 14)) >> 15;
    dl_audio_rfft_q(x.data(), 480, f.get(), re.data(), im.data());
    for (int k = 0; k < 257; k++) {
        ASSERT_EQ(re[k], static_cast<int32_t>(data.fft_q->item[k])) << "bin " << k;
        ASSERT_EQ(im[k], static_cast<int32_t>(data.fft_q->item[257 + k])) << "bin " << k;
    }
}

// Hand-checkable spectra: an impulse is flat, a constant is all at bin 0,
// and a cosine of 8 cycles in 32 points sits at bin 8 with half its sum.
struct SpectrumCase {
    const char *name;
    int32_t (*value)(int n);
    int32_t re0, re8, others;
};

void PrintTo(const SpectrumCase &c, std::ostream *os) { *os << c.name; }

class AudioSpectrum : public testing::TestWithParam<SpectrumCase> {};

TEST_P(AudioSpectrum, FixedAndFloat)
{
    const SpectrumCase &c = GetParam();
    const dl_audio_config_t config = {32, 32, 32};
    MatrixqPtr melq = own(dl_matrixq_alloc(1, 17));
    MatrixPtr mel = own(dl_matrix_alloc(1, 17));
    FeaturesPtr fq = own(dl_audio_features_alloc_q(&config, melq.get(), nullptr));
    FeaturesPtr ff = own(dl_audio_features_alloc(&config, mel.get(), nullptr));
    std::vector<int32_t> x(32), re(17), im(17);
    std::vector<fptp_t> xf(32), ref(17), imf(17);
    for (int n = 0; n < 32; n++) xf[n] = static_cast<fptp_t>(x[n] = c.value(n));
    dl_audio_rfft_q(x.data(), 32, fq.get(), re.data(), im.data());
    dl_audio_rfft(xf.data(), 32, ff.get(), ref.data(), imf.data());
    for (int k = 0; k <= 16; k++) {
        const int32_t want = k == 0 ? c.re0 : k == 8 ? c.re8 : c.others;
        EXPECT_EQ(re[k], want) << "bin " << k;
        EXPECT_EQ(im[k], 0) << "bin " << k;
        // Twiddles are exact to 2^-29 before float rounding.
        EXPECT_NEAR(ref[k], static_cast<float>(want), 1e-3f) << "bin " << k;
        EXPECT_NEAR(imf[k], 0.0f, 1e-3f) << "bin " << k;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Goldens, AudioSpectrum,
    testing::Values(SpectrumCase{"impulse", [](int n) { return n == 0 ? 1000 : 0; }, 1000, 1000, 1000},
                    SpectrumCase{"constant", [](int) { return -300; }, -9600, 0, 0},
                    SpectrumCase{"cosine_bin8", [](int n) { return (n % 4 == 0)   ? 100
                                                                   : (n % 4 == 2) ? -100
                                                                                  : 0; }, 0,
                                 1600, 0}),
    CaseName());

// Full-scale input at every size, up to the largest: the integer FFT's
// 32- and 64-bit sums must not overflow (UBSan would stop the test) and it
// follows the float FFT to within what float32 rounding allows, 1e-5 of the
// largest possible bin.
TEST(AudioFftSizes, FixedFollowsFloatAtFullScale)
{
    for (int len : {4, 64, 512, 4096}) {
        const dl_audio_config_t config = {len, len, len};
        MatrixqPtr melq = own(dl_matrixq_alloc(1, len / 2 + 1));
        MatrixPtr mel = own(dl_matrix_alloc(1, len / 2 + 1));
        FeaturesPtr fq = own(dl_audio_features_alloc_q(&config, melq.get(), nullptr));
        FeaturesPtr ff = own(dl_audio_features_alloc(&config, mel.get(), nullptr));
        std::vector<int32_t> x(len), re(len / 2 + 1), im(len / 2 + 1);
        std::vector<fptp_t> xf(len), ref(len / 2 + 1), imf(len / 2 + 1);
        uint32_t lcg = 1;
        for (int n = 0; n < len; n++) {
            lcg = lcg * 1664525u + 1013904223u;
            xf[n] = static_cast<fptp_t>(x[n] = (lcg >> 31) ? 32767 : -32768);
        }
        dl_audio_rfft_q(x.data(), len, fq.get(), re.data(), im.data());
        dl_audio_rfft(xf.data(), len, ff.get(), ref.data(), imf.data());
        const float bound = 1e-5f * 32768.0f * static_cast<float>(len);
        for (int k = 0; k <= len / 2; k++) {
            ASSERT_NEAR(static_cast<float>(re[k]), ref[k], bound) << len << " bin " << k;
            ASSERT_NEAR(static_cast<float>(im[k]), imf[k], bound) << len << " bin " << k;
        }
    }
}

TEST_F(AudioFeatures, FloatFeaturesMatchTheTwin)
{
    struct {
        const dl_matrix2d_t *dct;
        const dl_matrix2d_t *expected;
    } cases[] = {{nullptr, data.logmel.get()}, {data.dct.get(), data.ceps.get()}};
    for (const auto &c : cases) {
        FeaturesPtr f = features(data.mel.get(), c.dct);
        MatrixPtr out = own(dl_audio_features(data.samples.data(), data.n(), f.get(), nullptr));
        ASSERT_EQ(out->w, c.expected->w);
        ASSERT_EQ(out->h, c.expected->h);
        // Same operations in the same order; only logf and NumPy's log may
        // differ in the last place, which the DCT sums carry on.
        for (int i = 0; i < out->w * out->h; i++) ASSERT_NEAR(out->item[i], c.expected->item[i], 1e-4f) << i;
    }
}

TEST_F(AudioFeatures, FixedFeaturesAreTheTwinsBits)
{
    struct {
        const dl_matrix2dq_t *dct;
        const dl_matrix2d_t *expected;
        int exponent;
    } cases[] = {{nullptr, data.logmel_q.get(), -10}, {data.dctq.get(), data.ceps_q.get(), -7}};
    for (const auto &c : cases) {
        FeaturesPtr f = features_q(data.melq.get(), c.dct);
        MatrixqPtr out = own(dl_audio_features_q(data.samples.data(), data.n(), f.get(), nullptr));
        ASSERT_EQ(std::tuple(out->w, out->h), std::tuple(c.expected->w, c.expected->h));
        const std::vector<float> want = testutil::items_of(c.expected);
        EXPECT_EQ(ref::state(out.get()), ref::QState(std::vector<int>(want.begin(), want.end()), c.exponent));
    }
}

TEST(AudioFeaturesSilence, ZeroFrameGivesTheFloor)
{
    MatrixPtr mel = own(dl_matrix_alloc(3, 257));
    for (int k = 0; k < 257; k++) mel->item[3 * k + k % 3] = 1.0f;
    MatrixqPtr melq = own(dl_matrixq_from_matrix2d(mel.get(), nullptr));
    FeaturesPtr ff = own(dl_audio_features_alloc(&kDefaultConfig, mel.get(), nullptr));
    FeaturesPtr fq = own(dl_audio_features_alloc_q(&kDefaultConfig, melq.get(), nullptr));
    std::vector<int16_t> zeros(480);
    fptp_t out[3];
    qtp_t outq[3];
    dl_audio_frame(zeros.data(), ff.get(), out);
    dl_audio_frame_q(zeros.data(), fq.get(), outq, 1);
    for (int j = 0; j < 3; j++) {
        EXPECT_EQ(out[j], -20.0f);
        EXPECT_EQ(outq[j], -20480);
    }
}

struct FrameCountCase {
    int n, win, hop, frames;
};

TEST(AudioFeaturesFraming, FrameCount)
{
    const FrameCountCase cases[] = {{0, 480, 320, 0},   {479, 480, 320, 0},    {480, 480, 320, 1}, {799, 480, 320, 1},
                                    {800, 480, 320, 2}, {16000, 480, 320, 49}, {100, 10, 30, 4},   {5, 5, 1, 1}};
    for (const FrameCountCase &c : cases) {
        const dl_audio_config_t config = {c.win, c.hop, 512};
        EXPECT_EQ(dl_audio_frame_count(c.n, &config), c.frames) << c.n << " " << c.win << " " << c.hop;
    }
}

void death_fft_not_power_of_two()
{
    const dl_audio_config_t c = {480, 320, 500};
    dl_audio_features_alloc(&c, dl_matrix_alloc(1, 251), nullptr);
}
void death_mel_rows() { dl_audio_features_alloc(&kDefaultConfig, dl_matrix_alloc(1, 256), nullptr); }
void death_negative_mel_item()
{
    dl_matrix2dq_t *mel = dl_matrixq_alloc(2, 257);
    mel->itemq[mel->stride + 5] = -1;
    dl_audio_features_alloc_q(&kDefaultConfig, mel, nullptr);
}
void death_dct_exponent()
{
    dl_matrix2dq_t *dct = dl_matrixq_alloc(2, 2);
    dct->exponent = 3;
    dl_audio_features_alloc_q(&kDefaultConfig, dl_matrixq_alloc(2, 257), dct);
}
void death_float_frame_on_fixed_record()
{
    dl_audio_features_t *f = dl_audio_features_alloc_q(&kDefaultConfig, dl_matrixq_alloc(2, 257), nullptr);
    static const int16_t zeros[480] = {};
    fptp_t out[2];
    dl_audio_frame(zeros, f, out);
}

const testutil::DeathCase kAudioDeaths[] = {
    {"mel_rows", death_mel_rows, "Assertion `mel->h==config->fft_len/2\\+1' failed"},
    {"negative_mel_item", death_negative_mel_item, "mel->itemq\\[y\\+mel->stride\\*x\\]>=0"},
    {"dct_exponent", death_dct_exponent, "3-dct->exponent>=1"},
    {"fft_not_power_of_two", death_fft_not_power_of_two, "Assertion `\\(c->fft_len&\\(c->fft_len-1\\)\\)==0' failed"},
    {"float_frame_on_fixed_record", death_float_frame_on_fixed_record, "Assertion `f->mel' failed"},
};

DEATH_TEST_TABLE(AudioFeaturesDeathTest, kAudioDeaths);

}  // namespace
