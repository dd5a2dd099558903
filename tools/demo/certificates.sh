# shellcheck shell=bash
# shellcheck disable=SC2154 # the variables and functions of the other files of this folder
# What certificates say, and the step that shows the first one; sourced.

active_id() {
    cat "$root$store/$1/server/.cacheddata/active.txt"
}

certificate_of() {
    printf '%s' "$root$store/$1/server/$(active_id "$1")"
}

fingerprint_of() {
    openssl x509 -in "$(certificate_of "$1")" -noout -fingerprint -sha256
}

alternative_names() {
    openssl x509 -in "$1" -noout -ext subjectAltName | sed -n '2s/^ *//p'
}

# OpenSSL writes an IPv6 address in its longest form.
address_text() {
    python3 -c 'import ipaddress, sys
address = ipaddress.ip_address(sys.argv[1])
print(address if address.version == 4 else ":".join("%X" % int(group, 16) for group in address.exploded.split(":")))' \
        "$1"
}

require_names() {
    local certificate=$1 names wanted
    shift
    names=", $(alternative_names "$certificate"),"
    for wanted in "$@"; do
        case $names in
            *", $wanted,"*) ;;
            *) fail "the certificate does not name \"$wanted\" but$names" ;;
        esac
    done
}

days_left() {
    local end
    end=$(openssl x509 -in "$1" -noout -enddate)
    echo $((($(date -d "${end#notAfter=}" +%s) - $(date +%s)) / 86400))
}

show_certificate() {
    local certificate days wanted=("DNS:$name" "IP Address:$ipv4")
    say "2. What came out: a certificate for the device's names and addresses"
    certificate=$(certificate_of web)
    [ -f "$certificate" ] || fail "the service \"web\" has no certificate: $(grep ' web' "$work/syslog" | tail -n 3)"
    days=$(days_left "$certificate")
    show 2 "openssl x509 -in $store/web/server/$(active_id web) -noout -subject" \
        openssl x509 -in "$certificate" -noout -subject
    tell "names: $(alternative_names "$certificate")" "days left: $days"
    [ -z "$ipv6" ] || wanted+=("IP Address:$(address_text "$ipv6")")
    require_names "$certificate" "${wanted[@]}"
    if [ "$days" -lt 80 ] || [ "$days" -gt 90 ]; then
        fail "$days days left of 90"
    fi
    tell "the store's files:"
    python3 "$work/device.py" list "$root" "$store/web/server" | sed 's/^/   /'
    check_rights "$certificate"
}

# The key is for its group only, which is what the web server's account is in.
check_rights() {
    local key_rights certificate_rights
    key_rights=$(stat -c '%a %u %g' "$1.key")
    certificate_rights=$(stat -c '%a %u %g' "$1")
    [ "$key_rights" = "640 ${user_ids[keyuser]} ${group_ids[kwkey]}" ] || fail "the key's rights are $key_rights"
    [ "$certificate_rights" = "644 ${user_ids[keyuser]} ${group_ids[kwadmin]}" ] ||
        fail "the certificate's rights are $certificate_rights"
    as_user operator operator cat "$1.key" >/dev/null 2>&1 && fail "anybody can read the key"
    tell "The account \"operator\" cannot read the key; \"kwweb\", a member of kwkey, can."
}
