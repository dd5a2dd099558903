# bash completion for keywardctl(1)
# shellcheck shell=bash

# Of the lines that are given; a device may lack the /dev/fd that process substitution needs.
_keywardctl_offer() {
    COMPREPLY=()
    [ -z "$1" ] || mapfile -t COMPREPLY <<<"$1"
}

_keywardctl_words() {
    _keywardctl_offer "$(compgen -W "$1" -- "$2")"
}

_keywardctl_files() {
    compopt -o filenames 2>/dev/null || : # outside of a completion
    _keywardctl_offer "$(compgen -f -- "$1")"
}

# What the device has: "services", or "ca" or "client" and a service.
_keywardctl_ask() {
    "${COMP_WORDS[0]}" complete "$@" 2>/dev/null
}

# The options of a command; of a group, with its action.
_keywardctl_options() {
    local common='--timeout --debug --help'
    case $1 in
        '') echo "$common --version" ;;
        status) echo "--json --color $common" ;;
        show) echo "--request --ca --client --json --pem $common" ;;
        csr) echo "--no-ip --output $common" ;;
        'ca list' | 'client list' | check) echo "--json $common" ;;
        'ca show' | 'client show') echo "--json --pem $common" ;;
        wait) echo "--fresh $common" ;;
        'export prometheus') echo "--output $common" ;;
        *) echo "$common" ;;
    esac
}

_keywardctl() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local commands='status show csr apply renew revoke reload ca client notify wait export check'
    local words=() place command
    # The words that are neither options nor their values.
    for ((place = 1; place < COMP_CWORD; place++)); do
        case ${COMP_WORDS[place]} in
            --timeout | --color | --ca | --client | -o | --output) place=$((place + 1)) ;;
            -*) ;;
            *) words+=("${COMP_WORDS[place]}") ;;
        esac
    done
    command=${words[0]-}
    case $command in
        ca | client | export | notify) command="$command ${words[1]-}" ;;
    esac
    command=${command% }

    case $previous in
        --timeout) return ;;
        --color)
            _keywardctl_words 'auto always never' "$current"
            return
            ;;
        --ca | --client)
            _keywardctl_words "$(_keywardctl_ask "${previous#--}" "${words[1]-}")" "$current"
            return
            ;;
        -o | --output)
            _keywardctl_files "$current"
            return
            ;;
    esac
    if [[ $current == -* ]]; then
        _keywardctl_words "$(_keywardctl_options "$command")" "$current"
        return
    fi
    case $command:${#words[@]} in
        :0) _keywardctl_words "$commands" "$current" ;;
        ca:1 | client:1) _keywardctl_words 'add list show remove' "$current" ;;
        notify:1) _keywardctl_words 'network time' "$current" ;;
        export:1) _keywardctl_words 'prometheus' "$current" ;;
        status:1 | show:1 | csr:1 | apply:1 | renew:1 | revoke:1 | reload:1 | wait:1 | \
            'ca '*:2 | 'client '*:2) _keywardctl_words "$(_keywardctl_ask services)" "$current" ;;
        apply:2 | *' add:3') _keywardctl_files "$current" ;;
        *' show:3' | *' remove:'*)
            _keywardctl_words "$(_keywardctl_ask "${words[0]}" "${words[2]}")" "$current"
            ;;
    esac
}

complete -F _keywardctl keywardctl
