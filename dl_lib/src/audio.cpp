/*
 * audio.cpp - audio features: framing, window, real FFT, power spectrum, mel
 * filter bank, logarithm and DCT, in float and in fixed point.
 *
 * python/kelvane_export/features.py computes the same numbers for training;
 * its fixed-point path must stay bit-identical with this file.
 */
#include "dl_lib_audio.h"

#include <math.h>

#include "audio_internal.h"
#include "dl_lib_internal.h"
#include "dl_lib_matrix.h"
#include "dl_lib_matrixq.h"

namespace {

constexpr int64_t kQ29 = INT64_C(1) << 29;
constexpr int64_t kHalfPiQ29 = 843314857;  // round(pi / 2 * 2^29)
constexpr int64_t kLn2Q16 = 45426;         // round(ln 2 * 2^16)
constexpr int32_t kLogFloorQ = -20480;     // -20 at exponent -10

// round(log2(1 + i / 64) * 2^16), i = 0..64
constexpr int32_t kLog2Table[65] = {0,     1466,  2909,  4331,  5732,  7112,  8473,  9814,  11136, 12440, 13727,
                                    14996, 16248, 17484, 18704, 19909, 21098, 22272, 23433, 24579, 25711, 26830,
                                    27936, 29029, 30109, 31178, 32234, 33279, 34312, 35334, 36346, 37346, 38336,
                                    39316, 40286, 41246, 42196, 43137, 44068, 44990, 45904, 46809, 47705, 48593,
                                    49472, 50344, 51207, 52063, 52911, 53751, 54584, 55410, 56229, 57040, 57845,
                                    58643, 59434, 60219, 60997, 61769, 62534, 63294, 64047, 64794, 65536};

/* Every value is non-negative until the final sign, so truncating division
 * and the right shifts agree with Python's floor operations. */
int32_t sin_q29(int64_t num, int64_t den)
{
    num %= den;
    const int64_t quadrant = 4 * num / den;
    int64_t r = 4 * num - quadrant * den;
    if (quadrant & 1) r = den - r;
    const int64_t x = kHalfPiQ29 * r / den;
    const int64_t x2 = (x * x) >> 29;
    static const int64_t kDivisors[] = {210, 156, 110, 72, 42, 20, 6};
    int64_t t = kQ29;
    for (int64_t d : kDivisors) t = kQ29 - ((x2 * t) >> 29) / d;
    const int64_t s = (x * t) >> 29;
    return static_cast<int32_t>(quadrant >= 2 ? -s : s);
}

int32_t cos_q29(int64_t num, int64_t den) { return sin_q29(4 * num + den, 4 * den); }

float q29_to_float(int32_t v) { return static_cast<float>(v) * dl::pow2f(-29); }

int ilog2(int n)
{
    int b = 0;
    while ((1 << (b + 1)) <= n) b++;
    return b;
}

int bit_reverse(int i, int bits)
{
    int r = 0;
    for (int b = 0; b < bits; b++) r |= ((i >> b) & 1) << (bits - 1 - b);
    return r;
}

/* Rounded right shift, halves up. The FFT's sums reach at most about 2^57,
 * so adding the half cannot overflow. */
int32_t round_shift(int64_t v, int shift) { return static_cast<int32_t>((v + (INT64_C(1) << (shift - 1))) >> shift); }

void *alloc_array(size_t count, size_t size) { return dl::mem_calloc(count ? count : 1, size); }

void check_config(const dl_audio_config_t *c)
{
    DL_ASSERT(c->fft_len>=4 && c->fft_len<=4096);
    DL_ASSERT((c->fft_len&(c->fft_len-1))==0);
    DL_ASSERT(c->win_len>=1 && c->win_len<=c->fft_len);
    DL_ASSERT(c->hop>=1);
}

dl_audio_features_t *features_alloc(const dl_audio_config_t *config, int n_mels, int width)
{
    check_config(config);
    auto *f = static_cast<dl_audio_features_t *>(dl::mem_calloc(1, sizeof(dl_audio_features_t)));
    if (!f) return nullptr;
    f->win_len = config->win_len;
    f->hop = config->hop;
    f->fft_len = config->fft_len;
    f->half = config->fft_len / 2;
    f->bins = f->half + 1;
    f->n_mels = n_mels;
    f->width = width;
    const int half = f->half, bins = f->bins, stage = half / 2 > 0 ? half / 2 : 1;
    f->win_q15 = static_cast<int32_t *>(alloc_array(f->win_len, sizeof(int32_t)));
    f->win_f = static_cast<fptp_t *>(alloc_array(f->win_len, sizeof(fptp_t)));
    f->stage_q = static_cast<int32_t *>(alloc_array(2 * stage, sizeof(int32_t)));
    f->stage_f = static_cast<fptp_t *>(alloc_array(2 * stage, sizeof(fptp_t)));
    f->split_q = static_cast<int32_t *>(alloc_array(2 * bins, sizeof(int32_t)));
    f->split_f = static_cast<fptp_t *>(alloc_array(2 * bins, sizeof(fptp_t)));
    f->rev = static_cast<int32_t *>(alloc_array(half, sizeof(int32_t)));
    f->work_q = static_cast<int32_t *>(alloc_array(2 * half + 2 * bins + f->win_len, sizeof(int32_t)));
    f->work_f = static_cast<fptp_t *>(alloc_array(2 * half + 3 * bins + f->win_len + n_mels, sizeof(fptp_t)));
    f->power_q = static_cast<uint64_t *>(alloc_array(bins, sizeof(uint64_t)));
    f->logmel_q = static_cast<int32_t *>(alloc_array(n_mels, sizeof(int32_t)));
    f->band_first = static_cast<int32_t *>(alloc_array(n_mels, sizeof(int32_t)));
    f->band_end = static_cast<int32_t *>(alloc_array(n_mels, sizeof(int32_t)));
    if (!f->band_first || !f->band_end || !f->win_q15 || !f->win_f || !f->stage_q || !f->stage_f || !f->split_q ||
        !f->split_f || !f->rev || !f->work_q || !f->work_f || !f->power_q || !f->logmel_q) {
        dl_audio_features_free(f);
        return nullptr;
    }
    // Periodic Hann, (1 - cos) / 2 with the halving truncated; Q15 rounded
    // (halves up) and held at 32767, since 1.0 itself has no Q15 item.
    for (int n = 0; n < f->win_len; n++) {
        const int32_t h = static_cast<int32_t>((kQ29 - cos_q29(n, f->win_len)) >> 1);
        const int32_t q = (h + (1 << 13)) >> 14;
        f->win_q15[n] = q > dl::kItemMax ? dl::kItemMax : q;
        f->win_f[n] = q29_to_float(h);
    }
    for (int k = 0; k < stage; k++) {
        f->stage_q[2 * k] = cos_q29(k, half);
        f->stage_q[2 * k + 1] = sin_q29(k, half);
    }
    for (int k = 0; k < bins; k++) {
        f->split_q[2 * k] = cos_q29(k, f->fft_len);
        f->split_q[2 * k + 1] = sin_q29(k, f->fft_len);
    }
    for (int i = 0; i < 2 * stage; i++) f->stage_f[i] = q29_to_float(f->stage_q[i]);
    for (int i = 0; i < 2 * bins; i++) f->split_f[i] = q29_to_float(f->split_q[i]);
    const int bits = ilog2(half);
    for (int i = 0; i < half; i++) f->rev[i] = bit_reverse(i, bits);
    // Two bits of power per doubling beyond 512 keep the filter sums of any
    // 16-bit frame below 2^64 (Parseval: sum of power <= fft_len * win_len * 2^30).
    f->power_shift = ilog2(f->fft_len) > 9 ? 2 * (ilog2(f->fft_len) - 9) : 0;
    return f;
}

/* Complex FFT of half points in place, z[i] = (zr[i], zi[i]) already in
 * bit-reversed order; radix 2, decimation in time, not scaled. */
void fft_float(const dl_audio_features_t *f, fptp_t *zr, fptp_t *zi)
{
    const int m = f->half;
    for (int size = 2; size <= m; size *= 2) {
        const int half = size / 2, step = m / size;
        for (int base = 0; base < m; base += size) {
            for (int k = 0; k < half; k++) {
                const fptp_t c = f->stage_f[2 * k * step], s = f->stage_f[2 * k * step + 1];
                const int a = base + k, b = a + half;
                const fptp_t tr = zr[b] * c + zi[b] * s;
                const fptp_t ti = zi[b] * c - zr[b] * s;
                zr[b] = zr[a] - tr;
                zi[b] = zi[a] - ti;
                zr[a] = zr[a] + tr;
                zi[a] = zi[a] + ti;
            }
        }
    }
}

void fft_q(const dl_audio_features_t *f, int32_t *zr, int32_t *zi)
{
    const int m = f->half;
    for (int size = 2; size <= m; size *= 2) {
        const int half = size / 2, step = m / size;
        for (int base = 0; base < m; base += size) {
            for (int k = 0; k < half; k++) {
                const int64_t c = f->stage_q[2 * k * step], s = f->stage_q[2 * k * step + 1];
                const int a = base + k, b = a + half;
                // (br + i bi)(c - i s): each part one exact sum, rounded once.
                const int32_t tr = round_shift(zr[b] * c + zi[b] * s, 29);
                const int32_t ti = round_shift(zi[b] * c - zr[b] * s, 29);
                zr[b] = zr[a] - tr;
                zi[b] = zi[a] - ti;
                zr[a] = zr[a] + tr;
                zi[a] = zi[a] + ti;
            }
        }
    }
}

/* log2 of a positive 64-bit energy in Q16: the leading one's position plus
 * the table's log2 of the mantissa, the entry chosen by the 6 bits after the
 * leading one and interpolated by the next 16 (rounded, halves up). Within
 * 6e-5 of the exact value. */
int64_t log2_q16(uint64_t e)
{
    int msb = 63;
    while (!((e >> msb) & 1)) msb--;
    const uint32_t f = static_cast<uint32_t>(msb >= 31 ? e >> (msb - 31) : e << (31 - msb)) & 0x7fffffffu;
    const int idx = static_cast<int>(f >> 25);
    const int64_t frac = (f >> 9) & 0xffff;
    const int64_t t0 = kLog2Table[idx], t1 = kLog2Table[idx + 1];
    return static_cast<int64_t>(msb) * 65536 + t0 + (((t1 - t0) * frac + (1 << 15)) >> 16);
}

}  // namespace

