#!/usr/bin/python3
"""Trains the keyword spotter's CNN and LSTM and exports them with their
detector settings.

    nice /usr/bin/python3 examples/wakeword/make_data.py build/wakeword_data
    nice /usr/bin/python3 examples/wakeword/train.py [data dir] [cnn] [lstm]
                                          (both by default; about 15 minutes)

Inputs: train.npz, val.npz and test.npz of make_data.py (default
build/wakeword_data), whose voices never meet across the splits.

Features: the fixed-point log-mel features of kelvane_export.features, bit
for bit what dl_audio_features_q gives the device (20 mel bands, 50 ms
windows every 40 ms, FFT of 1024: 24 frames a second), as floats (items *
2^-10).

CNN (PyTorch, fixed seeds) over the window of the newest 24 frames, a
tensor of 24 rows (time) x 20 columns (mel bands) x 1 channel; the batch
norms are folded into the convolutions before them on export:
  kws_conv1       3 x 3 convolution, 1 -> 8 channels, stride 2 -> batch norm -> ReLU6   12 x 10
  kws_conv2       3 x 3 depthwise, 8 channels -> batch norm -> ReLU6
  kws_conv3       1 x 1 convolution, 8 -> 32 channels -> batch norm -> ReLU6
  kws_conv4       3 x 3 depthwise, 32 channels, stride 2 -> batch norm -> ReLU6        6 x 5
  kws_conv5       1 x 1 convolution, 32 -> 32 channels -> batch norm -> ReLU6
  kws_conv6       3 x 3 depthwise, 32 channels -> batch norm -> ReLU6
  kws_conv7       1 x 1 convolution, 32 -> 48 channels -> batch norm -> ReLU6
  kws_globalpool1 average of every position: 48 values
  kws_fc1         fully connected 48 -> 12 (ten commands, unknown, silence)
The scores the detector reads are the softmax's first ten outputs.
Training shifts each window by up to 4 frames either way (the vacated
frames silent), since the stream shows the network every position of a
word, not only the clip's.

LSTM, one frame a step: the frames normalised by the training set's mean
and deviation per band (folded into the input weights on export), an LSTM
of LSTM_UNITS units and a fully connected layer to the twelve classes at
every step. Trained on streams of eight clips one after another, to say a
clip's word for TARGET_FRAMES frames after the word's loud part (frames
within 3 nats of the clip's loudest) ends and silence at every other frame,
so that run on a stream for ever it fires after each word. Its shifts come
from kelvane_export.calibrate on two-second validation streams.

Detector: for each command the averaging window (runs) and the two
thresholds that score best on the validation voices, spoken one clip after
another as a stream: a detection inside a clip of its word (or up to half a
second after it) is a hit, any other a false alarm, and a false alarm
costs three hits.

Written here (committed, so that building and testing need no Python):
  cnn/            the CNN (TensorModelWriter, kelvane -3d) and its _MODEL_INFO_
  lstm/           the LSTM (ModelWriter) and its _MODEL_INFO_
  features/       mel.npy, the filter bank (kelvane's matrix modes)
  cnn_net.h       shapes, pads, strides and clips of every layer, the
                  fixed-point shifts and the feature settings
  lstm_net.h      the LSTM's sizes and calibrated shifts
  results_cnn.txt, results_lstm.txt
                  PyTorch's accuracy on the held-out voices, the detector's
                  settings and their score on the validation stream
and, beside the data (not committed): test_clips.wav and test_labels.txt,
the test split as one recording of one-second clips for `wakeword --accuracy`.

Provenance: every committed file above is written by numpy.save or as plain
text by this script; rerunning it on the same data rewrites them.
"""
import os
import sys
import time
import wave

import numpy as np
import torch
import torch.nn as nn

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.join(HERE, "..", "..")
sys.path.insert(0, os.path.join(ROOT, "python"))
sys.path.insert(0, HERE)
from kelvane_export import TensorModelWriter  # noqa: E402
from kelvane_export import features as kf  # noqa: E402
from kelvane_export import fixedpoint as fx  # noqa: E402
from make_data import COMMANDS, LABELS, RATE  # noqa: E402

