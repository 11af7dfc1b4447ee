// Helpers of the audio tests: owning pointers for the audio records and the
// committed fixtures of tests/data/audio (make_audio_fixtures.py).
#ifndef DL_LIB_AUDIO_TEST_UTIL_H
#define DL_LIB_AUDIO_TEST_UTIL_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "dl_lib.h"
#include "test_util.h"

using FeaturesPtr = std::unique_ptr<dl_audio_features_t, decltype(&dl_audio_features_free)>;
using StreamPtr = std::unique_ptr<dl_audio_stream_t, decltype(&dl_audio_stream_free)>;
using DetectorPtr = std::unique_ptr<dl_detector_t, decltype(&dl_detector_free)>;

inline constexpr dl_audio_config_t kDefaultConfig = DL_AUDIO_CONFIG_DEFAULT;

inline FeaturesPtr own(dl_audio_features_t *f) { return FeaturesPtr(f, dl_audio_features_free); }

inline FeaturesPtr features(const dl_matrix2d_t *mel, const dl_matrix2d_t *dct)
{
    return own(dl_audio_features_alloc(&kDefaultConfig, mel, dct));
}

inline FeaturesPtr features_q(const dl_matrix2dq_t *mel, const dl_matrix2dq_t *dct)
{
    return own(dl_audio_features_alloc_q(&kDefaultConfig, mel, dct));
}

namespace audiotest {

inline testutil::MatrixPtr load(const char *name)
{
    const std::string path = std::string(DL_TEST_DATA_DIR) + "/audio/" + name + ".npy";
    return testutil::own(dl_matrix2d_from_numpy_file(path.c_str()));
}

// The speech fixture as 16-bit samples, the tables (float, and quantised as
// kelvane's default mode does it) and the twin's outputs.
struct Fixtures {
    testutil::MatrixPtr mel = load("mel"), dct = load("dct");
    testutil::MatrixqPtr melq = testutil::own(dl_matrixq_from_matrix2d(mel.get(), nullptr));
    testutil::MatrixqPtr dctq = testutil::own(dl_matrixq_from_matrix2d(dct.get(), nullptr));
    testutil::MatrixPtr logmel = load("logmel"), ceps = load("ceps"), logmel_q = load("logmel_q"),
                        ceps_q = load("ceps_q"), fft_q = load("fft_q");
    std::vector<int16_t> samples;

    Fixtures()
    {
        testutil::MatrixPtr s = load("speech");
        for (int i = 0; i < s->w; i++) samples.push_back(static_cast<int16_t>(s->item[i]));
    }
    int n() const { return static_cast<int>(samples.size()); }
};

}  // namespace audiotest

#endif /* DL_LIB_AUDIO_TEST_UTIL_H */
