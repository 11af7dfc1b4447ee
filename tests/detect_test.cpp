// The detector's window and hysteresis on hand-made score sequences.
#include <gtest/gtest.h>

#include <array>
#include <vector>

#include "audio_test_util.h"
#include "dl_lib.h"
#include "dl_lib_coefgetter_if.h"
#include "test_util.h"

namespace {

struct DetectCase {
    const char *name;
    int win;
    float fire, rearm;
    std::vector<float> scores;
    std::vector<int> fired;  // runs that fire
};

void PrintTo(const DetectCase &c, std::ostream *os) { *os << c.name; }

class Detector : public testing::TestWithParam<DetectCase> {};

TEST_P(Detector, FiresOnTheRunsExpected)
{
    const DetectCase &c = GetParam();
    const fptp_t thresh[2] = {c.fire, c.rearm};
    DetectorPtr d(dl_detector_alloc(1, &c.win, thresh), dl_detector_free);
    std::vector<int> fired;
    for (size_t r = 0; r < c.scores.size(); r++) {
        dl_detection_t found[1];
        const int n = dl_detector_step(&c.scores[r], 100 * static_cast<int64_t>(r), d.get(), found, 1);
        ASSERT_LE(n, 1);
        if (n) {
            EXPECT_EQ(found[0].word, 0);
            EXPECT_EQ(found[0].sample, 100 * static_cast<int64_t>(r));
            fired.push_back(static_cast<int>(r));
        }
    }
    EXPECT_EQ(fired, c.fired);
}

INSTANTIATE_TEST_SUITE_P(
    Sequences, Detector,
    testing::Values(
        // Window 1: each score alone; 0.6 stays above the re-arm level, 0.2 re-arms.
        DetectCase{"window1_hysteresis", 1, 0.5f, 0.3f, {0.6f, 0.6f, 0.2f, 0.6f}, {0, 3}},
        // The average reaches the first threshold exactly: >= fires.
        DetectCase{"reaches_exactly", 2, 0.5f, 0.3f, {0.5f, 0.5f}, {1}},
        // Re-arming needs the average strictly below the second threshold.
        DetectCase{"rearm_is_strict", 1, 0.5f, 0.25f, {0.75f, 0.25f, 0.75f, 0.125f, 0.75f}, {0, 4}},
        // Scores before the first run count as 0: one early high score is
        // divided by the whole window.
        DetectCase{"early_runs_count_zero", 3, 0.5f, 0.3f, {0.9f, 0.9f, 0.0f, 0.0f, 0.0f}, {1}},
        // A single spike is diluted by its window and never fires.
        DetectCase{"spike_in_window3", 3, 0.5f, 0.3f, {0.0f, 0.0f, 1.0f, 0.0f, 0.0f, 1.0f, 0.0f}, {}},
        // The window forgets: after three low runs the average is low again.
        DetectCase{"window_forgets", 3, 0.5f, 0.2f, {1, 1, 1, 0, 0, 0, 1, 1}, {1, 7}},
        // A second threshold above the first re-arms at once.
        DetectCase{"rearm_above_fire", 1, 0.5f, 0.8f, {0.6f, 0.6f, 0.6f}, {0, 1, 2}}),
    testing::PrintToStringParamName());

TEST(DetectorWords, WordOrderPositionsAndTruncation)
{
    static char yes[] = "yes", no[] = "no", stop[] = "stop";
    char *words[] = {yes, no, stop};
    int win[] = {1, 2, 1};
    fptp_t thresh[] = {0.5f, 0.4f, 0.5f, 0.4f, 0.5f, 0.4f};
    const model_info_t info = {3, words, win, thresh, "kws_v1_yes_1_0.5_0.4_no_2_0.5_0.4_stop_1_0.5_0.4"};
    DetectorPtr d(dl_detector_alloc_from_info(&info), dl_detector_free);
    const fptp_t run0[] = {0.9f, 0.9f, 0.9f};  // yes and stop fire; no averages 0.45
    dl_detection_t found[3];
    ASSERT_EQ(dl_detector_step(run0, 480, d.get(), found, 3), 2);
    EXPECT_EQ(found[0].word, 0);
    EXPECT_EQ(found[1].word, 2);
    EXPECT_EQ(found[1].sample, 480);
    EXPECT_FLOAT_EQ(found[1].score, 0.9f);
    // All three rest, then all three fire in one run: none fits, and the
    // count says that three were found.
    const fptp_t quiet[] = {0.0f, 0.0f, 0.0f};
    dl_detector_step(quiet, 800, d.get(), found, 3);
    dl_detector_step(quiet, 1120, d.get(), found, 3);
    const fptp_t loud[] = {1.0f, 1.0f, 1.0f};
    EXPECT_EQ(dl_detector_step(loud, 1440, d.get(), found, 0), 3);
    // After a reset every word is armed and every window empty again.
    dl_detector_reset(d.get());
    const fptp_t yes_stop[] = {1.0f, 0.0f, 1.0f};
    EXPECT_EQ(dl_detector_step(yes_stop, 1760, d.get(), found, 3), 2);
    found[0] = found[1] = {-1, -1, 0.0f};
    ASSERT_EQ(dl_detector_step(loud, 2080, d.get(), found, 1), 1);  // "no" reaches 0.5
    EXPECT_EQ(found[0].word, 1);
    EXPECT_EQ(found[1].word, -1);
}

// The NumPy twin's detections on 400 runs of three words whose scores swing
// through their thresholds: the same runs, words and averages, bit for bit.
TEST(DetectorTwin, SameDetectionsAsTheTwin)
{
    testutil::MatrixPtr scores = audiotest::load("detect_scores"), want = audiotest::load("detect_expected");
    const int win[3] = {1, 3, 9};
    const fptp_t thresh[6] = {0.7f, 0.4f, 0.6f, 0.5f, 0.55f, 0.55f};
    DetectorPtr d(dl_detector_alloc(3, win, thresh), dl_detector_free);
    std::vector<dl_detection_t> got;
    for (int r = 0; r < scores->h; r++) {
        dl_detection_t found[3];
        const int n = dl_detector_step(scores->item + scores->stride * r, r, d.get(), found, 3);
        got.insert(got.end(), found, found + n);
    }
    ASSERT_EQ(static_cast<int>(got.size()), want->h);
    for (int i = 0; i < want->h; i++) {
        EXPECT_EQ(got[i].sample, static_cast<int64_t>(want->item[3 * i])) << i;
        EXPECT_EQ(got[i].word, static_cast<int>(want->item[3 * i + 1])) << i;
        EXPECT_EQ(got[i].score, want->item[3 * i + 2]) << i;
    }
}

const testutil::DeathCase kDetectorDeaths[] = {
    {"no_words",
     [] {
         dl_detector_alloc(0, std::array{3}.data(), std::array{0.5f, 0.4f}.data());
     },
     "Assertion `word_num>=1' failed"},
    {"window_zero",
     [] {
         dl_detector_alloc(2, std::array{3, 0}.data(), std::array{0.5f, 0.4f, 0.5f, 0.4f}.data());
     },
     "Assertion `win_list\\[i\\]>=1' failed"},
};

DEATH_TEST_TABLE(DetectorDeathTest, kDetectorDeaths);

}  // namespace
