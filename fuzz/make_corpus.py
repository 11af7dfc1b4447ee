#!/usr/bin/python3
"""Writes the seed corpus of the fuzz harnesses.

Provenance: every file under fuzz/corpus/npy, fuzz/corpus/model_info and
fuzz/corpus/convert was written by this script, run as
    /usr/bin/python3 fuzz/make_corpus.py
with Debian's python3-numpy 1.24: valid files by numpy.save (the version 2
file by numpy.lib.format), malformed ones as bytes that each break one
thing. Inputs that a fuzz run found are kept in fuzz/corpus/found and are
not touched here. Rerun after changing a seed and review the diff.
"""
import io
import os
import shutil

import numpy as np

HERE = os.path.dirname(os.path.abspath(__file__))


def fresh(name):
    d = os.path.join(HERE, "corpus", name)
    shutil.rmtree(d, ignore_errors=True)
    os.makedirs(d)
    return d


def npy(array, version=None):
    """The bytes numpy.save writes for array."""
    buf = io.BytesIO()
    if version is None:
        np.save(buf, array)
    else:
        np.lib.format.write_array(buf, np.asanyarray(array), version=version)
    return buf.getvalue()


def raw(header, data=b""):
    """A version 1.0 file with exactly this header text and data."""
    h = header.encode("latin-1")
    return b"\x93NUMPY\x01\x00" + len(h).to_bytes(2, "little") + h + data


F4 = "{'descr': '<f4', 'fortran_order': False, 'shape': "


def npy_seeds():
    """Valid files of each element type and shape kind, and the malformed
    files of the loaders' unit tests."""
    base = np.arange(24).reshape(2, 3, 4) * 1.25 - 10
    seeds = {}
    for name, dtype in (("f4", np.float32), ("f8", np.float64), ("i4", np.int32), ("i8", np.int64), ("u1", np.uint8)):
        values = (base if dtype != np.uint8 else np.arange(24).reshape(2, 3, 4) * 10).astype(dtype)
        seeds[f"{name}_scalar.npy"] = npy(values.reshape(-1)[0])
        seeds[f"{name}_vec5.npy"] = npy(values.reshape(-1)[:5])
        seeds[f"{name}_2x3.npy"] = npy(values.reshape(-1)[:6].reshape(2, 3))
        seeds[f"{name}_2x3x4.npy"] = npy(values)
        seeds[f"{name}_2x1x2x3.npy"] = npy(values.reshape(-1)[:12].reshape(2, 1, 2, 3))
    seeds["f4_0x3.npy"] = npy(np.zeros((0, 3), np.float32))
    seeds["f4_3x0.npy"] = npy(np.zeros((3, 0), np.float32))
    seeds["f4_fortran.npy"] = npy(np.asfortranarray(np.arange(6, dtype=np.float32).reshape(2, 3)))
    seeds["be_f4_2x3.npy"] = npy(np.arange(6, dtype=">f4").reshape(2, 3))
    seeds["v2_f4_2x3.npy"] = npy(np.arange(6, dtype=np.float32).reshape(2, 3), version=(2, 0))
    seeds["f8_extremes.npy"] = npy(np.array([1e300, -1e300, np.nan, np.inf, -0.0, 5e-324]))
    six = np.arange(1, 7, dtype=np.float32).tobytes()
    seeds.update({
        "bad_empty": b"",
        "bad_nine_bytes": b"\x93NUMPY\x01\x00\x00",
        "bad_magic": b"\x93NUMPX\x01\x00\x00\x00",
        "bad_text": b"hello, this is text\n",
        "bad_empty_header": raw(""),
        "bad_double_quoted_key": raw("{\"descr\": '<f4', \"shape\": (1,)}", six),
        "bad_empty_shape": raw(F4 + "(), }", six),
        "bad_marker_value": raw(F4 + "(-1, 2), }", six),
        "bad_huge_number": raw(F4 + "(99999999999, 2), }", six),
        "bad_unknown_descr": raw("{'descr': '>f4', 'shape': (2, 3)}", six),
        "bad_short_last_row": raw(F4 + "(2, 3), }", six[:20]),
        "bad_header_cut_short": raw(F4 + "(2, 3), }" + " " * 20)[:10 + len(F4) + 10],
        "bad_billions_promised": raw(F4 + "(2000000000, 1), }", six),
        "bad_count_overflows": raw(F4 + "(65536, 65536), }", six),
        "bad_negative_rows": raw(F4 + "(-2, 3), }", six),
        "bad_suffix_L": raw(F4 + "(3L, 4L), }", six),
        "bad_blank_before_comma": raw(F4 + "( 2 ,3 ), }", six),
        "bad_three_entries_weights": raw(F4 + "(2, 3, 4), }", six),
        "bad_two_entries_short": raw(F4 + "(3, 2), }", six[:12]),
        "bad_several_descr": raw("{'descr': '<f4', 'x': '<i8', 'y': '|u1', 'shape': (2,)}", six),
        "bad_zero_by_huge": raw(F4 + "(0, 2000000000), }"),
        "bad_huge_by_zero": raw(F4 + "(2000000000, 0), }"),
    })
    d = fresh("npy")
    for name, data in seeds.items():
        with open(os.path.join(d, name), "wb") as f:
            f.write(data)
    return seeds