N_MELS = 20
# 50 ms windows every 40 ms: the network runs 25 times a second, half as
# often as on the library's default 20 ms frames, which a Cortex-M4 needs.
WIN_LEN, HOP, FFT_LEN = 800, 640, 1024
FRAMES = kf.frame_count(RATE, WIN_LEN, HOP)  # 24: one second
CLIP = 6.0                     # ReLU6: activations stay below 6, which suits 16-bit items
LATE = RATE // 2               # a detection may come this many samples after its clip
LSTM_UNITS = 48
TARGET_FRAMES = 8              # the LSTM names a word for 0.32 s after it ends
SILENCE_WEIGHT = 0.3           # most frames are silence: their loss counts less


def mel_table():
    return kf.mel_filterbank(fft_len=FFT_LEN, n_mels=N_MELS)


def log_mel(audio, mel_q):
    """Fixed-point features of one signal as the floats they stand for."""
    q, e = kf.log_mel_q(audio, *mel_q, win_len=WIN_LEN, hop=HOP, fft_len=FFT_LEN)
    return q.astype(np.float32) * np.float32(2.0**e)


def load(data, split, mel_q):
    """Audio, labels, voices and the features of every clip (cached beside the data)."""
    d = np.load(os.path.join(data, f"{split}.npz"))
    cache = os.path.join(data, f"{split}_features_{N_MELS}_{WIN_LEN}_{HOP}.npy")
    if os.path.exists(cache):
        x = np.load(cache)
    else:
        x = np.stack([log_mel(a, mel_q) for a in d["audio"]])
        np.save(cache, x)
    return d["audio"], d["label"].astype(np.int64), d["voice"], x


def network():
    def block(conv):
        return [conv, nn.BatchNorm2d(conv.out_channels), nn.Hardtanh(0.0, CLIP)]
    return nn.Sequential(*block(nn.Conv2d(1, 8, 3, stride=2, padding=1)),
                         *block(nn.Conv2d(8, 8, 3, padding=1, groups=8)),
                         *block(nn.Conv2d(8, 32, 1)),
                         *block(nn.Conv2d(32, 32, 3, stride=2, padding=1, groups=32)),
                         *block(nn.Conv2d(32, 32, 1)),
                         *block(nn.Conv2d(32, 32, 3, padding=1, groups=32)),
                         *block(nn.Conv2d(32, 48, 1)),
                         nn.AdaptiveAvgPool2d(1),
                         nn.Flatten(),
                         nn.Linear(48, len(LABELS)))


SILENT = np.float32(kf.LOG_FLOOR_Q * 2.0**kf.LOG_EXPONENT)  # a silent frame's every item


def shifted(x, gen, most=4):
    """The batch with each window moved by up to most frames, silence filling in."""
    out = torch.full_like(x, float(SILENT))
    moves = torch.randint(-most, most + 1, (len(x),), generator=gen)
    for i, m in enumerate(moves.tolist()):
        if m >= 0:
            out[i, :, m:] = x[i, :, :x.shape[2] - m]
        else:
            out[i, :, :m] = x[i, :, -m:]
    return out


