#!/usr/bin/env python3
"""Places that a change forgets, where nothing else would fail: what the code has, the documents and fuzzers must have."""
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
missing = []


def read(path):
    return (ROOT / path).read_text()


def want(names, place):
    text = read(place)
    missing.extend(f"{place} lacks {name}" for name in names if name not in text)


extensions = re.findall(r"{AOID_CE_(\w+), &", read("cmsverify/pelnic_x509_parse.cpp"))
want([f"AOID_CE_{name}," for name in extensions], "tests/modules/pelnic_x509_parse_test.cpp")
for tables in ("x509", "cms"):
    items = re.findall(r"^PNV_DECLARE_ITEM\((\w+),", read(f"cmsverify/pelnic_{tables}_templ.h"), re.M)
    want(items, f"tests/modules/pelnic_{tables}_templ_test.cpp")
fuzzed = read("fuzz/extension.cpp").upper()
missing.extend(f"fuzz/extension.cpp lacks AOID_CE_{name}" for name in extensions
               if f"OID::{name}" not in fuzzed and f"OID::{name.rstrip('S')}" not in fuzzed)

codes = re.findall(r"^#define (PELNIC_ERR_\w+) ", read("cmsverify/include/pelnic_cms_verify.h"), re.M)
want([f"static_assert({code} ==" for code in codes], "tests/modules/interface_layout_test.cpp")

# A refusal is a sentence, and the only strings with a space; no package leads to the last one, which is lack of memory.
strict = re.sub(r"//.*|#include.*", "", read("tool/rules_strict.cpp"))
refusals = [text for text in re.findall(r'"([^"\n]+)"', strict) if " " in text]
want([f"`Strict: {refusal}`" for refusal in refusals], "docs/package-format.md")
missing.extend(f"tool/rules_strict.cpp lacks the refusal {text}, which docs/package-format.md has"
               for text in re.findall(r"`Strict: ([^`]+)`", read("docs/package-format.md")) if text not in refusals)
want([f'"{text}"' for text in refusals if text != "the signature cannot be read again"],
     "tests/programs/pkgcheck_strict_test.cpp")

word = r'"([a-z]+(?:-[a-z]+)+)"'
kinds = set(re.findall(word, read("pkgtool/diagnosis.cpp") + read("pkgtool/chain.cpp")))
want([f"`{kind}`" for kind in sorted(kinds)], "docs/explain.md")
explained = read("tests/programs/pkgtool_explain_test.cpp") + read("tests/sweeps/explained.cpp")
missing.extend(f"tests/programs/pkgtool_explain_test.cpp lacks {kind}" for kind in sorted(kinds)
               if f'"{kind}"' not in explained)
findings = set(re.findall(word, read("pkgtool/lint_rules.cpp")))
want([f"| `{finding}` |" for finding in sorted(findings)], "docs/pkgtool.md")
want([f'"{finding}' for finding in sorted(findings)], "tests/programs/pkgtool_lint_test.cpp")

targets = re.findall(r'^        \{"(\w+)"', read("fuzz/targets.cpp") + read("fuzz/pkgtool.cpp"), re.M)
want([f"| `{target}` |" for target in targets], "fuzz/README.md")

options = re.findall(r"^(?:option|set(?=.* CACHE ))\(((?:CMSVERIFY|PKGCHECK)_\w+) ", read("CMakeLists.txt"), re.M)
want([f"`{option}`" for option in options], "docs/building.md")

print("\n".join(missing) or f"{len(codes)} codes, {len(extensions)} extensions, {len(refusals)} strict refusals, "
      f"{len(kinds)} kinds of failure, {len(findings)} findings, {len(targets)} fuzzers, {len(options)} options: "
      "all in their places")
sys.exit(bool(missing))
