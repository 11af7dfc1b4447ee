#!/usr/bin/python3
"""Writes the .npy fixtures of the tensor loaders and the tensor modes.

Provenance: every file under tests/data/tensor and tests/cli/tensor_*/model
was written by numpy.save from this script, run as
    /usr/bin/python3 tests/data/make_tensor_fixtures.py
with Debian's python3-numpy 1.24. Tests read the committed files and never
need Python. Rerun after changing a fixture and review the diff.
"""
import os

import numpy as np

from make_fixtures import fetch_values, fresh_dir, path, save, write


def loader_fixtures(d):
    """A model directory of every element type and entry count, some of
    them refused, for the report's agreement with the converter in the
    tensor modes; each element holds its own index in C order."""
    bank = np.arange(24).reshape(2, 3, 2, 2)  # (h, w, c, n)
    for descr, dtype in (("f4", np.float32), ("f8", np.float64), ("i4", np.int32), ("i8", np.int64), ("u1", np.uint8)):
        save(f"{d}/w_{descr}_2x3x2x2.npy", bank.astype(dtype))
    save(f"{d}/w_f4_vec5.npy", np.arange(5, dtype=np.float32))
    save(f"{d}/w_f4_2d_3x4.npy", np.arange(12, dtype=np.float32).reshape(3, 4))
    save(f"{d}/w_f4_2x3x4.npy", np.arange(24, dtype=np.float32).reshape(2, 3, 4))
    # Input images: element k holds k * 37 - 100, beyond a byte on both sides.
    image = np.arange(24).reshape(2, 3, 4) * 37 - 100
    for descr, dtype in (("f4", np.float32), ("f8", np.float64), ("i4", np.int32), ("i8", np.int64)):
        save(f"{d}/in_{descr}_2x3x4.npy", image.astype(dtype))
    save(f"{d}/in_u1_2x3x4.npy", image.astype(np.int64).astype(np.uint8))
    save(f"{d}/in_u1_2x3.npy", np.arange(6, dtype=np.uint8).reshape(2, 3))


INFO = "# wake words of the tensor fetch test\nkws_v1_hey_5_0.72_0.65_stop_x_0.8_0.7\n"


def fetch_models(root):
    """Filter banks for -3d and -3d -no-quantized, images for -3d -in."""
    d = fresh_dir(os.path.join(root, "filters"))
    shapes = {"conv": (3, 2, 2, 4), "bias": (5,), "dense": (3, 2)}
    for seed, (name, shape) in enumerate(sorted(shapes.items())):
        values = np.array(fetch_values(seed, int(np.prod(shape)), 8.0), dtype=np.float32).reshape(shape)
        save(f"{d}/{name}.npy", values)
    write(f"{d}/_MODEL_INFO_", INFO)
    d = fresh_dir(os.path.join(root, "images"))
    save(f"{d}/gray.npy", (np.arange(12).reshape(3, 4, 1) * 23).astype(np.uint8))
    save(f"{d}/rgb.npy", (np.arange(12).reshape(2, 2, 3) * 50.5 - 100).astype(np.float32))
    write(f"{d}/_MODEL_INFO_", INFO)


def cli_case_models():
    d = fresh_dir("tests/cli/tensor_q/model")
    save(f"{d}/conv.npy", (np.arange(12, dtype=np.float32) * 0.25 - 1.5).reshape(2, 1, 2, 3))
    save(f"{d}/bias.npy", np.array([0.5, -2.0, 1.0], dtype=np.float64))
    save(f"{d}/dense.npy", np.array([[1, -2], [3, -4], [5, -6]], dtype=np.int32))
    # Named in the default -bnmatrices: a tensor is written unchanged.
    save(f"{d}/pop_var.npy", np.array([0.25, 4.0], dtype=np.float32))
    save(f"{d}/cube.npy", np.zeros((2, 3, 4), dtype=np.float32))
    save(f"{d}/eight.npy", (np.arange(8, dtype=np.float32) - 4).reshape(2, 2, 1, 2))  # one full line

    d = fresh_dir("tests/cli/tensor_f/model")
    save(f"{d}/conv.npy", (np.arange(12, dtype=np.float32) * 0.25 - 1.5).reshape(2, 1, 2, 3))
    save(f"{d}/dense.npy", np.array([[1, -2], [3, -4], [5, -6]], dtype=np.int32))
    save(f"{d}/empty.npy", np.zeros((0, 2, 2, 2), dtype=np.float32))
    full = np.array([[0.5, 1.5], [2.5, 3.5], [4.5, 5.5]], dtype=np.float32)
    save(f"{d}/short2d.npy", full)
    data = open(path(f"{d}/short2d.npy"), "rb").read()
    write(f"{d}/short2d.npy", data[:-12])  # the last row and a half gone

    d = fresh_dir("tests/cli/tensor_in/model")
    save(f"{d}/gray.npy", np.array([[[0], [255]], [[256], [300]]], dtype=np.int32))
    save(f"{d}/rgb.npy", np.array([[[3.9, -0.5, 255.9], [256.0, -1.0, np.nan], [257.0, 1e10, 7.0]]], dtype=np.float32))
    save(f"{d}/vec.npy", np.arange(4, dtype=np.uint8))
    write(f"{d}/_MODEL_INFO_", "m_v1_go_3_0.5_0.25\n")


if __name__ == "__main__":
    root = fresh_dir("tests/data/tensor")
    loader_fixtures(root)
    fetch_models(root)
    cli_case_models()
