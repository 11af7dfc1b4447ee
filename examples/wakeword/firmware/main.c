/*
 * The keyword spotter's firmware: the fixed-point pipelines (features, CNN
 * or LSTM, detector) on the first seconds of data/recording.wav, held in
 * flash, fed in blocks of 10 ms as a microphone driver would, one line per
 * detection.
 *
 * The same source builds for the device (Cortex-M4F, output through
 * semihosting) and for the host; CTest requires the two outputs to be
 * identical, byte for byte. Standard error carries what the run cost: the
 * arena's use and, on the device, the instructions counted by the SysTick
 * timer, which QEMU's -icount shift=0 makes one tick per 40 instructions.
 */
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "kws_pipeline.h"

extern const int kws_clip_samples;
extern const uint16_t kws_clip[];

#define BLOCK 160 /* 10 ms */

/* Every record and temporary of the library comes from this arena. Its use
 * goes to stderr per network: the records made before the run (both
 * networks' tables and states), and the peak during it. */
#define ARENA_BYTES (96 * 1024)
static unsigned char arena_buffer[ARENA_BYTES] __attribute__((aligned(8)));

#ifdef KWS_DEVICE
#define SYST_CSR (*(volatile uint32_t *)0xE000E010u)
#define SYST_RVR (*(volatile uint32_t *)0xE000E014u)
#define SYST_CVR (*(volatile uint32_t *)0xE000E018u)
static void ticks_start(void)
{
    SYST_RVR = 0xFFFFFFu;
    SYST_CVR = 0;
    SYST_CSR = 5u; /* enabled, processor clock, no interrupt */
}

/* Ticks since ticks_start, as the pipeline's clock: the counter counts down
 * through 24 bits, and it is read far more often than it wraps (once per
 * network run, every 10 ms block). */
static double ticks(void)
{
    static uint32_t last;
    static uint64_t total;
    const uint32_t now = SYST_CVR;
    total += (last - now) & 0xFFFFFFu;
    last = now;
    return (double)total;
}
#else
static void ticks_start(void) {}
static double ticks(void) { return 0.0; }
#endif

/* The clip through one network's fixed-point pipeline, fed in blocks of
 * 10 ms; the detections on stdout, the cost on stderr. */
static int run(kws_network_t network, dl_arena_t *arena)
{
    kws_pipeline_t *p = kws_pipeline_new(network, KWS_FIXED);
    if (!p) return 1;
    const size_t records = arena->top;
    dl_arena_reset_peak(arena);
    printf("%s: fixed-point keyword spotter on %d samples\n", kws_network_names[network], kws_clip_samples);
    kws_pipeline_measure(p, ticks, NULL, 0);
    double busy = 0.0;
    int16_t block[BLOCK];
    for (int at = 0; at < kws_clip_samples; at += BLOCK) {
        const int n = kws_clip_samples - at < BLOCK ? kws_clip_samples - at : BLOCK;
        /* Same representation: the file's words read as signed samples. */
        memcpy(block, &kws_clip[at], (size_t)n * sizeof block[0]);
        dl_detection_t found[4];
        const double start = ticks();
        const int k = kws_pipeline_push(p, block, n, found, 4);
        busy += ticks() - start;
        for (int i = 0; i < k && i < 4; i++) kws_print_detection(stdout, p, &found[i]);
    }
    printf("%s: %ld runs\n", kws_network_names[network], (long)kws_pipeline_runs(p));
    fflush(stdout);
    /* newlib-nano's printf has neither floating point nor 64-bit
     * conversions: thousands of ticks. */
    fprintf(stderr, "cost %s arena records %lu peak %lu refused %lu ticks %lu thousand network %lu thousand\n",
            kws_network_names[network], (unsigned long)records, (unsigned long)dl_arena_peak(arena),
            (unsigned long)arena->refused, (unsigned long)(busy / 1000.0),
            (unsigned long)(kws_pipeline_network_time(p) / 1000.0));
    kws_pipeline_free(p);
    return arena->refused ? 1 : 0;
}

static void count_warning(const char *text, void *count)
{
    (void)text;
    ++*(long *)count;
}

int main(void)
{
    dl_arena_t arena;
    dl_arena_init(&arena, arena_buffer, sizeof arena_buffer);
    dl_use_arena(&arena);
    /* The fixed-point LSTM's sanity checks warn on quiet frames: counted. */
    long warnings = 0;
    dl_set_sanity_handler(count_warning, &warnings);

    const char *missing = kws_cnn_init();
    if (!missing) missing = kws_lstm_init();
    if (missing) {
        printf("table %s missing\n", missing);
        return 1;
    }
    ticks_start();
    int status = run(KWS_CNN, &arena);
    if (!status) status = run(KWS_LSTM, &arena);
    printf("%ld sanity warnings\n", warnings);
    kws_lstm_free();
    kws_cnn_free();
    return status;
}
