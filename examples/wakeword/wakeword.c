/*
 * wakeword: the keyword spotter on a WAV file, its CNN and its LSTM each in
 * float, with 16-bit weights and in fixed point, one detection a line.
 *
 *   wakeword [options] recording.wav
 *     --network cnn|lstm             one network only (default: both)
 *     --format float|weights|fixed   one form only (default: all three)
 *     --check times.txt              score the detections against the words
 *                                    spoken (lines "word start end ...")
 *     --max-misses N, --max-false-alarms N
 *                                    with --check: exit 1 beyond these
 *     --accuracy labels.txt          the WAV is one-second clips, labelled a
 *                                    line each: classify each clip alone
 *     --timing                       time per second of audio and its share
 *                                    in features, network and detector
 *
 * The WAV must be 16 kHz, mono, 16-bit PCM: anything else is refused with
 * a message naming what differs, since converting it would change the
 * numbers the network was trained on.
 */
#include <sndfile.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "cnn_net.h"
#include "kws_pipeline.h"
#include "mel_f.h"
#include "mel_q.h"

#define RATE      16000
#define BLOCK     160        /* 10 ms: the stream is fed as a microphone would feed it */
#define LATE      (RATE / 2) /* a detection may come up to half a second after its word */
#define MAX_WORDS 256

typedef struct {
    int16_t *samples;
    int n;
} audio_t;

/* The samples of path, or n < 0 after one line on stderr. */
static audio_t read_wav(const char *path)
{
    audio_t a = {NULL, -1};
    SF_INFO info;
    memset(&info, 0, sizeof info);
    SNDFILE *f = sf_open(path, SFM_READ, &info);
    if (!f) {
        fprintf(stderr, "%s: %s\n", path, sf_strerror(NULL));
        return a;
    }
    const char *wrong = NULL;
    char why[128];
    if ((info.format & SF_FORMAT_TYPEMASK) != SF_FORMAT_WAV) wrong = "not a WAV file";
    else if (info.samplerate != RATE) {
        snprintf(why, sizeof why, "sample rate %d Hz, not %d Hz", info.samplerate, RATE);
        wrong = why;
    } else if (info.channels != 1) {
        snprintf(why, sizeof why, "%d channels, not 1 (mono)", info.channels);
        wrong = why;
    } else if ((info.format & SF_FORMAT_SUBMASK) != SF_FORMAT_PCM_16) wrong = "samples are not 16-bit PCM";
    else if (info.frames > 0x7fffffff) wrong = "longer than 2^31 samples";
    if (wrong) {
        fprintf(stderr, "%s: %s; wakeword takes 16 kHz mono 16-bit PCM WAV files\n", path, wrong);
        sf_close(f);
        return a;
    }
    a.samples = malloc((size_t)(info.frames ? info.frames : 1) * sizeof *a.samples);
    if (!a.samples) {
        fprintf(stderr, "%s: out of memory\n", path);
        sf_close(f);
        return a;
    }
    a.n = (int)sf_read_short(f, a.samples, info.frames);
    if (a.n != info.frames) {
        fprintf(stderr, "%s: read %d of %ld samples\n", path, a.n, (long)info.frames);
        free(a.samples);
        a.samples = NULL;
        a.n = -1;
    }
    sf_close(f);
    return a;
}

static void count_warning(const char *text, void *count)
{
    (void)text;
    ++*(long *)count;
}

static double now(void)
{
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return (double)t.tv_sec + 1e-9 * (double)t.tv_nsec;
}

/* ---- Scoring against the spoken words. */

typedef struct {
    char word[32];
    long start, end;
    int found;
} spoken_t;

