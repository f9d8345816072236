#!/bin/sh
# Creates a throw-away test root and code-signing certificates issued by it,
# for signing the stand-in SDK at build time and the package in its tests.
# Nothing here is ever committed.
#   make-test-pki.sh OUTDIR
# For each publisher NAME it writes OUTDIR/NAME.key and OUTDIR/NAME.chain.pem
# (the code-signing certificate followed by the root), and OUTDIR/root.crt;
# for the package's signing identity also OUTDIR/package_signing.pfx.
set -eu
out=$1
mkdir -p "$out"
cd "$out"

cat > codesign.ext <<'EXT'
basicConstraints = critical, CA:FALSE
keyUsage = critical, digitalSignature
extendedKeyUsage = codeSigning
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
EXT

openssl req -x509 -newkey rsa:2048 -nodes -sha256 -days 3650 \
  -keyout root.key -out root.crt \
  -subj "/CN=Ambrel Test Root/O=Ambrel Test Authority" \
  -addext "basicConstraints=critical,CA:TRUE" \
  -addext "keyUsage=critical,keyCertSign,cRLSign" 2>/dev/null

issue() {
  name=$1
  subject=$2
  openssl req -newkey rsa:2048 -nodes -sha256 -keyout "$name.key" -out "$name.csr" -subj "$subject" 2>/dev/null
  openssl x509 -req -sha256 -days 3650 -in "$name.csr" -CA root.crt -CAkey root.key \
    -set_serial "0x$(openssl rand -hex 8)" -extfile codesign.ext -out "$name.crt" 2>/dev/null
  cat "$name.crt" root.crt > "$name.chain.pem"
  rm -f "$name.csr"
}

# The maker, as its certificates name it.
issue tavrel "/CN=Tavrel Test Code Signing/O=Tavrel, Inc"
# Someone else entirely.
issue other_publisher "/CN=Northwind Test Code Signing/O=Northwind Software Ltd"
# The maker's name in other letter case.
issue other_case "/CN=Upper Case Test Signing/O=TAVREL, INC"
# The maker's name only inside a longer organisation name.
issue longer_org "/CN=Longer Name Test Signing/O=Old Tavrel, Incorporated Holdings"
# The maker's name in the common name, another organisation.
issue common_name "/CN=Tavrel, Inc/O=Ambrel Signing Test"

# The package's own throw-away code-signing identity, as a real build is
# given one: a PFX (certificate, key and the root) and its password, which
# the package tests pass through AMBREL_SIGN_PFX and AMBREL_SIGN_PASSWORD.
issue package_signing "/CN=Ambrel Test Package Signing/O=Tavrel, Inc"
openssl pkcs12 -export -inkey package_signing.key -in package_signing.crt -certfile root.crt \
  -name "Ambrel Test Package Signing" -passout pass:ambrel-test-only -out package_signing.pfx 2>/dev/null
