#!/bin/bash
# page_test.sh PKGTOOL DIR
# The pages of pkgtool explain --html in a browser: each shows what its file holds, no more, and prints. The screenshots
# stay in DIR to be looked at. Needs Debian's chromium, so it belongs to the long forms.
set -eu
pkgtool=$(realpath "$1")
mkdir -p "$2"
dir=$(realpath "$2")
cd "$dir"
rm -rf pki ./*.pkg ./*.html ./*.png ./*.pdf

browser()
{
    chromium --headless --no-sandbox --disable-gpu --user-data-dir="$dir/profile" --window-size=1000,2600 "$@" 2>/dev/null
}

head -c 5000 /dev/zero >image.bin
"$pkgtool" pki new pki --name '<script>document.title = 1</script> & "Co"' >/dev/null
"$pkgtool" release image.bin --pki pki -o good.pkg >/dev/null
cp good.pkg altered.pkg
printf x | dd of=altered.pkg bs=1 seek=400 conv=notrunc status=none
cp -R pki revoked # after the timestamp, which is why the package stays good
"$pkgtool" pki revoke revoked signer >/dev/null
"$pkgtool" renew-crls good.pkg --root pki/root.pem --crl revoked/root.crl --crl revoked/ca.crl --crl revoked/tsa-ca.crl \
    -o later.pkg >/dev/null 2>&1
rm -rf revoked

for name in good altered later; do
    "$pkgtool" explain --root pki/root.pem "$name.pkg" --html "$name.html" >/dev/null || [ $? -eq 1 ]
    browser --screenshot="$dir/$name.png" "file://$dir/$name.html"
    browser --print-to-pdf="$dir/$name.pdf" "file://$dir/$name.html"
    browser --dump-dom "file://$dir/$name.html" >"$name.dom"
    [ "$(head -c 4 "$name.pdf")" = %PDF ]
    [ "$(wc -c <"$name.png")" -gt 20000 ] || { echo "$name.png shows nothing"; exit 1; }
    ! grep -qi '<script' "$name.dom" || { echo "$name.html: a name became a script"; exit 1; }
    # The browser's own reading has the elements of the file: nothing was left open or closed twice.
    diff <(grep -oE '<[a-z][a-z0-9]*' "$name.html" | grep -v '<tbody' | sort | uniq -c) \
        <(grep -oE '<[a-z][a-z0-9]*' "$name.dom" | grep -v '<tbody' | sort | uniq -c)
done
# Where the signer is revoked, the time line has a cross.
[ "$(grep -l '<path' ./*.dom)" = ./later.dom ]
echo "3 pages, screenshots in $2"
