// The text of the hooks. @PROGRAM@, @MAILBOX@ and @ENVIRONMENT@ are filled in.
#include "user/hooks.h"

const char *const BASH_HOOK =
    R"hook(# Tellbox: shows messages of the administrator before the prompt.
# Not in restricted shells, which may not run it, and not before bash 4.4.
if [[ $- == *i* && $- != *r* ]] && ! shopt -q restricted_shell &&
    ((BASH_VERSINFO[0] * 100 + BASH_VERSINFO[1] >= 404)); then
    __tellbox_know() {
        __tellbox_mailbox=$1 __tellbox_inbox=$1/inbox __tellbox_state=$1/state __tellbox_looked_at=$1/state/.prompt
    }

    # Starts the program and notes when to look again.
    __tellbox_look() {
        local -
        set +aeux
        [[ -t 0 && -t 1 && ${TERM:-dumb} != dumb && ${TELLBOX_PROMPT-} != off && -x $__tellbox_program ]] || return 0
        if [[ -z $__tellbox_mailbox ]]; then
            __tellbox_next=$(($1 + 60)) __tellbox_looked=$1 __tellbox_silent=1
            __tellbox_know "$(@ENVIRONMENT@"$__tellbox_program" mailbox </dev/null)"
            [[ -n $__tellbox_mailbox ]] || return 0
            __tellbox_silent=0
        fi
        [[ -d $__tellbox_inbox ]] || return 0
        @ENVIRONMENT@"$__tellbox_program" prompt "${__tellbox_mailbox##*/}" "$__tellbox_shown" </dev/null
        local __tellbox_found=$?
        __tellbox_looked=$1 __tellbox_silent=0
        if ((__tellbox_found >= 1 && __tellbox_found <= 60)); then
            __tellbox_next=$(($1 + __tellbox_found * 60))
        elif ((__tellbox_found >= 61 && __tellbox_found <= 120)); then
            __tellbox_next=$(($1 + __tellbox_found - 60))
        elif ((__tellbox_found >= 193 && __tellbox_found <= 212)); then
            __tellbox_next=$(($1 + (__tellbox_found - 192) * 60)) __tellbox_shown=$1
        else
            __tellbox_next=$(($1 + 60)) __tellbox_silent=1
            ((__tellbox_found != 213)) || __tellbox_shown=$1
        fi
    }

    # Returns what it finds in $?, but nothing that would end a shell under "set -e". One test of
    # times that are at hand decides most prompts: it has to work under every option.
    __tellbox_prompt() {
        local __tellbox_status=$? __tellbox_now=${EPOCHSECONDS-}
        [[ -n $__tellbox_now ]] || printf -v __tellbox_now "%(%s)T" -1 # before bash 5
        if [[ $__tellbox_now -ge $__tellbox_next || $__tellbox_now -lt $__tellbox_looked ||
            ($__tellbox_silent -eq 0 && ! ($__tellbox_looked_at -nt $__tellbox_inbox && $__tellbox_looked_at -nt $__tellbox_state)) ]]; then
            __tellbox_look "$__tellbox_now"
        fi
        [[ $__tellbox_status -ne 0 && $- != *e* ]] || return 0
        return "$__tellbox_status"
    }
    __tellbox_untraced() {
        __tellbox_prompt
    } 2>/dev/null

    __tellbox_load() {
        local -
        set +aeux
        __tellbox_program=@PROGRAM@
        __tellbox_know @MAILBOX@
        __tellbox_looked=0 __tellbox_next=0 __tellbox_silent=0 __tellbox_shown=0
        # A shell that inherits PROMPT_COMMAND inherits neither the functions nor these names.
        __tellbox_hook=__tellbox_prompt __tellbox_exported=__tellbox_untraced
        [[ ${PROMPT_COMMAND[*]-} != *__tellbox_* ]] || return 0
        # Nothing of it is traced, and its status ends no shell and springs no trap.
        case ${PROMPT_COMMAND@a} in
        *r*) ;;
        *x*)
            # Without a redirection, which is an error in a restricted shell that inherits it.
            PROMPT_COMMAND="${PROMPT_COMMAND:+$PROMPT_COMMAND
}\"\${__tellbox_exported-:}\" && :"
            ;;
        *)
            if [[ ${PROMPT_COMMAND@a} == *a* || -z ${PROMPT_COMMAND-} ]] && ((BASH_VERSINFO[0] * 100 + BASH_VERSINFO[1] >= 501)); then
                # Not the first element: the startup files that come may set PROMPT_COMMAND, which
                # replaces that one, or do so only if it is empty.
                PROMPT_COMMAND[0]=${PROMPT_COMMAND[0]-}
                PROMPT_COMMAND+=('{ "${__tellbox_hook-:}" && :; } 2>/dev/null')
            else
                PROMPT_COMMAND="${PROMPT_COMMAND:+$PROMPT_COMMAND
}{ \"\${__tellbox_hook-:}\" && :; } 2>/dev/null"
            fi
            ;;
        esac
    }
    { __tellbox_load; } 2>/dev/null
    unset -f __tellbox_load
