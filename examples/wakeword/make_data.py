#!/usr/bin/env python3
"""Synthesises the keyword-spotting data set from Debian's speech synthesisers.

Every English voice of espeak-ng (each base accent with each of its voice
variants) and of flite speaks the ten command words, a list of other words
(class "unknown") and nothing (class "silence"), at varied rate and pitch;
each clip is one second of 16 kHz, 16-bit mono audio with the word at a
random place, mixed with white, pink or babble noise at a random
signal-to-noise ratio and scaled by a random gain.

Whole voices are held out: a voice belongs to exactly one of train,
validation and test, so the held-out scores measure speakers the network
never heard. Everything random comes from fixed seeds (sox's dither too); the
same packages give the same files. The committed data was written before
sox's dither had a seed: a rerun differs from it by a unit or two in some
samples, and a trimmed word can come out a sample longer or shorter.

Needs espeak-ng, flite and sox (Debian); writes, under the output directory:
  train.npz, val.npz, test.npz   audio (int16, clips x 16000), label (int8),
                                 voice (index into voices)
  voices.txt                     one voice per line with its split
  recording.wav, recording.txt   about a minute of held-out voices speaking
                                 words with pauses, and each word's start and
                                 end in samples

    /usr/bin/python3 examples/wakeword/make_data.py [out dir]
"""

import hashlib
import io
import os
import subprocess
import sys
import wave
from concurrent.futures import ThreadPoolExecutor

import numpy as np

RATE = 16000
CLIP = RATE  # one second
COMMANDS = ["yes", "no", "up", "down", "left", "right", "on", "off", "stop", "go"]
UNKNOWN_WORDS = [
    "bed", "bird", "cat", "dog", "happy", "house", "marvin", "sheila", "tree", "wow", "zero", "one",
    "two", "three", "four", "five", "six", "seven", "eight", "nine", "learn", "follow", "forward",
    "backward", "visual", "yellow", "dawn", "often", "stock", "goat", "left-hand", "nose",
]
LABELS = COMMANDS + ["unknown", "silence"]
UNKNOWN = LABELS.index("unknown")
SILENCE = LABELS.index("silence")


def espeak_voices():
    """Every English base accent (no MBROLA voices: their data is another package) with every variant."""
    out = subprocess.run(["espeak-ng", "--voices=en"], capture_output=True, text=True, check=True).stdout
    bases = sorted({f[1] for f in map(str.split, out.splitlines()[1:])
                    if f[1].startswith("en") and not f[4].startswith("mb/")})
    out = subprocess.run(["espeak-ng", "--voices=variant"], capture_output=True, text=True, check=True).stdout
    variants = sorted(line.split()[4].split("/")[1] for line in out.splitlines()[1:])
    return [("espeak", f"{b}+{v}") for b in bases for v in variants]


def flite_voices():
    out = subprocess.run(["flite", "-lv"], capture_output=True, text=True, check=True).stdout
    # awb_time speaks only times of day.
    return [("flite", v) for v in out.split(":")[1].split() if v != "awb_time"]


def read_wav(data):
    with wave.open(io.BytesIO(data)) as w:
        assert w.getnchannels() == 1 and w.getsampwidth() == 2, "synthesiser output is 16-bit mono"
        return w.getframerate(), np.frombuffer(w.readframes(w.getnframes()), dtype="<i2")


def resample(data, rate):
    """To 16 kHz through sox, as 16-bit samples; -R seeds its dither with a fixed
    number, so that every run gives the same samples."""
    if rate == RATE:
        return read_wav(data)[1]
    out = subprocess.run(["sox", "-R", "-t", "wav", "-", "-t", "wav", "-r", str(RATE), "-b", "16", "-"],
                         input=data, capture_output=True, check=True).stdout
    return read_wav(out)[1]


def speak(engine, voice, text, speed, pitch):
    """One utterance as int16 samples at 16 kHz; speed and pitch are factors around 1."""
    if engine == "espeak":
        cmd = ["espeak-ng", "-v", voice, "-s", str(int(175 * speed)), "-p", str(int(50 * pitch)), "--stdout", text]
        data = subprocess.run(cmd, capture_output=True, check=True).stdout
    else:
        cmd = ["flite", "-voice", voice, "--setf", f"duration_stretch={1 / speed:.3f}",
               "--setf", f"int_f0_target_mean={110 * pitch:.1f}", "-t", text, "-o", "/dev/stdout"]
        data = subprocess.run(cmd, capture_output=True, check=True).stdout
    return resample(data, read_wav(data)[0])


def trim(x, threshold=200):
    loud = np.flatnonzero(np.abs(x.astype(np.int32)) > threshold)
    return x[loud[0]:loud[-1] + 1] if loud.size else x[:0]


def pink(rng, n):
    """Pink noise: white noise shaped by 1/sqrt(f) in the frequency domain, unit RMS."""
    spectrum = np.fft.rfft(rng.standard_normal(n))
    f = np.arange(spectrum.size, dtype=np.float64)
    f[0] = 1.0
    x = np.fft.irfft(spectrum / np.sqrt(f), n)
    return x / np.sqrt(np.mean(x * x))


