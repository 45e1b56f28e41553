// The text of the hooks. @PROGRAM@, @MAILBOX@ and @ENVIRONMENT@ are filled in.
#include "user/hooks.h"

const char *const BASH_HOOK =
    R"hook(# Tellbox: shows messages of the administrator before the prompt.
case $- in
*i*)
    __tellbox_program=@PROGRAM@
    __tellbox_mailbox=@MAILBOX@
    __tellbox_looked=0 __tellbox_next=0 __tellbox_silent=0

    # Starts the program and notes when to look again.
    __tellbox_look() {
        [[ -t 0 && -t 1 && ${TERM:-dumb} != dumb && ${TELLBOX_PROMPT-} != off && -x $__tellbox_program ]] || return 0
        if [[ -z $__tellbox_mailbox ]]; then
            __tellbox_mailbox=$(@ENVIRONMENT@"$__tellbox_program" mailbox </dev/null) || __tellbox_mailbox=/
        fi
        [[ -d $__tellbox_mailbox/inbox ]] || return 0
        @ENVIRONMENT@"$__tellbox_program" prompt </dev/null
        local __tellbox_found=$?
        __tellbox_looked=$1 __tellbox_silent=0
        if ((__tellbox_found >= 1 && __tellbox_found <= 60)); then
            __tellbox_next=$(($1 + __tellbox_found * 60))
        elif ((__tellbox_found >= 61 && __tellbox_found <= 120)); then
            __tellbox_next=$(($1 + __tellbox_found - 60))
        elif ((__tellbox_found >= 193 && __tellbox_found <= 252)); then
            __tellbox_next=$(($1 + (__tellbox_found - 192) * 60)) __tellbox_silent=1
        else
            __tellbox_next=$(($1 + 60)) __tellbox_silent=1
        fi
    }

    # Returns what it finds in $?, but nothing that would end a shell under "set -e".
    __tellbox_prompt() {
        local __tellbox_status=$? __tellbox_options=$- __tellbox_now -
        set +aeux
        printf -v __tellbox_now "%(%s)T" -1
        if ((__tellbox_now >= __tellbox_next || __tellbox_now < __tellbox_looked)); then
            __tellbox_look "$__tellbox_now"
        elif ((__tellbox_silent == 0)) &&
            ! [[ $__tellbox_mailbox/state/.prompt -nt $__tellbox_mailbox/inbox &&
            $__tellbox_mailbox/state/.prompt -nt $__tellbox_mailbox/state ]]; then
            __tellbox_look "$__tellbox_now"
        fi
        [[ $__tellbox_options != *e* ]] || return 0
        return "$__tellbox_status"
    }

    case ${PROMPT_COMMAND[*]-} in
    *__tellbox_prompt*) ;;
    *)
        # Nothing of it is traced, and its status ends no shell and springs no trap.
        if [[ ${PROMPT_COMMAND@a} == *r* ]]; then
            :
        elif [[ ${PROMPT_COMMAND@a} == *a* ]]; then
            PROMPT_COMMAND+=("{ __tellbox_prompt && :; } 2>/dev/null")
        else
            PROMPT_COMMAND="${PROMPT_COMMAND:+$PROMPT_COMMAND
}{ __tellbox_prompt && :; } 2>/dev/null"
        fi
        ;;
    esac
    ;;
esac
)hook";

const char *const ZSH_HOOK =
    R"hook(# Tellbox: shows messages of the administrator before the prompt.
