"""The model directory as one unit: written whole or not at all.

Files go into a hidden temporary directory beside the target; commit()
writes the record of options and files, then renames the temporary
directory into place. Until then the previous directory stays as it was,
and a failed export (discard()) leaves it untouched. The new directory
holds exactly the files of this export, so the tables of layers that left
the model do not linger.

The record, OPTIONS_FILE, is hidden so that kelvane, which converts the
visible entries only, never sees it; kelvane_add_model() reads it.
"""
import os
import shutil
import sys
import tempfile

OPTIONS_FILE = ".kelvane_options"

_RECORD_HEAD = ("# Written by kelvane_export: how to convert this directory. kelvane_add_model()\n"
                "# reads it; kelvane itself converts visible entries only.\n")


class ExportError(ValueError):
    """A module or an argument that the library cannot express."""


def read_record(directory):
    """The record of a model directory as {key: [words]}, or None without one."""
    path = os.path.join(directory, OPTIONS_FILE)
    if not os.path.isfile(path):
        return None
    record = {}
    with open(path) as f:
        for line in f:
            words = line.split()
            if words and not words[0].startswith("#"):
                record[words[0]] = words[1:]
    return record


def _is_model_file(entry):
    return entry.endswith(".npy") or entry == "_MODEL_INFO_" or entry == OPTIONS_FILE


def _check_replaceable(directory):
    """Refuses to replace a directory that holds something an export did not
    write: replacing deletes the old entries, so a wrong path must not cost
    the user their files."""
    if not os.path.exists(directory):
        return
    if not os.path.isdir(directory) or os.path.islink(directory):
        raise ExportError(f"{directory} exists and is not a directory; pass the path of a model directory")
    known = set((read_record(directory) or {}).get("files", []))
    strangers = sorted(e for e in os.listdir(directory)
                       if not (e in known or _is_model_file(e))
                       or not os.path.isfile(os.path.join(directory, e)))
    if strangers:
        raise ExportError(f"{directory} holds {', '.join(strangers)}, which no export wrote; the exporter "
                          "replaces the whole directory, so move them away or pass another directory")


class AtomicDirectory:
    """A directory being written; commit() puts it in place, discard() drops it."""

    def __init__(self, directory):
        self.directory = os.path.abspath(directory)
        _check_replaceable(self.directory)
        parent, base = os.path.split(self.directory)
        os.makedirs(parent, exist_ok=True)
        self.staging = tempfile.mkdtemp(prefix=f".{base}.", suffix=".partial", dir=parent)
        umask = os.umask(0)  # mkdtemp makes it private; the model directory is not
        os.umask(umask)
        os.chmod(self.staging, 0o777 & ~umask)
        self.files = []

    @property
    def open(self):
        return self.staging is not None

    def path(self, entry):
        if self.staging is None:
            raise ExportError(f"{self.directory} is closed; write every layer before close()")
        self.files.append(entry)
        return os.path.join(self.staging, entry)

    def commit(self, record):
        """Writes the record (key -> words, in order) and renames into place."""
        lines = [_RECORD_HEAD]
        for key, words in record.items():
            if words:
                lines.append(" ".join([key] + list(words)) + "\n")
        lines.append(" ".join(["files"] + sorted(self.files)) + "\n")
        with open(os.path.join(self.staging, OPTIONS_FILE), "w") as f:
            f.write("".join(lines))
        _check_replaceable(self.directory)  # it may have changed meanwhile
        old = None
        if os.path.exists(self.directory):
            old = tempfile.mkdtemp(prefix=f".{os.path.basename(self.directory)}.", suffix=".old",
                                   dir=os.path.dirname(self.directory))
            os.rename(self.directory, os.path.join(old, "model"))
        os.rename(self.staging, self.directory)
        self.staging = None
        if old:
            shutil.rmtree(old)

    def discard(self):
        if self.staging is not None:
            shutil.rmtree(self.staging, ignore_errors=True)
            self.staging = None

    def __del__(self):
        if getattr(self, "staging", None) is not None and self.files:
            print(f"kelvane_export: {self.directory} was not written: call close() on the writer "
                  "or use it in a with statement", file=sys.stderr)
            self.discard()
