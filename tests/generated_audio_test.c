/*
 * The audio path as firmware uses it, in C99: the filter bank and DCT that
 * the NumPy twin made, converted by kelvane with a _MODEL_INFO_ and fetched
 * by name, give the twin's fixed-point features bit for bit; a stream with
 * the model's detector finds, at the same positions, what the detector finds
 * on one-shot features.
 */
#include <stdio.h>

#include "audio.h"
#include "check.h"
#include "dl_lib.h"
#include "dl_lib_coefgetter_if.h"

static dl_matrix2d_t *load(const char *name)
{
    char path[512];
    snprintf(path, sizeof path, "%s/audio/%s.npy", DL_TEST_DATA_DIR, name);
    return dl_matrix2d_from_numpy_file(path);
}

/* One score: the newest frame's c0 in natural units. */
static void c0_net(void *user, const dl_matrix2dq_t *window, fptp_t *scores)
{
    (void)user;
    scores[0] = (fptp_t)window->itemq[window->h - 1] / 128.0f;
}

int main(void)
{
    const model_info_t *info = get_coeff_audio.getter_info(NULL);
    const dl_matrix2dq_t *mel = get_coeff_audio.getter_q("mel", NULL, 0);
    const dl_matrix2dq_t *dct = get_coeff_audio.getter_q("dct", NULL, 0);
    dl_matrix2d_t *speech = load("speech"), *ceps = load("ceps_q");
    CHECK(info->word_num == 1 && mel && dct && speech && ceps);
    if (failures) return 1;

    int16_t samples[17600];
    for (int i = 0; i < speech->w && i < 17600; i++) samples[i] = (int16_t)speech->item[i];
    const dl_audio_config_t config = DL_AUDIO_CONFIG_DEFAULT;
    dl_audio_features_t *f = dl_audio_features_alloc_q(&config, mel, dct);
    dl_matrix2dq_t *once = dl_audio_features_q(samples, speech->w, f, NULL);
    CHECK(once->h == ceps->h && once->w == ceps->w && once->exponent == DL_AUDIO_CEPS_EXPONENT);
    for (int y = 0; y < once->h; y++)
        for (int x = 0; x < once->w; x++) CHECK(once->itemq[y + once->stride * x] == ceps->item[x + ceps->stride * y]);

    dl_detector_t *streamed = dl_detector_alloc_from_info(info), *direct = dl_detector_alloc_from_info(info);
    dl_audio_stream_t *s = dl_audio_stream_alloc_q(f, 1, info->word_num, c0_net, NULL);
    int64_t got[16], want[16];
    int n_got = 0, n_want = 0;
    for (int at = 0; at < speech->w; at += 500) {
        dl_detection_t found[4];
        const int len = speech->w - at < 500 ? speech->w - at : 500;
        const int n = dl_audio_stream_push(samples + at, len, s, streamed, found, 4);
        for (int i = 0; i < n && i < 4 && n_got < 16; i++) got[n_got++] = found[i].sample;
    }
    for (int t = 0; t < once->h; t++) {
        const fptp_t score = (fptp_t)once->itemq[t] / 128.0f;
        dl_detection_t found;
        if (dl_detector_step(&score, (int64_t)t * config.hop + config.win_len, direct, &found, 1) && n_want < 16)
            want[n_want++] = found.sample;
    }
    CHECK(n_want > 0 && n_got == n_want);
    for (int i = 0; i < n_got && i < n_want; i++) CHECK(got[i] == want[i]);

    dl_audio_stream_free(s);
    dl_detector_free(streamed);
    dl_detector_free(direct);
    dl_matrixq_free(once);
    dl_audio_features_free(f);
    dl_matrix_free(speech);
    dl_matrix_free(ceps);
    printf("%d words, %d detections\n", info->word_num, n_got);
    return check_status();
}