static int read_times(const char *path, spoken_t *words, int max)
{
    FILE *f = fopen(path, "r");
    if (!f) {
        perror(path);
        return -1;
    }
    char line[256];
    int n = 0;
    while (fgets(line, sizeof line, f)) {
        if (line[0] == '#') continue;
        if (n == max || sscanf(line, "%31s %ld %ld", words[n].word, &words[n].start, &words[n].end) != 3) {
            fprintf(stderr, "%s: line %d: expected \"word start end\" (at most %d lines)\n", path, n + 1, max);
            fclose(f);
            return -1;
        }
        words[n++].found = 0;
    }
    fclose(f);
    return n;
}

static int is_wake_word(kws_network_t network, const char *word)
{
    const model_info_t *info = kws_info(network);
    for (int i = 0; i < info->word_num; i++)
        if (!strcmp(info->word_list[i], word)) return 1;
    return 0;
}

/* A detection matches the first word of its kind, not yet found, whose
 * span (plus LATE) holds it; any other is a false alarm. */
static int match(kws_network_t network, const dl_detection_t *d, spoken_t *words, int n)
{
    const char *name = kws_info(network)->word_list[d->word];
    for (int i = 0; i < n; i++)
        if (!words[i].found && !strcmp(words[i].word, name) && words[i].start <= d->sample &&
            d->sample <= words[i].end + LATE) {
            words[i].found = 1;
            return 1;
        }
    return 0;
}

/* ---- One form over the whole recording. */

typedef struct {
    int detections, false_alarms, misses, commands;
    double total, network, detector;
} outcome_t;

static int run(kws_network_t network, kws_format_t format, const audio_t *a, spoken_t *words, int n_words, int timing,
               outcome_t *o)
{
    memset(o, 0, sizeof *o);
    kws_pipeline_t *p = kws_pipeline_new(network, format);
    if (!p) return 1;
    const model_info_t *info = kws_info(network);
    const int64_t max_runs = a->n / KWS_HOP + 2;
    fptp_t *scores = timing ? malloc((size_t)max_runs * (size_t)info->word_num * sizeof *scores) : NULL;
    if (timing && !scores) {
        fprintf(stderr, "wakeword: out of memory\n");
        kws_pipeline_free(p);
        return 1;
    }
    if (timing) kws_pipeline_measure(p, now, scores, max_runs);
    for (int i = 0; i < n_words; i++) words[i].found = 0;

    const double started = now();
    for (int at = 0; at < a->n; at += BLOCK) {
        dl_detection_t found[8];
        const int len = a->n - at < BLOCK ? a->n - at : BLOCK;
        const int k = kws_pipeline_push(p, a->samples + at, len, found, 8);
        for (int i = 0; i < k && i < 8; i++) {
            kws_print_detection(stdout, p, &found[i]);
            o->detections++;
            if (words && !match(network, &found[i], words, n_words)) o->false_alarms++;
        }
    }
    o->total = now() - started;

    if (timing) {
        /* The detector alone, on the scores the stream gave it. */
        o->network = kws_pipeline_network_time(p);
        dl_detector_t *d = dl_detector_alloc_from_info(info);
        const int64_t runs = kws_pipeline_runs(p) < max_runs ? kws_pipeline_runs(p) : max_runs;
        const double t0 = now();
        for (int64_t r = 0; r < runs; r++) {
            dl_detection_t found[8];
            dl_detector_step(scores + r * info->word_num, r * KWS_HOP + KWS_WIN_LEN, d, found, 8);
        }
        o->detector = now() - t0;
        dl_detector_free(d);
    }
    for (int i = 0; i < n_words; i++)
        if (is_wake_word(network, words[i].word)) {
            o->commands++;
            o->misses += !words[i].found;
        }
    free(scores);
    kws_pipeline_free(p);
    return 0;
}

/* ---- Accuracy on one-second clips. */

/* The class of one clip's features: the CNN's most probable output on the
 * whole clip; for the LSTM, from fresh states over the clip's frames, the
 * most probable word or unknown at any frame if that reaches 0.5, else
 * silence (as train.py scores PyTorch's LSTM). */
