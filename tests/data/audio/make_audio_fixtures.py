#!/usr/bin/python3
"""Writes the audio feature fixtures of tests/audio_test.cpp and
tests/stream_test.cpp.

    /usr/bin/python3 tests/data/audio/make_audio_fixtures.py

Needs espeak-ng and sox. speech.npy: the words "hello kelvane, turn on the
light" from espeak-ng, resampled by sox to 16 kHz 16-bit mono (no dither, so
that a second run writes the same files), peak 20000,
plus white noise (standard deviation 300, seed 15), then 0.1 s of a
full-scale 1 kHz square wave (-32768 / 32767) to reach the largest values;
1.1 s, stored as float32 integers, shape 1 x n. The expected outputs are
those of python/kelvane_export/features.py: logmel / ceps (float path),
logmel_q / ceps_q (fixed-point items, exponents -10 and -7), and fft_q, the
fixed-point FFT of frame 10, 2 x 257, real parts in row 0. detect_scores: 400
runs of 3 words' scores (sine swings with noise, seed 16) and detect_expected
the twin's detections (run, word, average) with the windows and thresholds of
DETECT_WORDS.
"""
import os
import subprocess
import sys
import tempfile
import wave

import numpy as np

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "..", "..", "python"))

from kelvane_export import features as kf  # noqa: E402

N_SAMPLES = 17600
FFT_FRAME = 10
# (window, first threshold, second threshold) of each word
DETECT_WORDS = ((1, 0.7, 0.4), (3, 0.6, 0.5), (9, 0.55, 0.55))


def speech():
    with tempfile.TemporaryDirectory() as tmp:
        raw = os.path.join(tmp, "raw.wav")
        wav = os.path.join(tmp, "16k.wav")
        subprocess.run(["espeak-ng", "-w", raw, "hello kelvane, turn on the light"], check=True)
        subprocess.run(["sox", raw, "-D", "-r", "16000", "-c", "1", "-b", "16", wav], check=True)
        with wave.open(wav) as w:
            s = np.frombuffer(w.readframes(w.getnframes()), dtype="<i2").astype(np.float64)
    s = s[: N_SAMPLES - 1600]
    s = np.concatenate([s, np.zeros(N_SAMPLES - 1600 - len(s))])
    s = s * (20000.0 / np.abs(s).max())
    s += np.random.default_rng(15).normal(0.0, 300.0, len(s))
    square = np.where((np.arange(1600) // 8) % 2 == 0, 32767.0, -32768.0)
    return np.clip(np.round(np.concatenate([s, square])), -32768, 32767).astype(np.int64)


def outputs(samples, mel, dct):
    """Every expected output, from the samples and the two tables."""
    mq, me = kf.quantise(mel)
    dq, de = kf.quantise(dct)
    fr = kf.frames(samples)[FFT_FRAME]
    xq = (fr * kf.window_q15(kf.WIN_LEN) + (1 << 14)) >> 15
    re, im = kf.rfft_q(xq)
    return {
        "logmel": kf.log_mel(samples, mel),
        "ceps": kf.log_mel(samples, mel, dct),
        "logmel_q": kf.log_mel_q(samples, mq, me)[0],
        "ceps_q": kf.log_mel_q(samples, mq, me, dq, de)[0],
        "fft_q": np.stack([re[0], im[0]]),
    }


def detection():
    """Scores that swing around the thresholds, and their detections."""
    rng = np.random.default_rng(16)
    runs = np.arange(400)[:, None]
    periods = np.array([17.0, 29.0, 41.0])
    swing = 0.5 + 0.3 * np.sin(2 * np.pi * runs / periods) + rng.normal(0.0, 0.12, (400, len(DETECT_WORDS)))
    scores = np.clip(swing, 0.0, 1.0).astype(np.float32)
    windows = [w for w, _, _ in DETECT_WORDS]
    thresholds = [t for _, first, second in DETECT_WORDS for t in (first, second)]
    found = kf.detect(scores, windows, thresholds)
    return {"detect_scores": scores, "detect_expected": np.array(found, dtype=np.float32).reshape(-1, 3)}


def main():
    samples = speech()
    mel = kf.mel_filterbank()
    dct = kf.dct_matrix(kf.N_MELS, 13)
    np.save(os.path.join(HERE, "speech.npy"), samples.astype(np.float32)[None, :])
    np.save(os.path.join(HERE, "mel.npy"), mel)
    np.save(os.path.join(HERE, "dct.npy"), dct)
    for name, value in {**outputs(samples, mel, dct), **detection()}.items():
        np.save(os.path.join(HERE, name + ".npy"), np.asarray(value).astype(np.float32))


if __name__ == "__main__":
    main()
