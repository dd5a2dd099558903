# shellcheck shell=bash
# shellcheck disable=SC2154 # the variables and functions of the other files of this folder
# Certificates signed by an authority, on the device and outside of it, and those that a service trusts; sourced.

# --- On the device ----------------------------------------------------------------------------------------------

# The service "api" has its certificate from the service "pkiroot".
show_local_ca() {
    local authority api
    say "4. A certificate authority on the device, and a service with a certificate that it signed"
    authority=$(certificate_of pkiroot)
    api=$(certificate_of api)
    show 2 "openssl x509 -in $store/api/server/$(active_id api) -noout -subject -issuer" \
        openssl x509 -in "$api" -noout -subject -issuer
    check_authority "$authority"
    trust "pkiroot's" "$authority"
    show_connections "$api_port"
    openssl verify -purpose sslserver -verify_hostname "$name" -CAfile "$authority" "$api" >"$work/verify" 2>&1 ||
        fail "the CA's certificate is no proof of the other one: $(cat "$work/verify")"
    trust "web's" "$(certificate_of web)"
    show_refusal "unable to get local issuer certificate" "$api_port" -verify_hostname "$name"
}

check_authority() {
    case $(openssl x509 -in "$1" -noout -ext basicConstraints,keyUsage) in
        *critical*CA:TRUE*critical*'Certificate Sign, CRL Sign'*) ;;
        *) fail "these are not the extensions of a CA" ;;
    esac
    if as_user kwweb kwkey cat "$1.key" >/dev/null 2>&1; then
        fail "a TLS server can read the CA's key"
    fi
    tell "pkiroot's certificate is a CA's (CA:TRUE, Certificate Sign); \"kwweb\" cannot read its key."
}

# --- Outside ----------------------------------------------------------------------------------------------------

# Of an authority with its own idea of what it signs.
print_outside_settings() {
    cat <<'SETTINGS'
[ca]
default_ca = authority
[authority]
dir = .
database = index.txt
serial = serial
new_certs_dir = issued
certificate = ca.pem
private_key = ca.key
default_md = sha256
default_days = 60
policy = example_devices
x509_extensions = leaf
copy_extensions = copy
unique_subject = no
[example_devices]
countryName = supplied
stateOrProvinceName = optional
localityName = optional
organizationName = match
organizationalUnitName = optional
commonName = supplied
[leaf]
authorityKeyIdentifier = keyid
[req]
distinguished_name = name
prompt = no
x509_extensions = root
[name]
C = US
O = Example Devices
CN = Outside CA
[root]
basicConstraints = critical,CA:TRUE
keyUsage = critical,keyCertSign,cRLSign
subjectKeyIdentifier = hash
SETTINGS
}

# It has never seen the device, and the device knows nothing of its folder.
found_outside_ca() {
    outside=$work/outside
    mkdir -m 700 "$outside" "$outside/issued"
    : >"$outside/index.txt"
    echo 01 >"$outside/serial"
    print_outside_settings >"$outside/ca.cnf"
    at_outside_ca req -x509 -config ca.cnf -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout ca.key \
        -out ca.pem -days 365 || fail "there is no outside CA: $(cat "$work/outside.log")"
}

at_outside_ca() {
    (cd "$outside" && openssl "$@" >"$work/outside.log" 2>&1)
}

sign_outside() {
    at_outside_ca ca -batch -notext -config ca.cnf -in "$1.csr" -out "$1.crt" ||
        fail "the outside CA does not sign: $(cat "$work/outside.log")"
}

# A new key and a request for what the device asks for as well.
make_unrelated_request() {
    at_outside_ca req -new -config ca.cnf -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout other.key \
        -subj "/C=US/O=Example Devices/CN=$name" -out other.csr ||
        fail "there is no other request: $(cat "$work/outside.log")"
}

upload() {
    install -m 644 -o "${user_ids[operator]}" -g "${group_ids[operator]}" "$outside/$1" "$root$uploads/$1"
}