static int classify(kws_network_t network, kws_format_t format, const dl_matrix2d_t *x, const dl_matrix2dq_t *xq)
{
    fptp_t scores[KWS_CLASSES];
    const int silence = KWS_CLASSES - 1;
    if (network == KWS_CNN) {
        if (format == KWS_FIXED) kws_cnn_fixed(NULL, xq, scores);
        else if (format == KWS_FLOAT) kws_cnn_float(NULL, x, scores);
        else kws_cnn_quantised_weights(NULL, x, scores);
        const fptp_t *prob = kws_cnn_probabilities(format);
        int best = 0;
        for (int i = 1; i < KWS_CLASSES; i++)
            if (prob[i] > prob[best]) best = i;
        return best;
    }
    kws_lstm_reset();
    int best = silence;
    fptp_t best_p = 0.5f;
    dl_matrix2dq_t *step = NULL;
    for (int t = 0; t < KWS_FRAMES; t++) {
        if (format == KWS_FIXED) {
            step = dl_matrixq_slice(xq, 0, t, KWS_MELS, 1, step);
            kws_lstm_fixed(NULL, step, scores);
        } else {
            dl_matrix2d_t row = {.w = KWS_MELS,
                                 .h = 1,
                                 .stride = x->stride,
                                 .flags = DL_MF_FOREIGNDATA,
                                 .item = x->item + x->stride * t};
            if (format == KWS_FLOAT) kws_lstm_float(NULL, &row, scores);
            else kws_lstm_quantised_weights(NULL, &row, scores);
        }
        const fptp_t *prob = kws_lstm_probabilities(format);
        for (int i = 0; i < silence; i++)
            if (prob[i] >= best_p) {
                best = i;
                best_p = prob[i];
            }
    }
    dl_matrixq_free(step);
    return best;
}

static int accuracy(kws_network_t network, kws_format_t format, const audio_t *a, const char *labels_path)
{
    FILE *f = fopen(labels_path, "r");
    if (!f) {
        perror(labels_path);
        return 1;
    }
    const dl_audio_config_t config = KWS_AUDIO_CONFIG;
    dl_audio_features_t *feat = NULL;
    if (format == KWS_FIXED) feat = dl_audio_features_alloc_q(&config, get_coeff_mel_q.getter_q("mel", NULL, 0), NULL);
    else feat = dl_audio_features_alloc(&config, get_coeff_mel_f.getter_f("mel", NULL, 0), NULL);
    int clips = 0, right = 0, label;
    while (fscanf(f, "%d", &label) == 1 && (clips + 1) * RATE <= a->n) {
        const int16_t *clip = a->samples + clips * RATE;
        dl_matrix2d_t *x = format == KWS_FIXED ? NULL : dl_audio_features(clip, RATE, feat, NULL);
        dl_matrix2dq_t *xq = format == KWS_FIXED ? dl_audio_features_q(clip, RATE, feat, NULL) : NULL;
        right += classify(network, format, x, xq) == label;
        dl_matrix_free(x);
        dl_matrixq_free(xq);
        clips++;
    }
    fclose(f);
    dl_audio_features_free(feat);
    printf("%s %s: %d of %d clips right, %.1f %%\n", kws_network_names[network], kws_format_names[format], right, clips,
           clips ? 100.0 * right / clips : 0.0);
    return 0;
}

static int usage(void)
{
    fprintf(stderr,
            "usage: wakeword [--network cnn|lstm] [--format float|weights|fixed] [--check times.txt [--max-misses N] "
            "[--max-false-alarms N]] [--accuracy labels.txt] [--timing] file.wav\n");
    return 2;
}