if [[ -o interactive ]]; then
    __tellbox_program=@PROGRAM@
    __tellbox_mailbox=@MAILBOX@
    __tellbox_looked=0 __tellbox_next=0 __tellbox_silent=0

    # Starts the program and notes when to look again.
    __tellbox_look() {
        local __tellbox_found
        [[ -t 0 && -t 1 && ${TERM:-dumb} != dumb && ${TELLBOX_PROMPT-} != off && -x $__tellbox_program ]] || return 0
        if [[ -z $__tellbox_mailbox ]]; then
            __tellbox_mailbox=$(@ENVIRONMENT@"$__tellbox_program" mailbox </dev/null) || __tellbox_mailbox=/
        fi
        [[ -d $__tellbox_mailbox/inbox ]] || return 0
        @ENVIRONMENT@"$__tellbox_program" prompt </dev/null
        __tellbox_found=$?
        __tellbox_looked=$1 __tellbox_silent=0
        if ((__tellbox_found >= 1 && __tellbox_found <= 60)); then
            __tellbox_next=$(($1 + __tellbox_found * 60))
        elif ((__tellbox_found >= 61 && __tellbox_found <= 120)); then
            __tellbox_next=$(($1 + __tellbox_found - 60))
        elif ((__tellbox_found >= 193 && __tellbox_found <= 252)); then
            __tellbox_next=$(($1 + (__tellbox_found - 192) * 60)) __tellbox_silent=1
        else
            __tellbox_next=$(($1 + 60)) __tellbox_silent=1
        fi
    }

    __tellbox_check() {
        emulate -L zsh
        setopt no_xtrace no_unset no_err_exit no_err_return no_all_export no_global_export no_warn_create_global
        local __tellbox_state=$__tellbox_mailbox/state __tellbox_now
        __tellbox_now=${(%):-%D{%s}}
        if ((__tellbox_now >= __tellbox_next || __tellbox_now < __tellbox_looked)); then
            __tellbox_look $__tellbox_now
        elif ((__tellbox_silent == 0)) &&
            ! [[ $__tellbox_state/.prompt -nt $__tellbox_mailbox/inbox && $__tellbox_state/.prompt -nt $__tellbox_state ]]; then
            __tellbox_look $__tellbox_now
        fi
        return 0
    }

    # Nothing of it is traced.
    __tellbox_prompt() {
        {
            __tellbox_check
        } 2>/dev/null
        return 0
    }

    if typeset -f add-zsh-hook >/dev/null; then
        add-zsh-hook precmd __tellbox_prompt
    elif [[ " ${precmd_functions[*]-} " != *" __tellbox_prompt "* ]]; then
        typeset -ga precmd_functions
        precmd_functions+=(__tellbox_prompt)
    fi
fi
)hook";

const char *const FISH_HOOK =
    R"hook(# Tellbox: shows messages of the administrator before the prompt.
if status is-interactive
    set -g __tellbox_program @PROGRAM@
    set -g __tellbox_mailbox @MAILBOX@
    set -g __tellbox_looked 0
    set -g __tellbox_next 0
    set -g __tellbox_silent 0

    # The time, by what is built in: a file's time and its age.
    function __tellbox_now
        if type -q path
            set -l file $__tellbox_mailbox/inbox
            math (path mtime -- $file) + (path mtime --relative -- $file)
        else
            command date +%s
        end
    end

    # Starts the program and notes when to look again.
    function __tellbox_look
        @ENVIRONMENT@$__tellbox_program prompt </dev/null
        set -l found $status
        set -g __tellbox_looked $argv[1]
        set -g __tellbox_silent 0
        if test $found -ge 1 -a $found -le 60
            set -g __tellbox_next (math $argv[1] + $found x 60)
        else if test $found -ge 61 -a $found -le 120
            set -g __tellbox_next (math $argv[1] + $found - 60)
        else if test $found -ge 193 -a $found -le 252
            set -g __tellbox_next (math $argv[1] + "(" $found - 192 ")" x 60)
            set -g __tellbox_silent 1
        else
            set -g __tellbox_next (math $argv[1] + 60)
            set -g __tellbox_silent 1
        end
    end

    function __tellbox_check
        if test -z "$__tellbox_mailbox"
            set -g __tellbox_mailbox (@ENVIRONMENT@$__tellbox_program mailbox </dev/null)
            test -n "$__tellbox_mailbox"; or set -g __tellbox_mailbox /
        end
        test -d $__tellbox_mailbox/inbox; or return
        set -l state $__tellbox_mailbox/state
        set -l now (__tellbox_now)
        if test $now -ge $__tellbox_next -o $now -lt $__tellbox_looked
            __tellbox_look $now
        else if test $__tellbox_silent -eq 0
            and not begin
                test $state/.prompt -nt $__tellbox_mailbox/inbox
                and test $state/.prompt -nt $state
            end
            __tellbox_look $now
        end
    end

    function __tellbox_prompt --on-event fish_prompt
        if test -t 0 -a -t 1 -a "$TERM" != dumb -a -n "$TERM" -a "$TELLBOX_PROMPT" != off -a -x $__tellbox_program
            __tellbox_check 2>/dev/null
        end
    end
end
)hook";

// For login shells of every kind. @BASH@ and @ZSH@ are the hooks as one word each, so that a shell
// with another syntax does not parse them.
const char *const PROFILE =
    R"hook(# Tellbox: shows messages of the administrator, at login or before each prompt.
#
# Read by login shells, and by the other ones where root has run "tellbox-user shells on".
# TELLBOX_PROMPT=off silences it, ~/.hushlogin what a shell without a hook prints at login.
case $- in
*i*)
    if [ -x @PROGRAM@ ]; then
        if [ -n "${BASH_VERSION-}" ]; then
            eval @BASH@
        elif [ -n "${ZSH_VERSION-}" ]; then
            eval @ZSH@
        elif [ -t 0 ] && [ -t 1 ] && ! [ -e "${HOME-}/.hushlogin" ]; then
            TBX_TEST= @PROGRAM@ prompt </dev/null || :
        fi
    fi
    ;;
esac
)hook";
