#!/bin/sh
# demo/make-pki.sh DIR
# Makes a PKI with fresh keys below DIR, with the openssl command alone: a root, a CA below it, a signer, a timestamp
# authority, and a CRL of each CA. ca-revoked.crl is the CA's CRL after it revoked the signer. A root key in a plain
# file is for demonstrations only.
set -eu
umask 077
mkdir -p "$1"
cd "$1"
export ISSUER= # the CA at work, for openssl.cnf

# openssl tells much when all is well; it is shown when something is not.
exec 3>&2 2>openssl.log
trap '[ $? = 0 ] || cat openssl.log >&3' EXIT

cat >openssl.cnf <<'END'
[req]
distinguished_name = name
[name]

[root]
basicConstraints = critical,CA:TRUE
keyUsage = critical,keyCertSign,cRLSign
subjectKeyIdentifier = hash
[ca]
basicConstraints = critical,CA:TRUE,pathlen:0
keyUsage = critical,keyCertSign,cRLSign
[signer]
basicConstraints = CA:FALSE
keyUsage = critical,digitalSignature
extendedKeyUsage = codeSigning
[tsa]
basicConstraints = CA:FALSE
keyUsage = critical,digitalSignature
extendedKeyUsage = critical,timeStamping

[crl]
database = $ENV::ISSUER.index
crlnumber = $ENV::ISSUER.crlnumber
unique_subject = no
default_md = sha256
default_crl_days = 3650
crl_extensions = crl_extensions
[crl_extensions]
authorityKeyIdentifier = keyid
END

# certificate NAME BITS COMMON-NAME [OPTION...]: a key and its certificate, of the kind NAME, a section above.
certificate()
{
    name=$1 bits=$2 subject="/C=ZZ/O=Demo/CN=$3"
    shift 3
    openssl genpkey -quiet -algorithm RSA -pkeyopt "rsa_keygen_bits:$bits" -out "$name.key"
    openssl req -x509 -config openssl.cnf -extensions "$name" -sha256 -days 3650 -key "$name.key" -subj "$subject" \
        -out "$name.pem" "$@"
}

# as_ca ISSUER OPTION...: what only a CA's database can tell.
as_ca()
{
    ISSUER=$1
    shift
    openssl ca -batch -config openssl.cnf -name crl -cert "$ISSUER.pem" -keyfile "$ISSUER.key" "$@"
}

certificate root 4096 "Root"
certificate ca 3072 "Firmware CA" -CA root.pem -CAkey root.key
certificate signer 3072 "Firmware signer" -CA ca.pem -CAkey ca.key
certificate tsa 3072 "Timestamp authority" -CA ca.pem -CAkey ca.key

for name in root ca; do
    : >"$name.index"
    echo 01 >"$name.crlnumber"
    as_ca "$name" -gencrl -out "$name.crl"
done
as_ca ca -revoke signer.pem
as_ca ca -gencrl -out ca-revoked.crl