void dl_audio_features_free(dl_audio_features_t *f)
{
    if (!f) return;
    dl::mem_free(f->win_q15);
    dl::mem_free(f->win_f);
    dl::mem_free(f->stage_q);
    dl::mem_free(f->stage_f);
    dl::mem_free(f->split_q);
    dl::mem_free(f->split_f);
    dl::mem_free(f->rev);
    dl::mem_free(f->work_q);
    dl::mem_free(f->work_f);
    dl::mem_free(f->power_q);
    dl::mem_free(f->logmel_q);
    dl::mem_free(f->band_first);
    dl::mem_free(f->band_end);
    dl::mem_free(f);
}

dl_audio_features_t *dl_audio_features_alloc(const dl_audio_config_t *config, const dl_matrix2d_t *mel,
                                             const dl_matrix2d_t *dct)
{
    DL_ASSERT(mel->h==config->fft_len/2+1);
    if (dct) DL_ASSERT(dct->h==mel->w);
    dl_audio_features_t *f = features_alloc(config, mel->w, dct ? dct->w : mel->w);
    if (!f) return nullptr;
    f->mel = mel;
    f->dct = dct;
    for (int j = 0; j < f->n_mels; j++) {
        int first = 0, end = f->bins;
        while (first < end && mel->item[j + mel->stride * first] == 0.0f) first++;
        while (end > first && mel->item[j + mel->stride * (end - 1)] == 0.0f) end--;
        f->band_first[j] = first;
        f->band_end[j] = end;
    }
    return f;
}