fi
)hook";

const char *const ZSH_HOOK =
    R"hook(# Tellbox: shows messages of the administrator before the prompt.
if [[ -o interactive && ! -o restricted ]]; then
    __tellbox_know() {
        typeset -g __tellbox_mailbox=$1 __tellbox_inbox=$1/inbox __tellbox_state=$1/state
        typeset -g __tellbox_looked_at=$1/state/.prompt
    }

    # Starts the program and notes when to look again.
    __tellbox_look() {
        emulate -L zsh
        setopt no_xtrace no_unset no_err_exit no_err_return no_all_export no_global_export no_warn_create_global
        local __tellbox_found=0
        [[ -t 0 && -t 1 && ${TERM:-dumb} != dumb && ${TELLBOX_PROMPT-} != off && -x $__tellbox_program ]] || return 0
        if [[ -z $__tellbox_mailbox ]]; then
            __tellbox_next=$(($1 + 60)) __tellbox_looked=$1 __tellbox_silent=1
            __tellbox_know "$(@ENVIRONMENT@"$__tellbox_program" mailbox </dev/null)"
            [[ -n $__tellbox_mailbox ]] || return 0
            __tellbox_silent=0
        fi
        [[ -d $__tellbox_inbox ]] || return 0
        # In a list: a failure alone would spring the user's ZERR trap.
        @ENVIRONMENT@"$__tellbox_program" prompt "${__tellbox_mailbox##*/}" "$__tellbox_shown" </dev/null ||
            __tellbox_found=$?
        __tellbox_looked=$1 __tellbox_silent=0
        if ((__tellbox_found >= 1 && __tellbox_found <= 60)); then
            __tellbox_next=$(($1 + __tellbox_found * 60))
        elif ((__tellbox_found >= 61 && __tellbox_found <= 120)); then
            __tellbox_next=$(($1 + __tellbox_found - 60))
        elif ((__tellbox_found >= 193 && __tellbox_found <= 212)); then
            __tellbox_next=$(($1 + (__tellbox_found - 192) * 60)) __tellbox_shown=$1
        else
            __tellbox_next=$(($1 + 60)) __tellbox_silent=1
            ((__tellbox_found != 213)) || __tellbox_shown=$1
        fi
    }

    # One test of times that are at hand decides most prompts: it has to work under every option.
    # Next to nothing of it is traced. A restricted shell, which is one only after its startup
    # files, may not run it.
    __tellbox_prompt() {
        [[ -o restricted ]] || {
            # In a variable: "emulate sh -c" reads braces within braces in another way.
            local __tellbox_now='%D{%s}'
            __tellbox_now=${(%)__tellbox_now}
            if [[ $__tellbox_now -ge $__tellbox_next || $__tellbox_now -lt $__tellbox_looked ||
                ($__tellbox_silent -eq 0 && ! ($__tellbox_looked_at -nt $__tellbox_inbox && $__tellbox_looked_at -nt $__tellbox_state)) ]]; then
                __tellbox_look "$__tellbox_now"
            fi
            return 0
        } 2>/dev/null
    }

    __tellbox_load() {
        emulate -L zsh
        setopt no_xtrace no_warn_create_global no_all_export no_global_export
        typeset -g __tellbox_program=@PROGRAM@
        __tellbox_know @MAILBOX@
        typeset -g __tellbox_looked=0 __tellbox_next=0 __tellbox_silent=0 __tellbox_shown=0
        if typeset -f add-zsh-hook >/dev/null; then
            add-zsh-hook precmd __tellbox_prompt
        fi
        if [[ " ${precmd_functions[*]-} " != *" __tellbox_prompt "* ]]; then
            typeset -ga precmd_functions
            precmd_functions+=(__tellbox_prompt)
        fi
        return 0
    }
    { __tellbox_load; } 2>/dev/null
    unfunction __tellbox_load