show_external_pki() {
    local event told
    say "7. A certificate from an external PKI"
    found_outside_ca
    request_from_outside
    refuse_unrelated
    event="web server new $(openssl x509 -in "$outside/web.crt" -noout -subject_hash).0"
    told=$(times_told "$event")
    show_answer 1 web server applycrt "$uploads/web.crt"
    require_told "$event" "$told"
    cmp -s <(openssl x509 -in "$outside/web.crt") <(openssl x509 -in "$(certificate_of web)") ||
        fail "the certificate is not the one that was applied"
    [ ! -e "$root$store/web/server/.cacheddata/csr.csr" ] || fail "the request is still there"
    show 2 "openssl x509 -in $store/web/server/$(active_id web) -noout -subject -issuer" \
        openssl x509 -in "$(certificate_of web)" -noout -subject -issuer
    tell "the owner was told: $(tail -n 1 "$root$owner_log")"
    renew_s_server web "$port"
    trust "the outside CA's" "$outside/ca.pem"
    show_new_connection "the new address" "$new_ipv4:$port" -verify_ip "$new_ipv4"
    show_connection "name" "$(where_is "$name"):$port" -servername "$name" -verify_hostname "$name"
}

request_from_outside() {
    local request=$store/web/server/.cacheddata/csr.csr
    show_answer 1 web server createcsr
    as_user operator kwadmin cat "$root$request" >"$outside/web.csr" || fail "the operator cannot read the request"
    tell "\$ openssl ca -config ca.cnf -in $request -out web.crt    (its policy, elsewhere)"
    sign_outside web
    upload web.crt
}

# With the same names, signed by the same CA: but the key is not the device's.
refuse_unrelated() {
    local before text='Error in validating csr and crt'
    before=$(fingerprint_of web)
    make_unrelated_request
    sign_outside other
    upload other.crt
    show_any_answer 1 web server applycrt "$uploads/other.crt"
    case $answer in
        "26 "*"$text") tell "refused, as it must be: it is for another key" ;;
        *) fail "the answer to a certificate for another key is: $answer" ;;
    esac
    [ "$(fingerprint_of web)" = "$before" ] || fail "the refused certificate was installed"
    expected_errors+=("ERR CSR and certificate public key is not matching."
        "ERR Daemon exception during user request process for service 'web': $text")
    require_no_errors
}

# --- Trusted ----------------------------------------------------------------------------------------------------

show_trusted() {
    local id
    say "8. Whom the web server trusts: an authority and a single client"
    show_answer 1 web ca add "$store/pkiroot/server/$(active_id pkiroot)"
    [ "$answer" = "0 $(active_id pkiroot)" ] || fail "this is not the CA's id"
    require_trusted ca "$(active_id pkiroot)" "$(certificate_of pkiroot)"
    at_outside_ca req -x509 -config ca.cnf -extensions leaf -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes \
        -keyout laptop.key -subj "/O=Example Devices/CN=service laptop" -days 30 -out laptop.crt ||
        fail "there is no client: $(cat "$work/outside.log")"
    upload laptop.crt
    show_answer 1 web client add "$uploads/laptop.crt"
    id=${answer#0 }
    require_trusted client "$id" "$outside/laptop.crt"
    show_list "$id"
    show_answer 1 web client revoke "$id"
    [ "$answer" = "0 $id" ] || fail "this is not the client's id"
    require_told "web client revoke $id" 0
    [ ! -e "$root$store/web/client/$id" ] || fail "the client is still in the store"
    show_list ''
    show 3 "grep -E ' web (ca|client) ' $owner_log" grep -E ' web (ca|client) ' "$root$owner_log"
}

require_trusted() {
    cmp -s <(openssl x509 -in "$root$store/web/$1/$2") <(openssl x509 -in "$3") ||
        fail "the store \"$1\" does not hold the certificate"
    require_told "web $1 new $2" 0
}

show_list() {
    local list=$store/web/client/.cacheddata/list.txt said
    said=$(cat "$root$list") || fail "there is no list of the clients"
    tell "\$ cat $list" "${said:-(empty)}"
    [ "$said" = "$1" ] || fail "the list is not \"$1\""
}