dl_audio_features_t *dl_audio_features_alloc_q(const dl_audio_config_t *config, const dl_matrix2dq_t *mel,
                                               const dl_matrix2dq_t *dct)
{
    DL_ASSERT(mel->h==config->fft_len/2+1);
    for (int x = 0; x < mel->w; x++)
        for (int y = 0; y < mel->h; y++) DL_ASSERT(mel->itemq[y+mel->stride*x]>=0);
    if (dct) {
        DL_ASSERT(dct->h==mel->w);
        DL_ASSERT(3-dct->exponent>=1 && 3-dct->exponent<=62);
    }
    dl_audio_features_t *f = features_alloc(config, mel->w, dct ? dct->w : mel->w);
    if (!f) return nullptr;
    f->melq = mel;
    f->dctq = dct;
    for (int j = 0; j < f->n_mels; j++) {
        const qtp_t *col = mel->itemq + mel->stride * j;
        int first = 0, end = f->bins;
        while (first < end && col[first] == 0) first++;
        while (end > first && col[end - 1] == 0) end--;
        f->band_first[j] = first;
        f->band_end[j] = end;
    }
    // The filter sums count power at 2^-30 (samples and bins scaled by
    // 2^15), shifted right by power_shift, times items at 2^exponent.
    f->energy_log2_offset = 30 - f->power_shift - mel->exponent;
    if (dct) f->dct_shift = 3 - dct->exponent;
    return f;
}

