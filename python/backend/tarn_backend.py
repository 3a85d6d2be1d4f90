"""A build backend for the tarn package that needs nothing but the standard
library, so that `pip install ./python` works without network access (pip
would otherwise fetch setuptools into its isolated build environment). The
package is pure Python: the wheel is the tarn/ directory and its metadata,
written straight into the directory pip names, so the source tree is left
as it was."""

import base64
import hashlib
import os
import re
import zipfile

HERE = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
TAG = "py3-none-any"


def _project():
    with open(os.path.join(HERE, "pyproject.toml"), encoding="utf-8") as f:
        text = f.read()
    try:
        import tomllib
        return tomllib.loads(text)["project"]
    except ImportError:  # before Python 3.11: the few fields used here
        table = text.split("[project]", 1)[1].split("\n[", 1)[0]
        fields = dict(re.findall(r'^(\w[\w-]*)\s*=\s*"([^"]*)"', table, re.M))
        deps = re.search(r"^dependencies\s*=\s*\[(.*?)\]", table, re.M | re.S)
        fields["dependencies"] = re.findall(r'"([^"]+)"', deps.group(1)) if deps else []
        return fields


def _metadata(project):
    lines = ["Metadata-Version: 2.1", "Name: %s" % project["name"],
             "Version: %s" % project["version"]]
    if project.get("description"):
        lines.append("Summary: %s" % project["description"])
    if project.get("requires-python"):
        lines.append("Requires-Python: %s" % project["requires-python"])
    lines += ["Requires-Dist: %s" % d for d in project.get("dependencies", [])]
    for extra, deps in project.get("optional-dependencies", {}).items():
        lines.append("Provides-Extra: %s" % extra)
        lines += ['Requires-Dist: %s; extra == "%s"' % (d, extra) for d in deps]
    return "\n".join(lines) + "\n"


def _dist_info(project):
    return "%s-%s.dist-info" % (project["name"], project["version"])


def _files():
    """(archive name, path) of the package's modules."""
    root = os.path.join(HERE, "tarn")
    for name in sorted(os.listdir(root)):
        if name.endswith(".py") and name != "_install.py":
            yield "tarn/" + name, os.path.join(root, name)


def _write_wheel(directory, entries):
    project = _project()
    info = _dist_info(project)
    entries = list(entries) + [
        (info + "/METADATA", _metadata(project).encode()),
        (info + "/WHEEL", ("Wheel-Version: 1.0\nGenerator: tarn_backend\n"
                           "Root-Is-Purelib: true\nTag: %s\n" % TAG).encode()),
    ]
    record = []
    for name, data in entries:
        digest = base64.urlsafe_b64encode(hashlib.sha256(data).digest()).rstrip(b"=")
        record.append("%s,sha256=%s,%d" % (name, digest.decode(), len(data)))
    record.append(info + "/RECORD,,")
    entries.append((info + "/RECORD", ("\n".join(record) + "\n").encode()))
    wheel = "%s-%s-%s.whl" % (project["name"], project["version"], TAG)
    with zipfile.ZipFile(os.path.join(directory, wheel), "w", zipfile.ZIP_DEFLATED) as z:
        for name, data in entries:
            z.writestr(zipfile.ZipInfo(name, (2020, 1, 1, 0, 0, 0)), data)
    return wheel


def _read(path):
    with open(path, "rb") as f:
        return f.read()


def get_requires_for_build_wheel(config_settings=None):
    return []


def get_requires_for_build_editable(config_settings=None):
    return []


def prepare_metadata_for_build_wheel(metadata_directory, config_settings=None):
    project = _project()
    info = os.path.join(metadata_directory, _dist_info(project))
    os.makedirs(info, exist_ok=True)
    with open(os.path.join(info, "METADATA"), "w", encoding="utf-8") as f:
        f.write(_metadata(project))
    return _dist_info(project)


prepare_metadata_for_build_editable = prepare_metadata_for_build_wheel


def build_wheel(wheel_directory, config_settings=None, metadata_directory=None):
    return _write_wheel(wheel_directory, [(n, _read(p)) for n, p in _files()])


def build_editable(wheel_directory, config_settings=None, metadata_directory=None):
    # A .pth line puts this source tree on the path: edits apply at once.
    return _write_wheel(wheel_directory, [("tarn_editable.pth", (HERE + "\n").encode())])
