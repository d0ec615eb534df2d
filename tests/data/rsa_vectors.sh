#!/bin/sh
# Writes rsa_vectors.inc: RSA signatures by the openssl command over the fixed test keys. Nothing in them is random, so
# a second run writes the same file. Usage: rsa_vectors.sh > rsa_vectors.inc
set -eu
cd "$(dirname "$0")"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

hex() { od -An -v -tx1 "$@" | tr -d ' \n'; }
unhex() { perl -e 'print pack "H*", shift' "$1"; }
constant() { # name, file
    printf 'constexpr std::string_view %s =\n' "$1"
    hex "$2" | fold -w 112 | sed -e 's/.*/    "&"/' -e '$s/$/;/'
    echo
}
key_file() {
    case $1 in
    1024 | 1032 | 2048-e*) echo "TEST-ONLY-rsa$1.pem" ;;
    2048) echo ../support/test_keys/TEST-ONLY-rsa2048-a.pem ;;
    *) echo "../support/test_keys/TEST-ONLY-rsa$1.pem" ;;
    esac
}
repeat() { perl -e 'print $ARGV[0] x $ARGV[1]' "$1" "$2"; }

# The message of every vector but the short one.
printf abc >"$work/message"
sign() { openssl dgst "-sha$2" -sign "$1" -out "$3" "$4"; } # key, bits, signature, message
raw() { openssl pkeyutl -decrypt -inkey "$(key_file 2048)" -pkeyopt rsa_padding_mode:none -in "$1" -out "$2"; }

echo '// Written by rsa_vectors.sh: moduli of the test keys and their signatures over "abc", in hexadecimal.'
for bits in 1024 2048 3072 4096 1032 2048-e3 2048-e4294967297; do
    key=$(key_file "$bits")
    name=$(echo "$bits" | sed s/-e/E/)
    modulus=$(openssl rsa -in "$key" -noout -modulus)
    unhex "${modulus#Modulus=}" >"$work/modulus"
    constant "kModulus$name" "$work/modulus"
    hashes="256 384 512"
    case $bits in 1032 | *-e*) hashes=256 ;; esac
    for hash in $hashes; do
        sign "$key" "$hash" "$work/signature" "$work/message"
        constant "kSignature${name}Sha$hash" "$work/signature"
    done
done

key=$(key_file 2048)
echo '// Blocks of 2048 bits with the right digest in the wrong clothes.'
openssl dgst -sha256 -binary -out "$work/digest" "$work/message"
digest=$(hex "$work/digest")
digest_info=3031300d060960864801650304020105000420$digest

openssl pkeyutl -sign -inkey "$key" -in "$work/digest" -out "$work/signature" -pkeyopt digest:sha256 \
    -pkeyopt rsa_padding_mode:pss -pkeyopt rsa_pss_saltlen:0 -pkeyopt rsa_mgf1_md:sha256
constant kPaddedAsPss "$work/signature"

block() { # name, hexadecimal of the whole block
    unhex "$2" >"$work/block"
    raw "$work/block" "$work/signature"
    constant "$1" "$work/signature"
}
block kPaddedAsGarbage "$(repeat 5a 256)"
block kPaddedForEncryption "0002$(repeat ff 202)00$digest_info"
block kBareDigest "0001$(repeat ff 221)00$digest"
block kTrailingGarbage "0001$(repeat ff 8)00$digest_info$(repeat 00 194)"
block kUnpadded "$(repeat 00 205)$digest_info"

echo '// The first of "short signature 0", "short signature 1", ... whose signature begins with a zero octet.'
n=0
while :; do
    printf 'short signature %d' "$n" >"$work/message"
    sign "$key" 256 "$work/signature" "$work/message"
    [ "$(hex -N1 "$work/signature")" = 00 ] && break
    n=$((n + 1))
done
printf 'constexpr std::string_view kShortMessage = "%s";\n' "$(cat "$work/message")"
tail -c +2 "$work/signature" >"$work/short"
constant kShortSignature "$work/short"