int main(int argc, char **argv)
{
    const char *wav = NULL, *times = NULL, *labels = NULL;
    int first = 0, last = KWS_FORMATS - 1, timing = 0, max_misses = -1, max_false_alarms = -1;
    int first_net = 0, last_net = KWS_NETWORKS - 1;
    for (int i = 1; i < argc; i++) {
        const int has_value = i + 1 < argc;
        if (!strcmp(argv[i], "--format") && has_value) {
            const char *name = argv[++i];
            first = -1;
            for (int k = 0; k < KWS_FORMATS; k++)
                if (!strcmp(name, kws_format_names[k])) first = last = k;
            if (first < 0) return usage();
        } else if (!strcmp(argv[i], "--network") && has_value) {
            const char *name = argv[++i];
            first_net = -1;
            for (int k = 0; k < KWS_NETWORKS; k++)
                if (!strcmp(name, kws_network_names[k])) first_net = last_net = k;
            if (first_net < 0) return usage();
        } else if (!strcmp(argv[i], "--check") && has_value) times = argv[++i];
        else if (!strcmp(argv[i], "--accuracy") && has_value) labels = argv[++i];
        else if (!strcmp(argv[i], "--max-misses") && has_value) max_misses = atoi(argv[++i]);
        else if (!strcmp(argv[i], "--max-false-alarms") && has_value) max_false_alarms = atoi(argv[++i]);
        else if (!strcmp(argv[i], "--timing")) timing = 1;
        else if (argv[i][0] != '-' && !wav) wav = argv[i];
        else return usage();
    }
    if (!wav) return usage();

    audio_t a = read_wav(wav);
    if (a.n < 0) return 1;
    const char *missing = kws_cnn_init();
    if (!missing) missing = kws_lstm_init();
    if (missing) {
        fprintf(stderr, "wakeword: table %s missing\n", missing);
        free(a.samples);
        return 1;
    }
    static spoken_t words[MAX_WORDS];
    int n_words = 0, status = 0;
    if (times && (n_words = read_times(times, words, MAX_WORDS)) < 0) status = 1;

    /* The fixed-point LSTM's sanity checks warn on quiet frames, which a
     * stream has plenty of: counted, not printed. */
    long warnings = 0;
    dl_set_sanity_handler(count_warning, &warnings);
    outcome_t o[KWS_NETWORKS][KWS_FORMATS];
    for (int n = first_net; n <= last_net && !status; n++)
        for (int k = first; k <= last && !status; k++) {
            if (labels) status = accuracy((kws_network_t)n, (kws_format_t)k, &a, labels);
            else status = run((kws_network_t)n, (kws_format_t)k, &a, times ? words : NULL, n_words, timing, &o[n][k]);
        }
    if (!labels && !status && (times || timing)) {
        const double seconds = (double)a.n / RATE;
        for (int n = first_net; n <= last_net; n++)
            for (int k = first; k <= last; k++) {
                const outcome_t *r = &o[n][k];
                if (times) {
                    printf("%s %s: %d detections, %d of %d commands found, %d missed, %d false alarms\n",
                           kws_network_names[n], kws_format_names[k], r->detections, r->commands - r->misses,
                           r->commands, r->misses, r->false_alarms);
                    if ((max_misses >= 0 && r->misses > max_misses) ||
                        (max_false_alarms >= 0 && r->false_alarms > max_false_alarms))
                        status = 1;
                }
                if (timing) {
                    const double features = r->total - r->network - r->detector;
                    printf("%s %s: %.3f ms per second of audio: features %.1f %%, network %.1f %%, detector %.2f %%\n",
                           kws_network_names[n], kws_format_names[k], 1e3 * r->total / seconds,
                           100.0 * features / r->total, 100.0 * r->network / r->total, 100.0 * r->detector / r->total);
                }
            }
        if (status) printf("more misses or false alarms than allowed\n");
    }
    if (warnings) fprintf(stderr, "wakeword: %ld sanity warnings of the fixed-point layers\n", warnings);
    dl_set_sanity_handler(NULL, NULL);
    kws_lstm_free();
    kws_cnn_free();
    free(a.samples);
    return status;
}
