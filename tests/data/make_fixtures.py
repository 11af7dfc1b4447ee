#!/usr/bin/python3
"""Writes the .npy fixtures of the loader, converter and golden-output tests.

Provenance: every .npy file under tests/data/npy, tests/data/fetch_model*,
tests/data/hostile_model, tests/cli/*/model and examples/demo/model was
written by numpy.save (or numpy.lib.format for the version 2 file) from this
script, run as
    /usr/bin/python3 tests/data/make_fixtures.py
with Debian's python3-numpy 1.24. Tests read the committed files and never
need Python. Rerun after changing a fixture and review the diff.
"""
import os
import shutil

import numpy as np

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))


def path(*parts):
    p = os.path.join(ROOT, *parts)
    os.makedirs(os.path.dirname(p), exist_ok=True)
    return p


def save(rel, array):
    np.save(path(rel), array)


def write(rel, data):
    """Writes text or bytes as they are."""
    with open(path(rel), "wb" if isinstance(data, bytes) else "w") as f:
        f.write(data)


def fresh_dir(rel):
    d = os.path.join(ROOT, rel)
    shutil.rmtree(d, ignore_errors=True)
    os.makedirs(d)
    return rel


def fetch_values(seed, count, divisor=7.0):
    """The values the compile-and-fetch tests recompute in C: multiples of
    1/7, which six decimals cannot hold exactly, or of 1/8, which they and a
    fixed-point table hold exactly."""
    return [((i * 37 + seed * 11) % 101 - 50) / divisor for i in range(count)]


def loader_fixtures():
    base = np.arange(6).reshape(2, 3) * 1.25 - 2.5
    save("tests/data/npy/f4_2x3.npy", (base * 4).astype(np.float32))
    save("tests/data/npy/f4_vec5.npy", np.array([1, -2, 3.5, 0.25, 8], dtype=np.float32))
    save("tests/data/npy/f4_fortran.npy", np.asfortranarray(np.arange(6, dtype=np.float32).reshape(2, 3)))
    save("tests/data/npy/u1_2x3.npy", np.arange(6, dtype=np.uint8).reshape(2, 3))
    save("tests/data/npy/be_f4_2x3.npy", np.arange(6, dtype=">f4").reshape(2, 3))
    save("tests/data/npy/f4_scalar.npy", np.float32(7.5))
    with open(path("tests/data/npy/v2_f4_2x3.npy"), "wb") as f:
        np.lib.format.write_array(f, np.arange(6, dtype=np.float32).reshape(2, 3), version=(2, 0))
    big = np.float64(1e40)
    save("tests/data/npy/f8_out_of_float_range.npy", np.array([big, -big, 2.0**-160, 1 / 3], dtype=np.float64))
    save("tests/data/npy/i8_extremes.npy", np.array([2**63 - 1, -2**63, 2**24 + 1, -7], dtype=np.int64))


def fetch_models():
    d = fresh_dir("tests/data/fetch_model")
    shapes = {"dense": (3, 5), "bias": (5,), "odd": (5, 3), "tiny": (1, 1), "pop_var": (1, 4), "zero": (2, 2)}
    for seed, (name, shape) in enumerate(sorted(shapes.items())):
        count = int(np.prod(shape))
        values = np.array(fetch_values(seed, count), dtype=np.float32).reshape(shape)
        if name == "pop_var":
            values = np.abs(values)
        if name == "zero":
            values = np.zeros(shape, dtype=np.float32)
        save(f"{d}/{name}.npy", values)
    write(f"{d}/_MODEL_INFO_", "# wake words of the fetch test\nkws_v1_hey_5_0.72_0.65_stop_x_0.8_0.7\n")
    d3 = fresh_dir("tests/data/escape_model")
    save(f"{d3}/w.npy", np.array([1.0], dtype=np.float32))
    # A quote, a backslash, a trigraph and a carriage return (DOS line end).
    write(f"{d3}/_MODEL_INFO_", b'm_v1_say"hi"_3_0.5_0.25_back\\slash_4_0.1236_0_what??=_1_1_2\r\n')
    d2 = fresh_dir("tests/data/fetch_model_noinfo")
    save(f"{d2}/w.npy", np.array([[0.5, -1.0], [2.0, 0.125]], dtype=np.float32))


