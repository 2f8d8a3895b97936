"""Reading an archive back for bench/run: Python's zipfile and the installed
archivers, each compared file by file with a kept working directory."""

import os
import shutil
import subprocess
import tempfile


READERS = [
    ("unzip", ["unzip", "-q", "{archive}", "-d", "{out}"]),
    ("7-Zip", ["7z", "x", "-y", "-bd", "-o{out}", "{archive}"]),
    ("bsdtar", ["bsdtar", "-xf", "{archive}", "-C", "{out}"]),
]


def check_readers(archive, workdir):
    """Which installed readers accept the archive and read back every packed
    file byte-identical to the kept working directory's: [(reader, ok)]."""
    import zipfile
    expected = {}
    for name in os.listdir(workdir):
        if name.endswith(".txt"):
            with open(os.path.join(workdir, name), "rb") as f:
                expected[name] = f.read()

    def same(files):
        return len(files) == len(expected) and {os.path.basename(k): v for k, v in files.items()} == expected

    results = []
    with zipfile.ZipFile(archive) as z:
        results.append(("Python's zipfile", z.testzip() is None and same({i.filename: z.read(i) for i in z.infolist()})))
    for reader, argv in READERS:
        if shutil.which(argv[0]) is None:
            continue
        out = tempfile.mkdtemp(prefix="velextracta-readback-")
        try:
            done = subprocess.run([a.format(archive=archive, out=out) for a in argv], capture_output=True)
            files = {}
            for base, _, names in os.walk(out):
                for name in names:
                    with open(os.path.join(base, name), "rb") as f:
                        files[os.path.join(base, name)] = f.read()
            results.append((reader, done.returncode == 0 and same(files)))
        finally:
            shutil.rmtree(out)
    return results
