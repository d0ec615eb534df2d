#!/usr/bin/python3
"""schema_test.py PKGTOOL

Every report of pkgtool is what packaging/pkgtool.schema.json says, and has no member that is not described there.
"""
import json
import pathlib
import struct
import subprocess
import sys
import tempfile

import jsonschema

pkgtool = sys.argv[1]
schema = json.loads((pathlib.Path(__file__).parents[2] / "packaging/pkgtool.schema.json").read_text())
jsonschema.Draft202012Validator.check_schema(schema)
used = set()
failed = False


def close(node):
    """Members may be added, but not without a line in the schema."""
    if isinstance(node, dict):
        if "properties" in node:
            node["additionalProperties"] = False
        for child in node.values():
            close(child)
    elif isinstance(node, list):
        for child in node:
            close(child)


close(schema["$defs"])


def run(*words):
    result = subprocess.run([pkgtool, *words], stdout=subprocess.PIPE, stderr=subprocess.PIPE, check=False)
    return result.returncode, result.stdout


def note_members(node, at):
    if isinstance(node, dict):
        for name, child in node.items():
            used.add(name)
            note_members(child, f"{at}/{name}")
    elif isinstance(node, list):
        for child in node:
            note_members(child, at)


def check(report, *words):
    global failed
    status, out = run(*words)
    if not out:
        print(f"{words} ends with {status} and no report")
        failed = True
        return
    for line in out.splitlines() if report == "verify" else [out]:
        document = json.loads(line)
        note_members(document, "")
        validator = jsonschema.Draft202012Validator({"$ref": f"#/$defs/{report}", "$defs": schema["$defs"]})
        for error in list(validator.iter_errors(document))[:3]:
            print(f"{words}: /{'/'.join(map(str, error.absolute_path))}: {error.message[:300]}")
            failed = True


def packages(directory):
    """A good one, and some that are cut, altered or not signed, in both forms."""
    good = (directory / "good").read_bytes()
    count = lambda number: good[:16] + struct.pack(">I", number) + good[20:]
    yield "one", count(1)
    yield "two", count(2)
    yield "cut", good[:-100]
    yield "short", good[:100]
    yield "empty-signature", good[:40] + struct.pack(">I", 0) + good[44:]
    payload, signature = struct.unpack(">I", good[28:32])[0], struct.unpack(">I", good[40:44])[0]
    for at in (0, 5, 30, 200, signature // 2, signature - 700, signature - 30):
        octets = bytearray(good)
        octets[352 + payload + at] ^= 0x20
        yield f"altered-{at}", bytes(octets)
    octets = bytearray(good)
    octets[352] ^= 1
    yield "payload", bytes(octets)


with tempfile.TemporaryDirectory() as name:
    directory = pathlib.Path(name)
    path = lambda file: str(directory / file)
    pki = lambda file: str(directory / "pki" / file)
    (directory / "image").write_bytes(b"firmware" * 100)
    assert run("pki", "new", path("pki"), "--key-bits", "2048")[0] == 0
    assert run("release", path("image"), "--pki", path("pki"), "-o", path("good"))[0] == 0
    root = ["--root", pki("root.pem")]
    for package, content in packages(directory):
        (directory / package).write_bytes(content)
    assert run("sign", path("image"), "--cert", pki("signer.pem"), "--key", pki("signer.key"), "--no-timestamp", "--pem",
               "-o", path("cms"))[0] == 0
    assert run("pki", "revoke", path("pki"), "ca", "--reason", "superseded")[0] == 0
    assert run("pack", "--unchecked", "--payload", path("image"), "--cms", path("cms"), "--crl", pki("root.crl"), "-o",
               path("pem"))[0] == 0
    assert run("renew-crls", path("good"), "--crl", pki("root.crl"), "--crl", pki("ca.crl"), "--crl", pki("tsa-ca.crl"),
               "-o", path("revoked"))[0] == 0
    files = [file.name for file in directory.iterdir() if file.is_file()]
    for file in sorted(set(files) - {"image", "cms"}):
        check("explain", "explain", "--json", path(file), *root)
        if file != "short":
            check("inspect", "inspect", "--json", path(file))
            check("lint", "lint", "--json", path(file), *root)
    check("verify", "verify", "--json", *root, *map(path, [*sorted(files), "missing"]))
    check("root", "root", "--json")
    check("root", "root", "--json", pki("root.pem"))
    check("code", "code", "--json", "CERT_VERIFY", "255", "Failed to alloc memory",
          "01100100882000098820001469580b8000000000000000000000000000000a0b")
    bundles = ["--root", pki("root.pem"), "--intermediate", pki("ca.pem")]
    check("crl_show", "crl", "show", "--json", *bundles, pki("root.crl"), pki("ca.crl"))
    check("crl_compare", "crl", "compare", "--json", *bundles, pki("root.crl"), pki("root.crl"))
    check("crl_compare", "crl", "compare", "--json", pki("root.crl"), pki("ca.crl"))


def members(node):
    if isinstance(node, dict):
        yield from node.get("properties", {})
        for child in node.values():
            yield from members(child)
    elif isinstance(node, list):
        for child in node:
            yield from members(child)


# The other way round: what no report here had may be a slip of the schema.
unseen = set(members(schema["$defs"])) - used
if unseen:
    print("in the schema and in no report:", *sorted(unseen))
    failed = True
sys.exit(failed)