def cli_case_models():
    def model(case):
        return fresh_dir(f"tests/cli/{case}/model")

    for case in ("float_demo", "quant_demo"):
        d = model(case)
        save(f"{d}/a.npy", np.array([0.5, -2], dtype=np.float32))
        save(f"{d}/b c.v2.npy", np.array([1.5, 0.25, 3], dtype=np.float32))
        write(f"{d}/.x", "hidden\n")

    for case in ("exclude_bn", "quant_bn"):
        d = model(case)
        save(f"{d}/dense.npy", np.array([[1.0, -0.5, 0.25], [2.0, 0.0, -3.0]], dtype=np.float32))
        save(f"{d}/pop_var.npy", np.array([0.0, 1.0, 0.25, -0.001, -0.5], dtype=np.float32))
        save(f"{d}/gamma.npy", np.array([1.0, 2.0], dtype=np.float64))

    d = model("quant_layouts")
    save(f"{d}/odd.npy", np.arange(6, dtype=np.float32).reshape(3, 2) - 2.5)
    save(f"{d}/n17.npy", np.linspace(-1, 1, 17).astype(np.float32))
    save(f"{d}/n32.npy", (np.arange(32, dtype=np.int32) - 16).reshape(2, 16))
    save(f"{d}/zeros.npy", np.zeros((2, 3), dtype=np.float32))
    save(f"{d}/empty.npy", np.zeros((0,), dtype=np.float32))
    save(f"{d}/tiny.npy", np.array([1e-7, 0.5], dtype=np.float32))

    d = model("model_info")
    save(f"{d}/A.npy", np.array([1.0], dtype=np.float32))
    save(f"{d}/b.npy", np.array([2.0], dtype=np.float32))
    write(f"{d}/_MODEL_INFO_", "# comment_with_the_right_count_of_under_scores\nfive_fields_are_skipped\n"
                               "cnn_v2_alpha_5_0.72_0.65_beta_x_0.8_0.7\nx_y_later_1_0.5_0.5\n")

    for case in ("empty_dir", "flags_repeat"):
        write(f"{model(case)}/.keep", "")

    d = model("info_no_line")
    save(f"{d}/B.npy", np.array([1.0], dtype=np.float32))
    save(f"{d}/c.npy", np.array([1.0], dtype=np.float32))
    write(f"{d}/_MODEL_INFO_", "# only_comments_and_blank_lines_here_x\n\n   \n_a_b\n")

    d = model("info_empty_field")
    write(f"{d}/_MODEL_INFO_", "m_v1_word__0.5_0.5\n")
    write(f"{model('info_trailing_underscore')}/_MODEL_INFO_", "a_b_w_1_1_\n")
    # Seven and eight fields are no count of 2 + 4k; a line longer than the
    # read buffer arrives in pieces, and its tail is judged as a line of its own.
    write(f"{model('info_long_line')}/_MODEL_INFO_",
          "a_b_c_d_e_f_g\na_b_c_d_e_f_g_h\n" + "a" * 2047 + "x_b_w_12_1_1_v_0_1_1\n")

    d = model("bad_files")
    save(f"{d}/good.npy", np.array([[1, 2], [3, 4]], dtype=np.float32))
    save(f"{d}/my-weights.npy", np.array([1.0], dtype=np.float32))
    save(f"{d}/2nd.npy", np.array([1.0], dtype=np.float32))
    write(f"{d}/notes.txt", "not a numpy file\n")
    write(f"{d}/subdir/.keep", "")
    full = open(path(d, "good.npy"), "rb").read()
    write(f"{d}/truncated.npy", full[:-6])
    write(f"{d}/_MODEL_INFO_.txt", "a_b_c_1_0.5_0.5\n")

    strict_cases(model)
    report_cases(model)


def report_cases(model):
    """kelvane-report's text and JSON outputs."""
    d = model("report_text")
    save(f"{d}/a.npy", np.array([1.0, -1.0], dtype=np.float32))
    # Roots 10000 (exact at exponent -1) and sqrt(0.001), which is lost.
    save(f"{d}/pop_var.npy", np.array([1e8, 0.0], dtype=np.float32))
    write(f"{d}/2nd.npy", "")
    write(f"{d}/_MODEL_INFO_", "no significant line\n")
    d = model("report_json")
    # 10000 stays, -30000 becomes -29999 (exponent 0): SNR = 10 log10(1e9 / 1) = 90 dB.
    save(f"{d}/a.npy", np.array([10000.0, -30000.0], dtype=np.float32))
    save(f"{d}/b.npy", np.array([1.0, 0.5], dtype=np.float32))
    write(f"{d}/junk.txt", "not a numpy file")
    write(f"{d}/_MODEL_INFO_", "kws_v1_hey_3_0.80_0.60\n")
    # Each warning from a table of its own. 1000 sets exponent -5: each 1.0
    # becomes item 32, six bits. Roots 10000.00005 and 0.0316: exponent -1
    # leaves the second item 0, in a chosen batch-norm matrix only.
    outliers, roots = np.array([1000, 1, 1, 1], dtype=np.float32), np.array([1e8, 0], dtype=np.float32)
    d = model("report_warnings")
    for name, values in (("clean", [0.5, -0.25, 0.125, 0.3]), ("nan", [0.5, np.nan, 0.25]), ("v", roots),
                         ("u", roots), ("outliers", outliers), ("half", [1000, 900, 1, 1])):
        save(f"{d}/{name}.npy", np.array(values, dtype=np.float32))
    d = model("report_warnings_float")  # -exclude (o): o is quantised
    for name, values in (("inf", [0.5, np.inf]), ("pop_var", [-1, 1]), ("w", outliers), ("o", outliers)):
        save(f"{d}/{name}.npy", np.array(values, dtype=np.float32))
    d = model("report_warnings_tensor")  # -exclude (pop_var): both lists ignored for it
    save(f"{d}/w.npy", outliers)
    save(f"{d}/pop_var.npy", np.array([1.0], dtype=np.float32))