def fit(net, x, y, epochs, lr):
    opt = torch.optim.Adam(net.parameters(), lr=lr)
    sched = torch.optim.lr_scheduler.OneCycleLR(opt, lr, total_steps=epochs * ((len(x) + 63) // 64))
    loss_fn = nn.CrossEntropyLoss()
    gen = torch.Generator().manual_seed(1)
    for epoch in range(epochs):
        net.train()
        order = torch.randperm(len(x), generator=gen)
        total = 0.0
        for i in range(0, len(x), 64):
            batch = order[i:i + 64]
            opt.zero_grad()
            loss = loss_fn(net(shifted(x[batch], gen)), y[batch])
            loss.backward()
            opt.step()
            sched.step()
            total += float(loss) * len(batch)
        print(f"  epoch {epoch + 1:2d}: loss {total / len(x):.3f}")
    net.eval()


def predict(net, x, batch=512):
    with torch.no_grad():
        return torch.cat([net(torch.from_numpy(x[i:i + batch])[:, None]) for i in range(0, len(x), batch)])


# -- the LSTM -------------------------------------------------------------------

class Lstm(nn.Module):
    """One frame a step: a fixed input normalisation (folded into the
    weights on export), the LSTM and a fully connected layer to the twelve
    classes at every step."""

    def __init__(self, mean, scale):
        super().__init__()
        self.register_buffer("mean", torch.tensor(mean, dtype=torch.float32))
        self.register_buffer("scale", torch.tensor(scale, dtype=torch.float32))
        self.lstm = nn.LSTM(N_MELS, LSTM_UNITS, batch_first=True)
        self.fc = nn.Linear(LSTM_UNITS, len(LABELS))

    def forward(self, x, state=None):
        y, state = self.lstm((x - self.mean) * self.scale, state)
        return self.fc(y), state

    def folded(self):
        """The LSTM with the normalisation in its input weights and bias."""
        out = nn.LSTM(N_MELS, LSTM_UNITS, batch_first=True)
        with torch.no_grad():
            out.load_state_dict(self.lstm.state_dict())
            out.weight_ih_l0.mul_(self.scale[None, :])
            out.bias_ih_l0.sub_(out.weight_ih_l0 @ self.mean)
        return out


def frame_targets(x, labels):
    """Per frame of each clip what the LSTM should say: the clip's word for
    TARGET_FRAMES frames after its loud part ends (frames within 3 nats of
    the clip's loudest), silence everywhere else."""
    loudness = x.max(axis=2)
    targets = np.full(loudness.shape, LABELS.index("silence"), np.int64)
    for i, (e, label) in enumerate(zip(loudness, labels)):
        if label == LABELS.index("silence"):
            continue
        end = np.flatnonzero(e >= e.max() - 3.0)[-1] + 1
        targets[i, end:end + TARGET_FRAMES] = label
    return targets


def fit_lstm(net, x, targets, epochs, lr, clips=8, batch=16):
    """On streams of `clips` clips one after another, every frame counted."""
    opt = torch.optim.Adam(net.parameters(), lr=lr)
    steps = epochs * ((len(x) // clips + batch - 1) // batch)
    sched = torch.optim.lr_scheduler.OneCycleLR(opt, lr, total_steps=steps)
    weight = torch.ones(len(LABELS))
    weight[LABELS.index("silence")] = SILENCE_WEIGHT
    loss_fn = nn.CrossEntropyLoss(weight=weight)
    gen = torch.Generator().manual_seed(2)
    xt, tt = torch.from_numpy(x), torch.from_numpy(targets)
    n = len(x) // clips * clips
    for epoch in range(epochs):
        order = torch.randperm(len(x), generator=gen)[:n].reshape(-1, clips)
        total = 0.0
        for i in range(0, len(order), batch):
            pick = order[i:i + batch]
            seq = xt[pick].reshape(len(pick), -1, N_MELS)
            opt.zero_grad()
            logits, _ = net(seq)
            loss = loss_fn(logits.reshape(-1, len(LABELS)), tt[pick].reshape(-1))
            loss.backward()
            nn.utils.clip_grad_norm_(net.parameters(), 1.0)
            opt.step()
            sched.step()
            total += float(loss) * len(pick)
        print(f"  epoch {epoch + 1:2d}: loss {total / (n // clips):.3f}")


def lstm_clip_accuracy(net, x, y):
    """A clip's class: the most probable of the twelve at its frames, the
    silence class counting only when no other wins anywhere."""
    with torch.no_grad():
        p = torch.softmax(net(torch.from_numpy(x))[0], 2).numpy()
    words = p[:, :, :LABELS.index("silence")].max(axis=1)
    predicted = np.where(words.max(axis=1) >= 0.5, words.argmax(axis=1), LABELS.index("silence"))
    return 100.0 * float((predicted == y).mean())


def lstm_stream_scores(net, audio, mel_q):
    x = log_mel(audio, mel_q)
    with torch.no_grad():
        logits, _ = net(torch.from_numpy(x)[None])
    return torch.softmax(logits[0], 1).numpy()[:, :len(COMMANDS)]


class Frames:
    """Calibration's first layer: the frames as the stream gives them, items at exponent -10."""
    name, define, shift, checked = "frames", None, None, slice(None)

    def load(self, directory):
        pass

    def run(self, x, shift, limit=None):
        items = np.rint(x / np.float32(2.0**kf.LOG_EXPONENT)).astype(np.int64)
        return fx.QBatch(items, np.full(len(x), kf.LOG_EXPONENT)), []


def train_lstm(data, mel_q, x_train, y_train, x_val, y_val, x_test, y_test, val_audio, v_val):
    from kelvane_export import ModelWriter
    from kelvane_export.calibrate import Linear, calibrate
    from kelvane_export.calibrate import Lstm as LstmLayer
    mean = x_train.mean(axis=(0, 1))
    scale = 1.0 / (x_train.std(axis=(0, 1)) + 1e-3)
    net = Lstm(mean, scale)
    fit_lstm(net, x_train, frame_targets(x_train, y_train), epochs=40, lr=0.01)
    net.eval()
    accuracy = {name: lstm_clip_accuracy(net, x, y) for name, x, y in
                [("validation", x_val, y_val), ("test", x_test, y_test)]}
    print(f"LSTM, PyTorch accuracy: validation {accuracy['validation']:.1f} %, test {accuracy['test']:.1f} %")
    print("LSTM detector settings on the validation voices:")
    streams = []
    for v in np.unique(v_val):
        pick = np.flatnonzero(v_val == v)
        streams.append((lstm_stream_scores(net, val_audio[pick].reshape(-1), mel_q),
                        np.arange(len(pick)) * RATE, y_val[pick]))
    settings = tune(streams)
    directory = os.path.join(HERE, "lstm")
    with ModelWriter(directory) as out:
        out.lstm("lstm", net.folded())
        out.linear("lstm_fc", net.fc)
        out.model_info([(w, s[1], s[2], s[3]) for w, s in zip(COMMANDS, settings)], name="kwslstm")
    # Calibrated on validation streams of 48 frames (two seconds) from fresh states.
    seqs = x_val[:len(x_val) // 2 * 2].reshape(-1, 2 * FRAMES, N_MELS)
    result = calibrate(directory, [Frames(), LstmLayer("lstm"), Linear("lstm_fc")], seqs)
    out.defines.update(result.shifts)
    out.write_header(os.path.join(HERE, "lstm_net.h"), notes=result.notes,
                     comment="Written by train.py: the keyword spotter's LSTM (lstm/)")
    return accuracy, settings


# -- detector settings ----------------------------------------------------------

def stream_scores(net, audio, mel_q):
    """The scores of every run of a stream over audio, as the library's
    stream computes them: before the first frame the window holds silent
    frames (every item at the floor)."""
    x = log_mel(audio, mel_q)
    x = np.concatenate([np.full((FRAMES - 1, N_MELS), SILENT, np.float32), x])
    windows = np.lib.stride_tricks.sliding_window_view(x, (FRAMES, N_MELS))[:, 0]
    return torch.softmax(predict(net, np.ascontiguousarray(windows)), 1).numpy()[:, :len(COMMANDS)]


def fire(average, first, second):
    """Runs at which the detector fires on one word's averages (see kf.detect)."""
    above = np.flatnonzero(average >= first)
    below = np.flatnonzero(average < second)
    fired, last = [], -1
    for run in above:
        # Re-armed when some run after the last firing (itself included, as
        # the detector re-arms before it tests) fell below the second threshold.
        if last < 0 or np.searchsorted(below, last + 1) < np.searchsorted(below, run + 1):
            fired.append(run)
            last = run
    return np.array(fired, dtype=np.int64)


def judge(runs, word, starts, labels):
    """(hits, false alarms) of detections at runs for one word; starts are
    the clips' first samples in the stream, labels their words."""
    positions = runs * HOP + WIN_LEN
    hit = set()
    false_alarms = 0
    for p in positions:
        clips = [k for k in np.flatnonzero((starts <= p) & (p < starts + RATE + LATE)) if labels[k] == word]
        if clips and clips[0] not in hit:
            hit.add(clips[0])
        else:
            false_alarms += 1
    return len(hit), false_alarms


def tune(streams):
    """Per word the (window, first, second) with most hits less three per false alarm."""
    settings = []
    for word in range(len(COMMANDS)):
        best = None
        for window in range(1, 8):
            kernel = np.ones(window, np.float32) / window
            averages = [np.convolve(s[:, word], kernel)[:len(s)] for s, _, _ in streams]
            for first in np.arange(0.30, 0.96, 0.05):
                for second in (first * 0.3, first * 0.6):
                    hits = fa = 0
                    for a, (_, starts, labels) in zip(averages, streams):
                        h, f = judge(fire(a, first, second), word, starts, labels)
                        hits, fa = hits + h, fa + f
                    score = hits - 3 * fa
                    if best is None or score > best[0]:
                        best = (score, window, round(float(first), 2), round(float(second), 2), hits, fa)
        settings.append(best)
        print(f"  {COMMANDS[word]:5s}: window {best[1]}, thresholds {best[2]:.2f} {best[3]:.2f}: "
              f"{best[4]} hits, {best[5]} false alarms")
    return settings


def voice_streams(net, audio, labels, voices, mel_q):
    """Each voice's clips one after another, with their scores."""
    out = []
    for v in np.unique(voices):
        pick = np.flatnonzero(voices == v)
        scores = stream_scores(net, audio[pick].reshape(-1), mel_q)
        out.append((scores, np.arange(len(pick)) * RATE, labels[pick]))
    return out


# -- fixed-point shifts ----------------------------------------------------------

def block_exponent(peak):
    """The exponent the library's quantiser gives a peak magnitude (the
    fixed-point twin's search)."""
    return int(fx.block_exponent(peak)[0])


def choose_shifts(net, out, x_train, directory):
    """Each fixed-point layer's shift: the largest that keeps its items below
    16384 (one bit of headroom) on every training window. A layer of K
    products per item shifts its exact sums right by s = 15 + floor(log2(K))
    - shift, to the exponent e_in + e_weight + s (or the bias's where that is
    larger); ReLU and pooling keep it. The window comes at exponent -10."""
    layers = [(f"conv{i + 1}", m) for i, m in enumerate(x for x in net if isinstance(x, nn.Conv2d))]
    layers.append(("fc1", net[-1]))
    peaks = {}
    watched = {name: (net[list(net).index(m) + 1] if isinstance(m, nn.Conv2d) else m) for name, m in layers}
    hooks = [m.register_forward_hook(lambda m, i, o, k=k: peaks.__setitem__(k, max(peaks.get(k, 0.0),
                                                                                   float(o.abs().max()))))
             for k, m in watched.items()]
    predict(net, x_train)
    for h in hooks:
        h.remove()

    def table(name):
        return np.load(os.path.join(directory, name + ".npy"))
    e_in = kf.LOG_EXPONENT
    for name, m in layers:
        products = m.in_features if isinstance(m, nn.Linear) else \
            m.kernel_size[0] * m.kernel_size[1] * (m.in_channels // m.groups)
        e_w = block_exponent(np.abs(table(f"kws_{name}_w")).max())
        e_b = block_exponent(np.abs(table(f"kws_{name}_b")).max())
        default = 15 + int(np.floor(np.log2(products)))
        wanted = int(np.ceil(np.log2(peaks[name] / 16383.0)))
        shift = min(max(default - (wanted - e_in - e_w), 0), default)
        e_in = max(e_in + e_w + default - shift, e_b)
        out.defines[f"KWS_{name.upper()}_SHIFT"] = shift
        print(f"  {name}: shift {shift:2d}, exponent {e_in:3d}, peak {peaks[name]:8.3f} = item "
              f"{peaks[name] / 2.0 ** e_in:7.0f}")


def write_wav(path, samples):
    with wave.open(path, "wb") as w:
        w.setnchannels(1)
        w.setsampwidth(2)
        w.setframerate(RATE)
        w.writeframes(samples.astype("<i2").tobytes())


def write_results(path, accuracy, settings):
    with open(path, "w") as f:
        f.write("# Written by train.py\n")
        f.write(f"pytorch_test_accuracy {accuracy['test']:.2f}\n")
        f.write(f"pytorch_validation_accuracy {accuracy['validation']:.2f}\n")
        for w, s in zip(COMMANDS, settings):
            f.write(f"detector {w} window {s[1]} thresholds {s[2]} {s[3]} validation_hits {s[4]} "
                    f"false_alarms {s[5]}\n")


def train_cnn(mel_q, x_train, y_train, x_val, y_val, x_test, y_test, val_audio, v_val):
    net = network()
    fit(net, torch.from_numpy(x_train)[:, None], torch.from_numpy(y_train), epochs=40, lr=0.01)
    accuracy = {name: 100.0 * float((predict(net, x).argmax(1).numpy() == y).mean())
                for name, x, y in [("validation", x_val, y_val), ("test", x_test, y_test)]}
    print(f"PyTorch accuracy: validation {accuracy['validation']:.1f} %, test {accuracy['test']:.1f} %")

    print("detector settings on the validation voices:")
    settings = tune(voice_streams(net, val_audio, y_val, v_val, mel_q))

    directory = os.path.join(HERE, "cnn")
    with TensorModelWriter(directory, input_shape=(FRAMES, N_MELS, 1)) as out:
        out.sequential(net, prefix="kws_")
        out.model_info([(w, s[1], s[2], s[3]) for w, s in zip(COMMANDS, settings)], name="kws")
    out.defines = {"KWS_WIN_LEN": WIN_LEN, "KWS_HOP": HOP, "KWS_FFT_LEN": FFT_LEN, "KWS_FRAMES": FRAMES,
                   "KWS_MELS": N_MELS, "KWS_CLASSES": len(LABELS), **out.defines}
    choose_shifts(net, out, x_train, directory)
    out.write_header(os.path.join(HERE, "cnn_net.h"),
                     comment="Written by train.py: the keyword spotter's CNN (cnn/, kelvane -3d)")
    return accuracy, settings


def main():
    args = sys.argv[1:]
    networks = [a for a in args if a in ("cnn", "lstm")] or ["cnn", "lstm"]
    rest = [a for a in args if a not in ("cnn", "lstm")]
    data = rest[0] if rest else os.path.join(ROOT, "build", "wakeword_data")
    torch.manual_seed(0)
    torch.set_num_threads(1)
    started = time.time()
    mel = mel_table()
    mel_q = kf.quantise(mel)

    _, y_train, _, x_train = load(data, "train", mel_q)
    val_audio, y_val, v_val, x_val = load(data, "val", mel_q)
    test_audio, y_test, _, x_test = load(data, "test", mel_q)
    print(f"features of {len(x_train) + len(x_val) + len(x_test)} clips in {time.time() - started:.0f} s")
    splits = (x_train, y_train, x_val, y_val, x_test, y_test, val_audio, v_val)

    os.makedirs(os.path.join(HERE, "features"), exist_ok=True)
    np.save(os.path.join(HERE, "features", "mel.npy"), mel)
    if "cnn" in networks:
        write_results(os.path.join(HERE, "results_cnn.txt"), *train_cnn(mel_q, *splits))
    if "lstm" in networks:
        torch.manual_seed(0)
        write_results(os.path.join(HERE, "results_lstm.txt"), *train_lstm(data, mel_q, *splits))
    write_wav(os.path.join(data, "test_clips.wav"), test_audio.reshape(-1))
    with open(os.path.join(data, "test_labels.txt"), "w") as f:
        f.write("\n".join(str(int(v)) for v in y_test) + "\n")
    print(f"trained and exported in {time.time() - started:.0f} s")


if __name__ == "__main__":
    main()
