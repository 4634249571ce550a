"""Python classes for the P4Runtime messages, made from proto/ at the first run.

They are kept in a cache folder, so that later runs start at once.
"""

import hashlib
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile

PROTO_FOLDER = pathlib.Path(__file__).resolve().parents[2] / "proto"
INSTALL = "apt-get install protobuf-compiler protobuf-compiler-grpc python3-grpcio python3-protobuf"


def _cache_folder():
    if "KORVEL_STUBS_DIR" in os.environ:
        return pathlib.Path(os.environ["KORVEL_STUBS_DIR"])
    base = os.environ.get("XDG_CACHE_HOME") or pathlib.Path.home() / ".cache"
    return pathlib.Path(base) / "korvel"


def _fingerprint(compiler, files):
    """Other definitions, or another compiler, make other classes."""
    digest = hashlib.sha256(subprocess.check_output([compiler, "--version"]))
    for file in files:
        digest.update(file.read_bytes())
    return digest.hexdigest()[:16]


def _generate(compiler, plugin, files, folder):
    """Made aside and renamed: two first runs at once do not disturb each other."""
    folder.parent.mkdir(parents=True, exist_ok=True)
    made = tempfile.mkdtemp(dir=folder.parent)
    command = [compiler, f"-I{PROTO_FOLDER}", f"--python_out={made}", f"--grpc_python_out={made}",
               f"--plugin=protoc-gen-grpc_python={plugin}"]
    subprocess.run(command + [str(file) for file in files], check=True)
    try:
        os.rename(made, folder)
    except OSError:  # another run was faster
        shutil.rmtree(made)


def load():
    """Makes `from p4.v1 import p4runtime_pb2` work."""
    compiler = shutil.which("protoc")
    plugin = shutil.which("grpc_python_plugin")
    if compiler is None or plugin is None:
        sys.exit(f"protoc and its Python plugin for gRPC are missing; run: {INSTALL}")
    files = sorted(PROTO_FOLDER.rglob("*.proto"))
    folder = _cache_folder() / f"stubs-{_fingerprint(compiler, files)}"
    if not folder.exists():
        _generate(compiler, plugin, files, folder)
    sys.path.insert(0, str(folder))


try:
    import google.protobuf  # noqa: F401
    import grpc  # noqa: F401
except ImportError as missing:
    sys.exit(f"{missing}; run: {INSTALL} (and use /usr/bin/python3)")

load()
