# Completion of tbx in bash; loaded by the package bash-completion when it is first needed.

# The human users, by the rule that makes them recipients of a message to all.
_tbx_users() {
    getent passwd | awk -F: -v definitions=/etc/login.defs '
        BEGIN {
            low = 1000
            high = 60000
            while ((getline line < definitions) > 0) {
                split(line, word, /[ \t]+/)
                if (word[1] == "UID_MIN") low = word[2]
                if (word[1] == "UID_MAX") high = word[2]
            }
        }
        $3 >= low && $3 <= high && $7 !~ /(nologin|false)$/ { print $1 }'
}

# The groups that somebody may be in, as recipients.
_tbx_groups() {
    getent group | awk -F: '$4 != "" || ($3 >= 1000 && $3 < 65534) { print "@" $1 }'
}

# The messages, newest first, for those who may see the store.
_tbx_messages() {
    local state=/var/lib/tellbox
    [[ -z ${TBX_TEST-} || -z ${TBX_VAR-} ]] || state=$TBX_VAR
    command ls "$state/sent" 2>/dev/null | grep -x '[0-9]*' | sort -rn
}

# A list separated by commas; names that are in it already are not offered again.
_tbx_recipients() {
    local given= last=$cur name
    [[ $cur != *,* ]] || given=${cur%,*}, last=${cur##*,}
    for name in $(_tbx_users) all online $(_tbx_groups); do
        [[ ,$given == *",$name,"* || $name != "$last"* ]] || COMPREPLY+=("$given$name")
    done
    compopt -o nospace # there may be another one
    # What stands before the last "@" is no part of the word that bash puts the reply for.
    if [[ $cur == *@* && $COMP_WORDBREAKS == *@* ]]; then
        local before=${cur%@*}
        [[ $COMP_TYPE == 63 ]] || COMPREPLY=("${COMPREPLY[@]#"$before"}")
    fi
}

_tbx_send() {
    local at unused=' --to --title --expires --file '
    for ((at = 2; at < cword; at++)); do
        case ${words[at]} in
        --to | --title | --expires | --file)
            unused=${unused/" ${words[at]} "/ }
            ((++at))
            ;;
        *) return ;; # in the text
        esac
    done
    if ((at == cword)); then
        mapfile -t COMPREPLY < <(compgen -W "$unused" -- "$cur")
        return
    fi
    case ${words[cword - 1]} in
    --to) _tbx_recipients ;;
    --expires) mapfile -t COMPREPLY < <(compgen -W '15m 30m 1h 2h 8h 1d 3d 7d' -- "$cur") ;;
    --file)
        compopt -o filenames
        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
        ;;
    esac
}

_tbx() {
    local cur prev words cword
    _init_completion -n @ || return
    if ((cword == 1)); then
        mapfile -t COMPREPLY < <(compgen -W \
            'send list status revoke remind log purge version help --help --version' -- "$cur")
        return
    fi
    case ${words[1]} in
    send) _tbx_send ;;
    status | revoke | remind | log)
        ((cword > 2)) || mapfile -t COMPREPLY < <(compgen -W "$(_tbx_messages)" -- "$cur")
        compopt -o nosort
        ;;
    purge)
        ((cword > 2)) ||
            mapfile -t COMPREPLY < <(compgen -W '12h 7d 30d 90d 180d 365d' -- "$cur")
        ;;
    esac
}

complete -F _tbx tbx