int dl_audio_features_width(const dl_audio_features_t *f) { return f->width; }

int dl_audio_frame_count(int n, const dl_audio_config_t *config)
{
    return n < config->win_len ? 0 : (n - config->win_len) / config->hop + 1;
}

void dl_audio_rfft(const fptp_t *in, int n, dl_audio_features_t *f, fptp_t *re, fptp_t *im)
{
    DL_ASSERT(n>=0 && n<=f->fft_len);
    const int m = f->half;
    fptp_t *zr = f->work_f, *zi = f->work_f + m;
    for (int i = 0; i < m; i++) {
        const int j = 2 * f->rev[i];
        zr[i] = j < n ? in[j] : 0.0f;
        zi[i] = j + 1 < n ? in[j + 1] : 0.0f;
    }
    fft_float(f, zr, zi);
    const fptp_t half = 0.5f;
    for (int k = 0; k <= m; k++) {
        const int a = k % m, b = (m - k) % m;
        const fptp_t c = f->split_f[2 * k], s = f->split_f[2 * k + 1];
        const fptp_t ar = zr[a], ai = zi[a], br = zr[b], bi = zi[b];
        re[k] = (((ar + br) - s * (ar - br)) + c * (ai + bi)) * half;
        im[k] = (((ai - bi) - s * (ai + bi)) - c * (ar - br)) * half;
    }
}

void dl_audio_rfft_q(const int32_t *in, int n, dl_audio_features_t *f, int32_t *re, int32_t *im)
{
    DL_ASSERT(n>=0 && n<=f->fft_len);
    const int m = f->half;
    int32_t *zr = f->work_q, *zi = f->work_q + m;
    for (int i = 0; i < m; i++) {
        const int j = 2 * f->rev[i];
        zr[i] = j < n ? in[j] : 0;
        zi[i] = j + 1 < n ? in[j + 1] : 0;
    }
    fft_q(f, zr, zi);
    for (int k = 0; k <= m; k++) {
        const int a = k % m, b = (m - k) % m;
        const int64_t c = f->split_q[2 * k], s = f->split_q[2 * k + 1];
        const int64_t ar = zr[a], ai = zi[a], br = zr[b], bi = zi[b];
        // Half of A - i W B, with W = c - i s, as one exact sum rounded once.
        re[k] = round_shift((ar + br) * kQ29 - s * (ar - br) + c * (ai + bi), 30);
        im[k] = round_shift((ai - bi) * kQ29 - s * (ai + bi) - c * (ar - br), 30);
    }
}

void dl_audio_frame(const int16_t *frame, dl_audio_features_t *f, fptp_t *out)
{
    DL_ASSERT(f->mel);
    const int m = f->half, bins = f->bins;
    fptp_t *x = f->work_f + 2 * m + 3 * bins;
    fptp_t *re = f->work_f + 2 * m, *im = re + bins, *power = im + bins;
    fptp_t *logmel = x + f->win_len;
    const fptp_t scale = dl::pow2f(-15);
    for (int n = 0; n < f->win_len; n++) x[n] = (static_cast<fptp_t>(frame[n]) * scale) * f->win_f[n];
    dl_audio_rfft(x, f->win_len, f, re, im);
    for (int k = 0; k < bins; k++) power[k] = re[k] * re[k] + im[k] * im[k];
    const dl_matrix2d_t *mel = f->mel;
    const fptp_t floor_value = DL_AUDIO_LOG_FLOOR;
    // A filter's sum runs over its bins in ascending order. The zero weights
    // at either end are skipped: each would add exactly +0 to a sum of
    // non-negative finite products, so the result is that of all the bins.
    for (int j = 0; j < f->n_mels; j++) {
        fptp_t e = 0.0f;
        for (int k = f->band_first[j]; k < f->band_end[j]; k++) e = e + power[k] * mel->item[j + mel->stride * k];
        const fptp_t y = logf(e);
        // logf(0) is -inf; a NaN (from a NaN in the filter bank) floors too.
        logmel[j] = y > floor_value ? y : floor_value;
    }
    if (!f->dct) {
        for (int j = 0; j < f->n_mels; j++) out[j] = logmel[j];
        return;
    }
    const dl_matrix2d_t *dct = f->dct;
    for (int c = 0; c < f->width; c++) {
        fptp_t acc = 0.0f;
        for (int j = 0; j < f->n_mels; j++) acc = acc + logmel[j] * dct->item[c + dct->stride * j];
        out[c] = acc;
    }
}

