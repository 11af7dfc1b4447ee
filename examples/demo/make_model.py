#!/usr/bin/python3
"""Writes the small keyword-spotter-shaped demo model in ./model.

Provenance: the .npy files in ./model were written by numpy.save from this
script (seeded, so reruns give the same bytes), run as
    /usr/bin/python3 examples/demo/make_model.py
with Debian's python3-numpy. The weights are random, not trained: the model
shows the shapes and the conversion, not a recogniser.
"""
import os

import numpy as np

HERE = os.path.dirname(os.path.abspath(__file__))
OUT = os.path.join(HERE, "model")

rng = np.random.default_rng(20261123)
os.makedirs(OUT, exist_ok=True)


def save(name, array):
    np.save(os.path.join(OUT, name + ".npy"), array.astype(np.float32))


save("dense1_w", rng.normal(0, 0.3, (40, 16)))   # 40 features in, 16 units out
save("dense1_b", rng.normal(0, 0.1, (16,)))
save("bn1_offset", rng.normal(0, 0.1, (16,)))
save("bn1_scale", rng.uniform(0.8, 1.2, (16,)))
save("bn1_mean", rng.normal(0, 0.1, (16,)))
save("pop_var", rng.uniform(0.5, 2.0, (16,)))     # pre-calculated into roots
save("dense2_w", rng.normal(0, 0.3, (16, 3)))    # 3 classes: silence, "hey", "stop"
save("dense2_b", rng.normal(0, 0.1, (3,)))
with open(os.path.join(OUT, "_MODEL_INFO_"), "w") as f:
    f.write("# kind_version_then word_window_threshold1_threshold2 per wake word\n")
    f.write("demo_v1_hey_3_0.80_0.60_stop_4_0.75_0.50\n")
