#!/bin/sh
# build_test.sh CASE DIR
# Builds the project in DIR in another way than the surrounding build does and looks at the result.
set -eu
: "${CMAKE:=cmake}"
export LC_ALL=C
here=$(cd "$(dirname "$0")" && pwd)
source=$(dirname "$(dirname "$here")")
dir=$2
mkdir -p "$dir"

ca='basicConstraints = critical, CA:TRUE'
usage='keyUsage = keyCertSign, cRLSign'

fail()
{
    printf '%s\n' "$@"
    exit 1
}

# configure SOURCE OPTION...: leaves in $said what CMake prints, on one line, since CMake wraps its messages.
configure()
{
    from=$1
    shift
    configured=0
    "$CMAKE" -S "$from" -B "$dir/build" -DCMAKE_BUILD_TYPE=Release "$@" >"$dir/log" 2>&1 || configured=$?
    said=$(tr -s ' \n' ' ' <"$dir/log")
}

build()
{
    configure "$@"
    [ $configured = 0 ] || fail "$said"
    "$CMAKE" --build "$dir/build"
}

# key NAME: made once, since it takes a while.
key()
{
    [ -e "$dir/$1.key" ] ||
        openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out "$dir/$1.key" 2>/dev/null
}

# certificate NAME EXTENSION...: NAME.pem, self-signed with own.key.
certificate()
{
    name=$1
    shift
    {
        printf '[req]\nprompt = no\ndistinguished_name = subject\nx509_extensions = root\n'
        printf '[subject]\nCN = TEST ONLY %s\n[root]\n' "$name"
        printf '%s\n' "$@"
    } >"$dir/$name.cnf"
    key own
    openssl req -x509 -config "$dir/$name.cnf" -key "$dir/own.key" -out "$dir/$name.pem"
}

# issued NAME SUBJECT: NAME.pem, a CA for other.key below root.pem.
issued()
{
    printf '%s\n%s\n' "$ca" "$usage" >"$dir/extensions"
    key other
    openssl req -new -config "$dir/root.cnf" -subj "$2" -key "$dir/other.key" |
        openssl x509 -req -CA "$dir/root.pem" -CAkey "$dir/own.key" -extfile "$dir/extensions" -out "$dir/$1.pem" \
            2>/dev/null
}

# says_no_crl COMMAND: a consumer takes the root for its CRL file, and so comes to the library's refusal of a file
# without CRL.
says_no_crl()
{
    output=$("$@" "$dir/root.pem" "$dir/root.pem" "$dir/root.pem" "$dir/root.pem") || true
    [ "$output" = "refused: code 0x88200102, result 0" ] || fail "$*: $output"
}

# find_package_consumer KINDS: configures a C project on the library of that kind, or the first of several, in
# $dir/prefix.
find_package_consumer()
{
    mkdir -p "$dir/consumer"
    cat >"$dir/consumer/CMakeLists.txt" <<END
cmake_minimum_required(VERSION 3.22)
project(consumer LANGUAGES C)
find_package(cmsverify 1.0 REQUIRED COMPONENTS $1)
add_executable(consumer "$dir/prefix/share/doc/cmsverify/examples/verify_files.c")
set_target_properties(consumer PROPERTIES LINKER_LANGUAGE C)
target_link_libraries(consumer PRIVATE cmsverify::cmsverify)
END
    "$CMAKE" --fresh -S "$dir/consumer" -B "$dir/consumer/build" -DCMAKE_PREFIX_PATH="$dir/prefix"
}

# find_package_serves KIND LIBRARIES: the consumer builds, runs, and loads these.
find_package_serves()
{
    find_package_consumer "$1"
    "$CMAKE" --build "$dir/consumer/build"
    says_no_crl "$dir/consumer/build/consumer"
    "$here/check_binary.sh" libraries "$2" "$dir/consumer/build/consumer"
}

