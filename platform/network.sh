#!/bin/sh
# Prints the device's interfaces, addresses and DNS names for keywardd, one "key value" a line, every list
# numbered from 0 without a gap. README.md beside this file tells the keys, the settings and the limits.
# Needs ip (iproute2's or BusyBox's) and grep; everything is gathered before the first line is printed.

set -uf
LC_ALL=C
export LC_ALL

configuration=/etc/keywarden/network.conf
hostsFile=/etc/hosts
deviceList=/proc/net/dev
hostNameFile=/proc/sys/kernel/hostname
# A service manager may start the daemon without the sbin folders.
systemPath=/usr/sbin:/usr/bin:/sbin:/bin
lookUpSeconds=2

PATH=${PATH:+$PATH:}$systemPath
export PATH

newline='
'

fail() {
    printf 'network.sh: %s\n' "$1" >&2
    exit 1
}

# --- Settings ---------------------------------------------------------------------------------------------------

linkLocal=
loopback=
fqdn=
lookUpFqdn=
ipv4Auto=
ipv6Auto=

# As in the daemon's own files: "#" starts a comment, the first occurrence of a key wins.
readSettings() {
    [ -f "$configuration" ] && [ -r "$configuration" ] || return 0
    while read -r line || [ -n "$line" ]; do
        # shellcheck disable=SC2086 # into words
        set -- ${line%%#*}
        [ $# -ge 2 ] || continue
        key=$1
        shift
        case $key in
            linkLocal) linkLocal=${linkLocal:-$*} ;;
            loopback) loopback=${loopback:-$*} ;;
            fqdn) fqdn=${fqdn:-$*} ;;
            lookUpFqdn) lookUpFqdn=${lookUpFqdn:-$*} ;;
            ipv4Auto) ipv4Auto=${ipv4Auto:-$*} ;;
            ipv6Auto) ipv6Auto=${ipv6Auto:-$*} ;;
        esac
    done <"$configuration"
}

# --- Interfaces and addresses -----------------------------------------------------------------------------------

name=
index=0
output=

# Sets "knownNames" to the names of all interfaces, each between line feeds.
readKnownNames() {
    knownNames=$newline
    [ -r "$deviceList" ] || return 0
    while read -r line; do
        case $line in
            *:*) knownNames=$knownNames${line%%:*}$newline ;;
        esac
    done <"$deviceList"
}

# "veth0@if5" is the interface veth0 and what it hangs on; but a name may hold an "@" of its own.
cutLowerInterface() {
    case $name in
        *@*) ;;
        *) return 0 ;;
    esac
    readKnownNames
    candidate=$name
    while :; do
        case $knownNames in
            *"$newline$candidate$newline"*)
                name=$candidate
                return 0
                ;;
        esac
        case $candidate in
            *@*) candidate=${candidate%@*} ;;
            *) break ;;
        esac
    done
    name=${name%%@*}
}

# "2: eth0@if5: <BROADCAST,UP> mtu 1500 ..."
startInterface() {
    rest=${1#*: }
    name=${rest%%:*}
    flags=${rest#*: <}
    flags=,${flags%%>*},
    mac=
    ipv4List=
    ipv6List=
    ipv4IsAuto=no
    ipv6IsAuto=no
    lastFamily=
    cutLowerInterface
    case $flags in
        *,LOOPBACK,*) [ "$loopback" = yes ] || name= ;;
    esac
    # The daemon would take the rest of the line for a comment.
    case $name in
        *'#'*) name= ;;
    esac
}

takeMac() {
    hex='[0-9a-fA-F][0-9a-fA-F]'
    # Tunnels show an IP address, or nothing, in this place.
    # shellcheck disable=SC2254 # a pattern
    case $1 in
        $hex:$hex:$hex:$hex:$hex:$hex) mac=$1 ;;
    esac
}

isWanted() {
    case $1 in
        169.254.* | fe[89abAB]?:* | FE[89abAB]?:*) [ "$linkLocal" = yes ] ;;
        0.0.0.0 | :: | 22[4-9].* | 23[0-9].* | ff??:* | FF??:*) return 1 ;;
    esac
}