void dl_audio_frame_q(const int16_t *frame, dl_audio_features_t *f, qtp_t *out, int out_stride)
{
    DL_ASSERT(f->melq);
    const int m = f->half, bins = f->bins;
    int32_t *re = f->work_q + 2 * m, *im = re + bins, *x = im + bins;
    // |s * w| <= 32768 * 32767, so the rounded quotient stays within 16 bits.
    for (int n = 0; n < f->win_len; n++) x[n] = (frame[n] * f->win_q15[n] + (1 << 14)) >> 15;
    dl_audio_rfft_q(x, f->win_len, f, re, im);
    for (int k = 0; k < bins; k++) {
        const int64_t p = static_cast<int64_t>(re[k]) * re[k] + static_cast<int64_t>(im[k]) * im[k];
        f->power_q[k] = static_cast<uint64_t>(p) >> f->power_shift;
    }
    const dl_matrix2dq_t *mel = f->melq;
    for (int j = 0; j < f->n_mels; j++) {
        const qtp_t *col = mel->itemq + mel->stride * j;
        uint64_t e = 0;
        for (int k = f->band_first[j]; k < f->band_end[j]; k++) e += f->power_q[k] * static_cast<uint64_t>(col[k]);
        int32_t y = kLogFloorQ;
        if (e) {
            // log2 of the energy in float units (Q16), times ln 2 (Q16),
            // rounded to exponent -10 (halves up).
            const int64_t l2 = log2_q16(e) - static_cast<int64_t>(f->energy_log2_offset) * 65536;
            const int64_t v = (l2 * kLn2Q16 + (1 << 21)) >> 22;
            y = v < kLogFloorQ ? kLogFloorQ : v > dl::kItemMax ? dl::kItemMax : static_cast<int32_t>(v);
        }
        f->logmel_q[j] = y;
    }
    if (!f->dctq) {
        for (int j = 0; j < f->n_mels; j++) out[j * out_stride] = static_cast<qtp_t>(f->logmel_q[j]);
        return;
    }
    const dl_matrix2dq_t *dct = f->dctq;
    const int shift = f->dct_shift;
    for (int c = 0; c < f->width; c++) {
        const qtp_t *col = dct->itemq + dct->stride * c;
        int64_t acc = 0;
        for (int j = 0; j < f->n_mels; j++) acc += static_cast<int64_t>(f->logmel_q[j]) * col[j];
        out[c * out_stride] = static_cast<qtp_t>(dl::saturate((acc + (INT64_C(1) << (shift - 1))) >> shift));
    }
}

dl_matrix2d_t *dl_audio_features(const int16_t *samples, int n, dl_audio_features_t *f, dl_matrix2d_t *out)
{
    DL_ASSERT(n>=0);
    const dl_audio_config_t config = {f->win_len, f->hop, f->fft_len};
    const int frames = dl_audio_frame_count(n, &config);
    if (!out && !(out = dl_matrix_alloc(f->width, frames))) return nullptr;
    DL_ASSERT(out->w==f->width);
    DL_ASSERT(out->h==frames);
    for (int t = 0; t < frames; t++)
        dl_audio_frame(samples + static_cast<int64_t>(t) * f->hop, f,
                       out->item + static_cast<int64_t>(t) * out->stride);
    return out;
}

dl_matrix2dq_t *dl_audio_features_q(const int16_t *samples, int n, dl_audio_features_t *f, dl_matrix2dq_t *out)
{
    DL_ASSERT(n>=0);
    const dl_audio_config_t config = {f->win_len, f->hop, f->fft_len};
    const int frames = dl_audio_frame_count(n, &config);
    if (!out && !(out = dl_matrixq_alloc(f->width, frames))) return nullptr;
    DL_ASSERT(out->w==f->width);
    DL_ASSERT(out->h==frames);
    for (int t = 0; t < frames; t++)
        dl_audio_frame_q(samples + static_cast<int64_t>(t) * f->hop, f, out->itemq + t, out->stride);
    out->exponent = f->dctq ? DL_AUDIO_CEPS_EXPONENT : DL_AUDIO_LOG_EXPONENT;
    return out;
}