def split_of(voice):
    """Hash of the voice name: 70 % train, 15 % validation, 15 % test; stable across runs."""
    h = int(hashlib.sha256(voice.encode()).hexdigest()[:8], 16) % 100
    return "train" if h < 70 else "val" if h < 85 else "test"


def mix(rng, word, babble):
    """One clip: the word at a random place, noise at a random SNR, a random gain."""
    clip = np.zeros(CLIP, dtype=np.float64)
    if word.size:
        word = word[:CLIP]
        at = rng.integers(0, CLIP - word.size + 1)
        clip[at:at + word.size] = word
    kind = rng.integers(0, 4)  # none, white, pink, babble
    if kind:
        noise = (rng.standard_normal(CLIP) if kind == 1 else pink(rng, CLIP) if kind == 2
                 else babble[rng.integers(0, babble.size - CLIP):][:CLIP].astype(np.float64))
        noise /= max(np.sqrt(np.mean(noise * noise)), 1e-9)
        level = np.sqrt(np.mean(word.astype(np.float64) ** 2)) if word.size else 300.0
        snr_db = rng.uniform(5.0, 30.0)
        clip += noise * level / 10 ** (snr_db / 20)
    clip *= 10 ** (rng.uniform(-20.0, 0.0) / 20)
    return np.clip(np.rint(clip), -32768, 32767).astype(np.int16)


def make_babble(voices, rng):
    """Ten seconds of several voices speaking over each other, from the train voices only."""
    out = np.zeros(10 * RATE, dtype=np.float64)
    for i in range(6):
        engine, voice = voices[rng.integers(0, len(voices))]
        text = " ".join(rng.choice(UNKNOWN_WORDS, 20))
        s = speak(engine, voice, text, 1.0, 1.0).astype(np.float64)[:out.size]
        out[:s.size] += s
    return np.clip(out, -32768, 32767).astype(np.int16)


def clips_of_voice(args):
    index, (engine, voice), babble = args
    rng = np.random.default_rng([1234, index])
    audio, labels = [], []
    for label, word in [(i, w) for i, w in enumerate(COMMANDS)] + [(UNKNOWN, w) for w in
                                                                   rng.choice(UNKNOWN_WORDS, 4, replace=False)]:
        speed, pitch = rng.uniform(0.8, 1.25), rng.uniform(0.7, 1.4)
        audio.append(mix(rng, trim(speak(engine, voice, word, speed, pitch)), babble))
        labels.append(label)
    audio.append(mix(rng, np.zeros(0, np.int16), babble))
    labels.append(SILENCE)
    return index, audio, labels


def write_wav(path, samples):
    with wave.open(path, "wb") as w:
        w.setnchannels(1)
        w.setsampwidth(2)
        w.setframerate(RATE)
        w.writeframes(samples.astype("<i2").tobytes())


def make_recording(voices, out_dir):
    """About a minute of held-out voices saying words with pauses; the times of every word."""
    rng = np.random.default_rng(99)
    track = np.zeros(0, dtype=np.int16)
    lines = ["# word start_sample end_sample voice"]
    while track.size < 60 * RATE:
        engine, voice = voices[rng.integers(0, len(voices))]
        word = COMMANDS[rng.integers(0, len(COMMANDS))] if rng.random() < 0.7 else str(rng.choice(UNKNOWN_WORDS))
        s = trim(speak(engine, voice, word, rng.uniform(0.85, 1.15), rng.uniform(0.8, 1.2)))
        gap = np.zeros(int(rng.uniform(0.8, 1.6) * RATE), dtype=np.int16)
        start = track.size + gap.size
        track = np.concatenate([track, gap, s])
        lines.append(f"{word} {start} {start + s.size} {engine}:{voice}")
    noise = np.random.default_rng(100).standard_normal(track.size) * 30.0
    track = np.clip(track + noise, -32768, 32767).astype(np.int16)
    write_wav(os.path.join(out_dir, "recording.wav"), track)
    with open(os.path.join(out_dir, "recording.txt"), "w") as f:
        f.write("\n".join(lines) + "\n")


def main():
    out_dir = sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), "data")
    os.makedirs(out_dir, exist_ok=True)
    voices = espeak_voices() + flite_voices()
    splits = [split_of(f"{e}:{v}") for e, v in voices]
    train_voices = [v for v, s in zip(voices, splits) if s == "train"]
    babble = make_babble(train_voices, np.random.default_rng(7))
    with ThreadPoolExecutor(max_workers=os.cpu_count() or 2) as pool:
        results = sorted(pool.map(clips_of_voice, [(i, v, babble) for i, v in enumerate(voices)]))
    for split in ("train", "val", "test"):
        audio, label, voice = [], [], []
        for index, a, l in results:
            if splits[index] == split:
                audio += a
                label += l
                voice += [index] * len(l)
        np.savez_compressed(os.path.join(out_dir, f"{split}.npz"), audio=np.stack(audio),
                            label=np.array(label, np.int8), voice=np.array(voice, np.int32))
        print(f"{split}: {len(label)} clips from {len(set(voice))} voices")
    with open(os.path.join(out_dir, "voices.txt"), "w") as f:
        f.writelines(f"{e}:{v} {s}\n" for (e, v), s in zip(voices, splits))
    make_recording([v for v, s in zip(voices, splits) if s == "test"], out_dir)


if __name__ == "__main__":
    main()
