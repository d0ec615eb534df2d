#!/usr/bin/env python3
"""tests/programs/where_codes.py [--write]
Holds docs/inside.md against the sources: the table of the functions that decide each code, which --write makes anew,
every code, file and function that the text names, and the layers of the modules, of which no include runs up."""
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
PAGE = ROOT / "docs/inside.md"
BEGIN = "<!-- made by tests/programs/where_codes.py --write -->\n"
END = "<!-- end -->\n"
MANY = 15
SOURCES = sorted(ROOT.glob("cmsverify/*.cpp"))
FUNCTION = re.compile(r"^(?!using|struct|constexpr|typedef|static_assert)[A-Za-z_\[][^=;]*?\b(\w+)\(")
COMPARED = re.compile(r"[!=]= PELNIC_ERR_\w+")


def codes():
    header = (ROOT / "cmsverify/include/pelnic_cms_verify.h").read_text()
    return dict(re.findall(r"#define (PELNIC_ERR_\w+) (0x[0-9A-Fa-f]{8})u", header))


def deciders():
    """The functions that name each code other than to compare with it, in the order of the sources."""
    found = {name: [] for name in codes()}
    for source in SOURCES:
        function = None
        for line in source.read_text().splitlines():
            match = FUNCTION.match(line)
            if match:
                function = match.group(1)
            if "PNV_TELL(" in line:  # says what another line decides
                continue
            for name in re.findall(r"PELNIC_ERR_\w+", COMPARED.sub("", line.split("//")[0])):
                place = f"`{function or 'table'}` ({source.stem})"
                if name in found and place not in found[name]:
                    found[name].append(place)
    return found


def table():
    rows = ["| Code | Name | Decided in |", "|---|---|---|"]
    for name, places in deciders().items():
        if len(places) > MANY:
            places = [f"{len(places)} functions: null arguments, failing callbacks, values that differ"]
        rows.append(f"| {codes()[name]} | `{name}` | {', '.join(places) or 'no function: reserved'} |")
    return "\n".join(rows) + "\n"


def unknown_names(text):
    """What stands in backquotes and is neither a code, a file nor a name in the sources."""
    everything = "".join(p.read_text() for p in [*SOURCES, *ROOT.glob("cmsverify/**/*.h"), *ROOT.glob("tool/*.cpp")])
    for name in sorted(set(re.findall(r"`(PELNIC_ERR_\w+|_?[a-z]\w*[A-Z_]\w*)`", text))):
        if not re.search(rf"\b{re.escape(name)}\b", everything) and not list(ROOT.glob(f"*/{name}.*")):
            yield name
    for path in sorted(set(re.findall(r"`((?:cmsverify|tool|tests|docs)/[\w./*<>-]+)`", text))):
        if "<" not in path and not list(ROOT.glob(path.rstrip("/") + "*")):
            yield path


def includes_that_run_up(text):
    rows = re.findall(r"^\| (`.*`) \| .* \| ([\w.]+) \|$", text.split("## Modules")[1].split("##")[0], re.M)
    layers = list(dict.fromkeys(layer for _, layer in rows))
    layer_of = {name.split("/")[-1]: layers.index(layer) for names, layer in rows for name in re.findall(r"`(.*?)`", names)}
    for path in [*SOURCES, *sorted(ROOT.glob("cmsverify/*.h"))]:
        if path.stem not in layer_of:
            yield f"{path.name} is not among the modules of docs/inside.md"
            continue
        for name in re.findall(r'#include "(?:\w+/)*(\w+)\.h"', path.read_text()):
            # The witness is told by all layers.
            if layer_of.get(name, 0) > layer_of[path.stem] and name != "pelnic_witness":
                yield f"{path.name} includes {name}.h of a higher layer"


def main():
    text = PAGE.read_text()
    before, rest = text.split(BEGIN)
    wanted = before + BEGIN + table() + END + rest.split(END)[1]
    if "--write" in sys.argv:
        PAGE.write_text(wanted)
        return 0
    failures = [f"docs/inside.md names {name}, which is nowhere" for name in unknown_names(text)]
    failures += includes_that_run_up(text)
    if text != wanted:
        failures.append("docs/inside.md: the table of codes is old; run tests/programs/where_codes.py --write")
    print("\n".join(failures) or "docs/inside.md agrees with the sources")
    return 1 if failures else 0


sys.exit(main())