# inet 10.0.0.5/24 brd 10.0.0.255 scope global secondary dynamic eth0:1
takeIpv4() {
    address=${2%%/*}
    words="$*"
    # The last word is the label, which may read like a flag.
    words="${words% *} "
    isWanted "$address" || return 0
    ipv4List="$ipv4List $address"
    lastFamily=ipv4
    case $words in
        *' dynamic '*) ipv4IsAuto=yes ;;
    esac
}

# inet6 fd00::5/64 scope global temporary dynamic
takeIpv6() {
    address=${2%%/*}
    address=${address%%"%"*}
    words="$* "
    # BusyBox calls a temporary address secondary: the two share one bit.
    case $words in
        *' temporary '* | *' secondary '* | *' dadfailed '*) return 0 ;;
    esac
    isWanted "$address" || return 0
    ipv6List="$ipv6List $address"
    lastFamily=ipv6
    case $words in
        *' dynamic '* | *' kernel_ra '*) ipv6IsAuto=yes ;;
    esac
}

# The line after an address: "valid_lft 3599sec preferred_lft 1799sec".
takeLifetime() {
    [ "$1" != forever ] || return 0
    case $lastFamily in
        ipv4) ipv4IsAuto=yes ;;
        ipv6) ipv6IsAuto=yes ;;
    esac
}

appendLine() {
    output=$output$1$newline
}

appendFamily() {
    family=$1
    [ "$2" != yes ] || appendLine "${family}Auto.$index yes"
    number=0
    for address in $3; do
        appendLine "$family.$index.$number $address"
        number=$((number + 1))
    done
}

finishInterface() {
    [ -n "$name" ] || return 0
    case " $ipv4Auto " in
        *" $name "*) ipv4IsAuto=yes ;;
    esac
    case " $ipv6Auto " in
        *" $name "*) ipv6IsAuto=yes ;;
    esac
    appendLine "interface.$index $name"
    [ -z "$mac" ] || appendLine "mac.$index $mac"
    appendFamily ipv4 "$ipv4IsAuto" "$ipv4List"
    appendFamily ipv6 "$ipv6IsAuto" "$ipv6List"
    index=$((index + 1))
}

# Takes what "ip addr show" printed. One line an address ("ip -o") would need no state, but then a backslash in a
# name could not be told from a line's end.
listInterfaces() {
    while IFS= read -r line; do
        case $line in
            [0-9]*': '*': <'*)
                finishInterface
                startInterface "$line"
                continue
                ;;
        esac
        [ -n "$name" ] || continue
        # shellcheck disable=SC2086 # into words
        set -- $line
        [ $# -ge 2 ] || continue
        case $1 in
            link/*) takeMac "$2" ;;
            inet) takeIpv4 "$@" ;;
            inet6) takeIpv6 "$@" ;;
            valid_lft) takeLifetime "$2" ;;
        esac
        case $1 in
            inet | inet6) ;;
            *) lastFamily= ;;
        esac
    done <<END
$1
END
    finishInterface
}

# --- Names ------------------------------------------------------------------------------------------------------

hostName=
names=' '
nameCount=0

isHostName() {
    case $1 in
        '' | -* | .* | *..* | *[!A-Za-z0-9._-]*) return 1 ;;
        localhost | localhost.* | localhost[46] | localhost[46].* | *.localhost) return 1 ;;
        ip6-localhost | ip6-loopback) return 1 ;;
    esac
    [ ${#1} -le 253 ]
}

readHostName() {
    if [ -r "$hostNameFile" ]; then
        read -r hostName <"$hostNameFile"
    else
        hostName=$(hostname 2>/dev/null) || hostName=$(uname -n 2>/dev/null)
    fi
    hostName=${hostName%.}
    isHostName "$hostName" || hostName=
}

# The FQDN in /etc/hosts: on the first line that has the host name as a word, the name that goes on from it
# with a point, or else the line's first name when that has a point.
fqdnInHosts() {
    # A hosts file can be a long blocking list, and the shell reads slowly.
    lines=$(grep -F -- "$hostName" "$hostsFile" 2>/dev/null)
    while read -r line; do
        # shellcheck disable=SC2086 # into words
        set -- ${line%%#*}
        [ $# -ge 2 ] || continue
        shift
        case " $* " in
            *" $hostName "*) ;;
            *) continue ;;
        esac
        for word in "$@"; do
            case $word in
                "$hostName".?*) isHostName "${word%.}" && printf '%s\n' "$word" && return 0 ;;
            esac
        done
        case $1 in
            *?.?*) isHostName "${1%.}" && printf '%s\n' "$1" && return 0 ;;
        esac
    done <<END
$lines
END
    return 1
}

# What "hostname -f" says, which may ask a name server and is therefore ended after a while. The watcher is made by
# hand because not every device has "timeout"; neither it nor its sleep outlives the look-up.
fqdnByLookUp() {
    hostname -f 2>/dev/null &
    lookUp=$!
    {
        over=
        nap=
        # KILL, since a shell that is about to become the sleep may still lose a TERM.
        trap 'over=yes; [ -z "$nap" ] || kill -KILL "$nap"' TERM
        sleep "$lookUpSeconds" &
        nap=$!
        # The signal may have come before the sleep was known.
        [ -n "$over" ] || wait "$nap"
        if [ -n "$over" ]; then kill -KILL "$nap"; else kill "$lookUp"; fi
    } >/dev/null 2>&1 &
    watch=$!
    wait "$lookUp"
    kill "$watch"
    wait "$watch"
}

findFqdn() {
    case $hostName in
        '' | *.*) return 0 ;;
    esac
    fqdnInHosts && return 0
    [ "$lookUpFqdn" = yes ] || return 0
    found=$(fqdnByLookUp 2>/dev/null </dev/null)
    case $found in
        *.*) printf '%s\n' "$found" ;;
    esac
}

appendName() {
    isHostName "$1" || return 0
    case $names in
        *" $1 "*) return 0 ;;
    esac
    names="$names$1 "
    appendLine "fqdn.$nameCount $1"
    nameCount=$((nameCount + 1))
}

listNames() {
    readHostName
    [ -n "$fqdn" ] || fqdn=$(findFqdn)
    for word in $fqdn $hostName; do
        appendName "${word%.}"
    done
}

# ----------------------------------------------------------------------------------------------------------------

command -v ip >/dev/null || fail "no 'ip' program found (PATH is $PATH)"
addresses=$(ip addr show 2>/dev/null) || fail "'ip addr show' failed with status $?"
readSettings
listInterfaces "$addresses"
listNames
printf '%s' "$output"