# pkg_config_consumer OPTION...
pkg_config_consumer()
{
    flags=$(PKG_CONFIG_PATH="$dir/prefix/lib/pkgconfig" pkg-config --cflags --libs "$@" cmsverify)
    # shellcheck disable=SC2086 # one word for each flag
    ${CC:-cc} "$dir/prefix/share/doc/cmsverify/examples/verify_files.c" $flags -o "$dir/pkg_config_consumer"
    LD_LIBRARY_PATH=$dir/prefix/lib says_no_crl "$dir/pkg_config_consumer"
}

# install: into a prefix that is moved afterwards, since packages are not built where they end up.
install()
{
    certificate root "$ca" "$usage"
    rm -rf "$dir/first" "$dir/prefix"
    "$CMAKE" --install "$dir/build" --prefix "$dir/first"
    mv "$dir/first" "$dir/prefix"
}

shared_library()
{
    build "$source" -DBUILD_SHARED_LIBS=ON -DCMAKE_SHARED_LINKER_FLAGS=-Wl,-z,defs -DCMAKE_INSTALL_LIBDIR=lib
    "$here/check_binary.sh" exports "$here/exported_symbols.txt" "$dir/build/libcmsverify.so"
    "$here/check_binary.sh" libraries "libc libcmsverify libcrypto libsafec" "$dir/build/pkgcheck"

    install
    [ ! -e "$dir/prefix/include/pelnic_cms_witness.h" ] || fail "the header of CMSVERIFY_WITNESS is installed"
    "$here/check_binary.sh" soname libcmsverify.so.1 "$dir/prefix/lib/libcmsverify.so.1.0.0"
    # In there, since the checker takes short paths only.
    (cd "$dir/prefix" && LD_LIBRARY_PATH=lib bin/pkgcheck bin/pkgcheck) | grep -q '^Error: Check cms fail'
    find_package_serves shared "libc libcmsverify libcrypto libsafec"
    find_package_serves static "libc libcrypto libsafec"
    find_package_serves "shared static" "libc libcmsverify libcrypto libsafec"
    find_package_serves "static shared" "libc libcrypto libsafec"
    pkg_config_consumer
    pkg_config_consumer --static

    # The examples as a project of their own.
    "$CMAKE" --fresh -S "$dir/prefix/share/doc/cmsverify/examples" -B "$dir/examples" \
        -DCMAKE_PREFIX_PATH="$dir/prefix"
    "$CMAKE" --build "$dir/examples"
    printf 0123456789 >"$dir/digits"
    "$dir/examples/check_callbacks" "$dir/digits"

    # The same as Debian packages, which name what they need.
    "$CMAKE" --build "$dir/build" --target package
    rm -rf "$dir/root"
    for name in libcmsverify1 libcmsverify-dev pkgcheck; do
        dpkg-deb -x "$dir/build/$name"_1.0.0-1_*.deb "$dir/root"
    done
    dpkg-deb -f "$dir"/build/pkgcheck_*.deb Depends | grep -q '^libcmsverify1 (= 1.0.0-1), libc6 .*, libsafec3 '
    dpkg-deb -I "$dir"/build/libcmsverify1_*.deb shlibs | grep -qx 'libcmsverify 1 libcmsverify1 (>= 1.0.0)'
    dpkg-deb -I "$dir"/build/libcmsverify1_*.deb triggers | grep -qx 'activate-noawait ldconfig'
    dpkg-deb -f "$dir"/build/pkgcheck_*.deb Description | grep -q 'placeholder root certificate'
    for name in libcmsverify1 libcmsverify-dev pkgcheck; do
        doc=$dir/root/usr/share/doc/$name
        grep -q 'No licence has been granted yet' "$doc/copyright"
        gzip -dc "$doc/changelog.Debian.gz" | head -n 1 | grep -q '^cmsverify (1.0.0-1) '
        gzip -dc "$doc/changelog.gz" | grep -q '^## 1.0.0'
        rm -r "$doc"
    done
    rm -r "$dir/root/usr/share/lintian"
    gzip -d "$dir"/root/usr/share/man/man?/*.gz
    (cd "$dir/root/usr" && find . -type f) | sort >"$dir/packaged"
    (cd "$dir/prefix" && find . -type f) | sort | diff - "$dir/packaged"
}

static_library()
{
    build "$source" -DCMAKE_INSTALL_LIBDIR=lib
    install
    pkg_config_consumer
    "$here/check_binary.sh" libraries "libc libcrypto libsafec" "$dir/pkg_config_consumer"
    find_package_serves static "libc libcrypto libsafec"
    if find_package_consumer shared >"$dir/log" 2>&1; then fail "there is no shared library, and it was found"; fi
    grep -qF "There is no library of the kind 'shared'." "$dir/log"
}

# Linked with no undefined symbol left, and configured where neither OpenSSL nor pkg-config can be found.
no_default_callbacks()
{
    build "$source" -DCMSVERIFY_DEFAULT_CALLBACKS=OFF -DBUILD_SHARED_LIBS=ON -DCMAKE_SHARED_LINKER_FLAGS=-Wl,-z,defs \
        -DCMAKE_DISABLE_FIND_PACKAGE_OpenSSL=ON -DCMAKE_DISABLE_FIND_PACKAGE_PkgConfig=ON
    grep -vx pelnic_set_callback_funcs "$here/exported_symbols.txt" >"$dir/exports"
    "$here/check_binary.sh" exports "$dir/exports" "$dir/build/libcmsverify.so"
    [ ! -e "$dir/build/pkgcheck" ] || fail "a checker was built"
}

placeholder_notice()
{
    configure "$source" -DPKGCHECK_ROOT_CERT=
    case $said in
        *"PKGCHECK_ROOT_CERT is not set: pkgcheck gets the placeholder root certificate"*) ;;
        *) fail "no notice" "$said" ;;
    esac
    grep -oE '0x[0-9a-f]{2}' "$dir/build/pkgcheck_root.cpp" | sed 's/0x//' | xargs >"$dir/embedded"
    od -An -v -tx1 "$source/tool/placeholder_root.der" | xargs >"$dir/placeholder"
    cmp "$dir/embedded" "$dir/placeholder"
    [ "$(wc -w <"$dir/embedded")" = 1363 ] || fail "not 1363 octets"
}

user_flags()
{
    build "$source" -DCMAKE_CXX_FLAGS=-fsanitize=address,undefined
    for file in libcmsverify.a pkgcheck; do
        # Not nm, which shows of objects for link-time optimisation what the linker will see.
        readelf -sW "$dir/build/$file" >"$dir/symbols"
        grep -q __asan_init "$dir/symbols" || fail "$file is not sanitized"
        grep -q __ubsan_handle "$dir/symbols" || fail "$file is not sanitized"
    done
}

# refused FILE REASON
refused()
{
    configure "$source" "-DPKGCHECK_ROOT_CERT=$dir/$1"
    [ $configured != 0 ] || fail "$1 was accepted"
    case $said in
        *"Root certificate '$dir/$1': $2."*) ;;
        *) fail "$1: not '$2'" "$said" ;;
    esac
}

root_errors()
{
    certificate root "$ca" "$usage"
    certificate not_a_ca 'basicConstraints = CA:FALSE' "$usage"
    certificate no_constraints "$usage"
    certificate no_cert_sign "$ca" 'keyUsage = cRLSign'
    certificate no_crl_sign "$ca" 'keyUsage = keyCertSign'
    certificate no_usage "$ca"
    issued intermediate "/CN=TEST ONLY intermediate"
    issued same_name "/CN=TEST ONLY root"
    openssl x509 -in "$dir/root.pem" -outform DER -out "$dir/root.der"
    head -c 300 "$dir/root.der" >"$dir/cut.der"
    echo "no certificate" >"$dir/text"

    refused missing.pem "no such file"
    refused text "not a certificate in DER or PEM"
    refused cut.der "not a certificate in DER or PEM"
    refused own.key "not a certificate in DER or PEM"
    refused intermediate.pem "not self-signed"
    refused same_name.pem "not self-signed"
    refused not_a_ca.pem "not a CA (basic constraints)"
    refused no_constraints.pem "not a CA (basic constraints)"
    refused no_cert_sign.pem "key usage without keyCertSign"
    refused no_usage.pem "key usage without keyCertSign"
    refused no_crl_sign.pem "key usage without cRLSign"

    for form in pem der; do
        configure "$source" "-DPKGCHECK_ROOT_CERT=$dir/root.$form"
        [ $configured = 0 ] || fail "root.$form was refused" "$said"
    done
}

# The project inside another one, which adds a checker with a root of its own.
root_variant()
{
    certificate root "$ca" "$usage"
    cat >"$dir/CMakeLists.txt" <<END
cmake_minimum_required(VERSION 3.22)
project(variant LANGUAGES C CXX)
add_subdirectory("$source" cmsverify)
add_pkgcheck(other_checker "$dir/root.pem")
END
    build "$dir"
    # No checker of its own, no word about one, and no tests.
    [ ! -e "$dir/build/cmsverify/pkgcheck" ] || fail "the subproject's checker was built"
    case $said in *PKGCHECK_ROOT_CERT*) fail "a notice" "$said" ;; esac
    [ ! -e "$dir/build/cmsverify/CTestTestfile.cmake" ] || fail "the subproject has tests"
    status=0
    "$dir/build/other_checker" || status=$?
    [ $status = 234 ] || fail "status $status without an argument"
    openssl x509 -in "$dir/root.pem" -outform DER | od -An -v -tx1 | tr -d ' \n' >"$dir/root.hex"
    od -An -v -tx1 "$dir/build/other_checker" | tr -d ' \n' | grep -qFf "$dir/root.hex" || fail "the root is not inside"
}

# As a shared library too, which hides what the strict checker reads signatures with.
strict()
{
    printf '%0352d' 0 | sed 's/0/\x00/g' >"$dir/package"
    printf '\001' | dd of="$dir/package" bs=1 seek=19 conv=notrunc 2>/dev/null
    for shared in OFF ON; do
        build "$source" -DPKGCHECK_STRICT=ON -DBUILD_SHARED_LIBS=$shared
        status=0
        (cd "$dir" && build/pkgcheck package >said) || status=$?
        [ $status = 253 ] || fail "status $status for an unsigned package" "$(cat "$dir/said")"
    done
}

# Contexts on several threads, with ThreadSanitizer, which wants a program's addresses where they always are.
threads()
{
    printf 'called_from_lib:libcrypto.so\n' >"$dir/suppressions" # not instrumented
    configure "$source" -DCMSVERIFY_BUILD_TESTS=ON -DCMAKE_CXX_FLAGS='-g -fsanitize=thread'
    [ $configured = 0 ] || fail "$said"
    "$CMAKE" --build "$dir/build" --target threads
    TSAN_OPTIONS="suppressions=$dir/suppressions" setarch -R "$dir/build/tests/threads"
}

instructions()
{
    valgrind --tool=callgrind --callgrind-out-file=/dev/null "$@" 2>&1 | sed -n 's/.*Collected : //p'
}

# decoding KIND FILE PARTS: instructions for each part of a file that is decoded and freed.
decoding()
{
    once=$(instructions "$counts" decode "$1" "$dir/$2" 1)
    thrice=$(instructions "$counts" decode "$1" "$dir/$2" 3)
    echo $(((thrice - once) / 2 / $3))
}

# at_most NAME FIGURE CEILING
at_most()
{
    printf '%-45s %10s of %s\n' "$1" "$2" "$3"
    [ "$2" -le "$3" ] || too_much="$too_much $1"
}

# A library that reports why it refuses: one symbol and one header more, and an example.
witness()
{
    build "$source" -DBUILD_SHARED_LIBS=ON -DCMSVERIFY_WITNESS=ON -DCMAKE_INSTALL_LIBDIR=lib
    sort "$here/exported_symbols.txt" - <<END >"$dir/symbols"
pelnic_set_witness
END
    "$here/check_binary.sh" exports "$dir/symbols" "$dir/build/libcmsverify.so"
    install
    cc -std=c11 -Wall -Wextra -Werror -I"$dir/prefix/include" "$source/examples/verify_why.c" -L"$dir/prefix/lib" \
        -lcmsverify -o "$dir/verify_why"
    output=$(LD_LIBRARY_PATH=$dir/prefix/lib "$dir/verify_why" "$dir/root.pem" "$dir/root.pem" x x) || true
    case $output in
    "reason 0102"*"
refused: code 0x88200102, result 0") ;;
    *) fail "verify_why: $output" ;;
    esac
}

# Counts, not times, which are the same on a busy machine. A ceiling is 3 % above the figure when it was written.
counts()
{
    configure "$source" -DCMSVERIFY_BUILD_TESTS=ON
    [ $configured = 0 ] || fail "$said"
    "$CMAKE" --build "$dir/build" --target counts pkgcheck_test_root
    counts=$dir/build/tests/counts
    check=$dir/build/tests/pkgcheck_test_root
    too_much=
    "$counts" make "$dir"
    at_most "instructions for a CRL entry" "$(decoding crl crl 1000)" 1012
    at_most "instructions for a CRL entry with a reason" "$(decoding crl crl_reasons 1000)" 2676
    at_most "instructions for a certificate" "$(decoding certificate certificate 1)" 39938
    at_most "instructions of a check of 16 octets" "$(instructions "$check" "$dir/package")" 12898000
    at_most "allocations of that check" \
        "$(valgrind "$check" "$dir/package" 2>&1 | sed -n 's/,//g; s/.*total heap usage: \([0-9]*\) allocs.*/\1/p')" 3057
    small=$("$counts" faults "$check" "$dir/package")
    at_most "page faults of that check" "$small" 301
    if grep -q '\[never\]' /sys/kernel/mm/transparent_hugepage/enabled 2>/dev/null; then
        echo "no huge pages here"
    else
        at_most "page faults for 16 MiB more" "$(($("$counts" faults "$check" "$dir/large") - small))" 535
    fi
    [ -z "$too_much" ] || fail "too much:$too_much"
    mbedtls
}

