#!/usr/bin/python3
"""Writes the WAV files that wakeword must refuse, each wrong in one way:
8 kHz, stereo, 32-bit float and 8-bit samples (100 frames of a ramp).

    /usr/bin/python3 examples/wakeword/data/refused/make_refused.py
"""
import os
import struct
import wave

HERE = os.path.dirname(os.path.abspath(__file__))


def pcm(name, rate, channels, width):
    with wave.open(os.path.join(HERE, name), "wb") as w:
        w.setnchannels(channels)
        w.setsampwidth(width)
        w.setframerate(rate)
        w.writeframes(bytes(range(100)) * channels * width)


def float32(name, rate):
    """The wave module writes PCM only: the header of format 3 by hand."""
    data = struct.pack("<100f", *(i / 100.0 for i in range(100)))
    fmt = struct.pack("<HHIIHH", 3, 1, rate, rate * 4, 4, 32)
    body = b"WAVE" + b"fmt " + struct.pack("<I", len(fmt)) + fmt + b"data" + struct.pack("<I", len(data)) + data
    with open(os.path.join(HERE, name), "wb") as f:
        f.write(b"RIFF" + struct.pack("<I", len(body)) + body)


pcm("rate8000.wav", 8000, 1, 2)
pcm("stereo.wav", 16000, 2, 2)
pcm("bits8.wav", 16000, 1, 1)
float32("float32.wav", 16000)
