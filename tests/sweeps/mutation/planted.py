#!/usr/bin/env python3
"""Are mistakes in what the PKI remembers noticed by the model that remembers nothing?

Copies the project to a scratch directory, plants the mistakes below, builds the tests once, and runs the model's test
once for each: it must fail, and pass without any. Ends with 1 when a mistake passes, or has no place any more.

    tests/sweeps/mutation/planted.py SCRATCH
"""
import os
import pathlib
import shutil
import subprocess
import sys

HERE = pathlib.Path(__file__).resolve().parent
PROJECT = HERE.parent.parent.parent
MODULE = "cmsverify/pelnic_pki_impl.cpp"
PKIS = "3000"

# What is wrong, and each place of it: the text, and what stands there where WRONG is the mistake's turn.
PLANTED = [
    ("verdicts are remembered without their depth",
     [("const PNV_INT depth = ctx->curr_depth;",
       "const PNV_INT depth = WRONG && ctx->curr_depth > 0 ? 1 : ctx->curr_depth;")]),
    ("nothing is ever forgotten",
     [("if (run.isOutermost() || found.pVrf != ctx || found.nRun != run.number()) {",
       "if (found.pVrf != ctx || (!WRONG && (run.isOutermost() || found.nRun != run.number()))) {"),
      ("if (ctx->nVerificationsInProgress == 0) ++ctx->nVerification;",
       "if (!WRONG && ctx->nVerificationsInProgress == 0) ++ctx->nVerification;")]),
    ("one issuer of a certificate too many is noted as tried",
     [("PNV_TELL(Decision::Issuer, 0, cert, nullptr, candidate);\n        return candidate;",
       "PNV_TELL(Decision::Issuer, 0, cert, nullptr, candidate);\n        i += WRONG;\n        return candidate;")]),
    ("one issuer of a CRL too many is noted as tried",
     [("issuer = candidate;\n        return candidate;",
       "issuer = candidate;\n        i += WRONG;\n        return candidate;")]),
    ("CRLs are sorted the other way round",
     [("return scoreA > scoreB ? -1 : 1;", "return (scoreA > scoreB) != WRONG ? -1 : 1;")]),
    ("a CRL may chain to any root",
     [("if (_pnvFindCertRoot(ctx, issuer) != pCrtRoot) {",
       "if (_pnvFindCertRoot(ctx, issuer) != (WRONG ? _pnvFindCertRoot(ctx, issuer) : pCrtRoot)) {")]),
]


def plant(text):
    for number, (what, places) in enumerate(PLANTED):
        for right, wrong in places:
            if text.count(right) != 1:
                sys.exit(f"{what}: no place for it any more: {right}")
            text = text.replace(right, wrong.replace("WRONG", f"(pnvMutant() == {number})"))
    return text


def passes(scratch, mutant):
    environment = dict(os.environ, CMSVERIFY_MUTANT=str(mutant), CMSVERIFY_MODEL_PKIS=PKIS)
    return subprocess.run([scratch / "build/tests/cmsverify_tests", "--gtest_brief=1", "--gtest_filter=PkiModel.*"],
                          env=environment, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode == 0


def main():
    scratch = pathlib.Path(sys.argv[1]).resolve()
    tree = scratch / "tree"
    shutil.rmtree(tree, ignore_errors=True)
    shutil.copytree(PROJECT, tree, ignore=shutil.ignore_patterns("build", ".git", "corpus"))
    module = tree / MODULE
    module.write_text(plant(module.read_text()))
    subprocess.run(["cmake", "-S", tree, "-B", scratch / "build", "-G", "Ninja", "--compile-no-warning-as-error",
                    "-DCMAKE_BUILD_TYPE=Debug", "-DCMSVERIFY_BUILD_TESTS=ON",
                    f"-DCMAKE_CXX_FLAGS=-O1 -w -include {HERE}/mutation.h"], check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["cmake", "--build", scratch / "build", "--target", "cmsverify_tests"], check=True,
                   stdout=subprocess.DEVNULL)
    if not passes(scratch, -1):
        sys.exit("the model fails without any mistake")
    unnoticed = [what for number, (what, _) in enumerate(PLANTED) if passes(scratch, number)]
    for what in unnoticed:
        print(f"not noticed: {what}")
    print(f"{len(PLANTED)} mistakes in the PKI's memory, {len(PLANTED) - len(unnoticed)} noticed")
    sys.exit(1 if unnoticed else 0)


if __name__ == "__main__":
    main()