def npy_bytes(header, data=b""):
    """A version 1.0 .npy file with this header text, padded as numpy pads it."""
    text = header.encode()
    pad = 64 - (10 + len(text) + 1) % 64
    text += b" " * (pad % 64) + b"\n"
    return b"\x93NUMPY\x01\x00" + len(text).to_bytes(2, "little") + text + data


def strict_cases(model):
    """Files the classic conversion writes although the result is wrong or
    does not compile, in the two runs that pin it (classic_values) and in the
    runs that -strict refuses or writes exactly (strict_*)."""
    d = model("classic_values")
    # Nine items break the line after eight; 1e-7 shows what six decimals leave.
    w = np.array([np.inf, -np.inf, np.nan, -np.nan, 0.5, -0.0, 1e-7, 2, -3], dtype=np.float32)
    save(f"{d}/w.npy", w)
    write(f"{d}/_MODEL_INFO_", b"m_v1_say_3_nan_abc_go_7_inf_0.5\r\n")
    d = model("strict_ok")
    save(f"{d}/w.npy", w)
    save(f"{d}/q.npy", np.array([[1.0, -0.5]], dtype=np.float32))
    write(f"{d}/_MODEL_INFO_", b"m_v1_say??=_3_0.5_0.25\r\n")

    for case in ("strict_refusals", "classic_refusals"):
        d = model(case)
        one = np.array([1.0], dtype=np.float32)
        for name in ("2nd", "my-w", "index", "strdup", "w", "w.old", "q", "bn"):
            save(f"{d}/{name}.npy", one)
        save(f"{d}/q.npy", np.array([1.0, np.nan], dtype=np.float32))
        save(f"{d}/fortran.npy", np.asfortranarray(np.arange(6, dtype=np.float32).reshape(2, 3)))
        save(f"{d}/three_d.npy", np.arange(24, dtype=np.float32).reshape(2, 3, 4))
        save(f"{d}/structured.npy", np.zeros(2, dtype=[("a", "<i4"), ("b", "<f4")]))
        f4 = "{'descr': '<f4', 'fortran_order': False, 'shape': (%s), }"
        write(f"{d}/negative.npy", npy_bytes(f4 % "2, -1", b"\0" * 8))
        write(f"{d}/truncated.npy", npy_bytes(f4 % "2, 2", b"\0" * 12))
        write(f"{d}/_MODEL_INFO_", b"\xef\xbb\xbf# comment_a_b_1_0.5_0.5\nm_v1_go_0_0.5_0.5\n")

    for case in ("classic_names", "full_disk"):
        save(f"{model(case)}/a.npy", np.array([0.5, -2], dtype=np.float32))
    save(f"{model('strict_tensor_nan')}/f.npy", np.array([[[[1.0, np.nan]]]], dtype=np.float32))

    d = model("strict_tensor")
    save(f"{d}/five_d.npy", np.zeros((1, 1, 1, 1, 2), dtype=np.float32))
    save(f"{d}/filters.npy", np.ones((1, 1, 1, 2), dtype=np.float32))
    # Read in pieces of 2047 bytes: the first piece qualifies, and the
    # classic reader takes its threshold without the rest of its digits.
    write(f"{d}/_MODEL_INFO_", "m_v1_go_3_0.5_0." + "5" * 2100 + "\n")


def hostile_models():
    """Values that a float table cannot write with "%f": beyond the float
    range, not a number, and a negative zero beside them."""
    d = fresh_dir("tests/data/hostile_model")
    values = np.array([[1e40, -1e40, np.nan], [-np.nan, 0.5, -0.0]], dtype=np.float64)
    save(f"{d}/extremes.npy", values)


if __name__ == "__main__":
    loader_fixtures()
    fetch_models()
    cli_case_models()
    hostile_models()