def model_info_seeds():
    d = fresh("model_info")
    seeds = {
        "two_words": b"kws_v1_hey_3_0.80_0.60_stop_4_0.75_0.50\n",
        "comments_first": b"# a comment with_the_right_count_of_fields_x\n\na_b_c\nm_v_w_1_0.5_0.5\n",
        "bad_window": b"cnn_v2_alpha_5_0.72_0.65_beta_x_0.8_0.7",
        "escapes": b'm_v1_say"hi"_3_0.5_0.25_back\\slash_4_0.1236_abc_what??=_1_1_2\r\n',
        "empty_field": b"a__w_1_0.5_0.5\n",
        "not_finite": b"a_b_w_1_nan_inf\n",
        "no_line": b"# only\n\n#comments\n",
        "nul_inside": b"a_b_w\x001_0.5_0.5\na_b_w_1_0.5_0.5\n",
        "long_line": b"x" * 3000 + b"_a_w_1_0.5_0.5\n",
    }
    for name, data in seeds.items():
        with open(os.path.join(d, name), "wb") as f:
            f.write(data)


def model(options, *entries):
    """An input of the converter harness: options, then entries of a name
    line and the file's bytes, each behind the separator."""
    out = options.encode()
    for name, data in entries:
        out += b"@@@@" + name.encode() + b"\n" + data
    return out


def convert_seeds(n):
    info = b"kws_v1_hey_3_0.80_0.60_stop_4_0.75_0.50\n"
    a = n["f4_2x3.npy"]
    v = n["f4_vec5.npy"]
    seeds = {
        "quantised": model("", ("a.npy", a), ("b c.v2.npy", v), (".x", b"hidden"), ("_MODEL_INFO_", info)),
        "float": model("-no-quantized", ("a.npy", n["f8_2x3.npy"]), ("b.npy", n["i4_vec5.npy"])),
        "exclude": model("-no-quantized -exclude (a,pop_var)", ("a.npy", a), ("b.npy", n["i8_2x3.npy"]),
                         ("pop_var.npy", v)),
        "bnmatrices": model("-bnmatrices v1,v2", ("v1.npy", a), ("v2.npy", n["f8_extremes.npy"])),
        "tensor_q": model("-3d", ("w.npy", n["f4_2x1x2x3.npy"]), ("b.npy", v), ("m.npy", a)),
        "tensor_f": model("-3d -no-quantized", ("w.npy", n["i8_2x1x2x3.npy"]), ("x.npy", n["f4_2x3x4.npy"])),
        "tensor_in": model("-3d -in", ("img.npy", n["u1_2x3x4.npy"]), ("f.npy", n["f4_2x3x4.npy"])),
        "bad_files": model("", ("2nd.npy", a), ("my-weights.npy", a), ("notes.txt", b"text\n"), ("subdir/", b""),
                           ("pipe.npy|", b""), ("truncated.npy", a[:40]), ("good.npy", a)),
        "taken_names": model("-no-quantized", ("int.npy", a), ("get_info.npy", a), ("model_info.npy", v), ("_Bool.npy", a),
                             ("dl_x.npy", v), ("size_t.npy", v), ("strlen.npy", v), ("name.npy", v), ("dense.npy", a)),
        "bad_info": model("-no-quantized", ("_MODEL_INFO_", b"a__w_1_0.5_0.5\n"), ("a.npy", a)),
        "bad_option": model("-in -3d", ("a.npy", a)),
        "bad_exclude": model("-exclude a,b", ("a.npy", a)),
    }
    d = fresh("convert")
    for name, data in seeds.items():
        with open(os.path.join(d, name), "wb") as f:
            f.write(data)


if __name__ == "__main__":
    npy_files = npy_seeds()
    model_info_seeds()
    convert_seeds(npy_files)