# The checker on the other crypto library: what it loads, and its verdicts on the package of the counts.
mbedtls()
{
    "$CMAKE" -S "$source" -B "$dir/mbedtls" -DCMAKE_BUILD_TYPE=Release -DCMSVERIFY_CRYPTO=mbedtls \
        "-DPKGCHECK_ROOT_CERT=$source/tests/data/test_root.der"
    "$CMAKE" --build "$dir/mbedtls" --target pkgcheck
    "$here/check_binary.sh" libraries "libc libmbedcrypto libsafec" "$dir/mbedtls/pkgcheck"
    "$here/check_binary.sh" core_calls_nothing_else "$dir/mbedtls/libcmsverify.a"
    "$CMAKE" -S "$source" -B "$dir/mbedtls_packages" -DCMSVERIFY_CRYPTO=mbedtls -DBUILD_SHARED_LIBS=ON
    grep 'PACKAGE_DEPENDS' "$dir/mbedtls_packages/CPackConfig.cmake" >"$dir/depends"
    grep -q libmbedcrypto7 "$dir/depends" || fail "the packages do not depend on mbedTLS"
    ! grep -q libssl "$dir/depends" || fail "the packages depend on OpenSSL"
    cp "$dir/package" "$dir/altered"
    printf X | dd of="$dir/altered" bs=1 seek=352 conv=notrunc 2>/dev/null # the first octet of the payload
    cd "$dir"
    mbedtls/pkgcheck package || fail "a good package is refused"
    ! mbedtls/pkgcheck altered >said || fail "an altered package is accepted"
    [ "$(cat said)" = "Check cms file fail for file(err 0xffffffff)" ] || fail "$(cat said)"
}

"$1"