fi
)hook";

const char *const FISH_HOOK =
    R"hook(# Tellbox: shows messages of the administrator before the prompt.
if status is-interactive
    function __tellbox_know
        set -g __tellbox_mailbox $argv[1]
        set -g __tellbox_inbox $argv[1]/inbox
        set -g __tellbox_state $argv[1]/state
        set -g __tellbox_looked_at $argv[1]/state/.prompt
    end

    set -g __tellbox_program @PROGRAM@
    __tellbox_know @MAILBOX@
    # These two are times of __tellbox_clock, the last one is in seconds since 1970.
    set -g __tellbox_looked 0
    set -g __tellbox_next 0
    set -g __tellbox_silent 0
    set -g __tellbox_shown 0

    # Seconds: the age of the program, as no other clock is built in. Shells before 3.6 have none, and
    # start a process.
    if builtin path mtime -- / >/dev/null 2>&1
        function __tellbox_clock
            builtin path mtime --relative -- $__tellbox_program
        end
        function __tellbox_now
            math (builtin path mtime -- $__tellbox_program) + $argv[1]
        end
    else
        function __tellbox_clock
            command date +%s
        end
        function __tellbox_now
            echo $argv[1]
        end
    end

    # Starts the program and notes when to look again.
    function __tellbox_look
        if test -z "$__tellbox_mailbox"
            set -g __tellbox_next (math 60 + $argv[1])
            set -g __tellbox_looked $argv[1]
            set -g __tellbox_silent 1
            __tellbox_know (@ENVIRONMENT@$__tellbox_program mailbox </dev/null)
            test -n "$__tellbox_mailbox"; or return
            set -g __tellbox_silent 0
        end
        test -d $__tellbox_inbox; or return
        @ENVIRONMENT@$__tellbox_program prompt (string replace -r '.*/' '' -- $__tellbox_mailbox) $__tellbox_shown </dev/null
        set -l found $status
        set -g __tellbox_looked $argv[1]
        set -g __tellbox_silent 0
        if test $found -ge 1 -a $found -le 60
            set -g __tellbox_next (math $found x 60 + $argv[1])
        else if test $found -ge 61 -a $found -le 120
            set -g __tellbox_next (math $found - 60 + $argv[1])
        else if test $found -ge 193 -a $found -le 212
            set -g __tellbox_next (math "(" $found - 192 ")" x 60 + $argv[1])
            set -g __tellbox_shown (__tellbox_now $argv[1])
        else
            set -g __tellbox_next (math 60 + $argv[1])
            set -g __tellbox_silent 1
            test $found -ne 213; or set -g __tellbox_shown (__tellbox_now $argv[1])
        end
    end

    function __tellbox_check
        set -l now (__tellbox_clock)
        test $now -ge $__tellbox_looked -a $now -lt $__tellbox_next
        and begin
            test $__tellbox_silent -eq 1
            or test $__tellbox_looked_at -nt $__tellbox_inbox -a $__tellbox_looked_at -nt $__tellbox_state
        end
        or __tellbox_look $now
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
        # No tracing of the whole text.
        if [ -n "${BASH_VERSION-}" ]; then
            { eval @BASH@; } 2>/dev/null
        elif [ -n "${ZSH_VERSION-}" ]; then
            { eval @ZSH@; } 2>/dev/null
        fi
        if [ -n "${__tellbox_program-}" ]; then
            :
        elif [ -t 0 ] && [ -t 1 ] && ! [ -e "${HOME-}/.hushlogin" ]; then
            TBX_TEST= @PROGRAM@ prompt </dev/null || :
        fi
    fi
    ;;
esac
)hook";
