# Completion of tbx in fish.

# The human users, by the rule that makes them recipients of a message to all.
function __tbx_users
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
end

# The groups that somebody may be in, as recipients.
function __tbx_groups
    getent group | awk -F: '$4 != "" || ($3 >= 1000 && $3 < 65534) { print "@" $1 }'
end

# A list separated by commas; names that are in it already are not offered again.
function __tbx_recipients
    set -l names (string split , -- (commandline -ct))
    set -l given $names[1..-2]
    for name in (__tbx_users) all online (__tbx_groups)
        contains -- $name $given
        or string join , -- $given $name
    end
end

# The messages, newest first, for those who may see the store.
function __tbx_messages
    set -l state /var/lib/tellbox
    test -n "$TBX_TEST" -a -n "$TBX_VAR"
    and set state $TBX_VAR
    command ls $state/sent 2>/dev/null | string match -r '^\d+$' | sort -rn
end

# Whether the cursor is in the first argument of one of the commands.
function __tbx_first_argument_of
    set -l words (commandline -opc)
    test (count $words) -eq 2
    and contains -- $words[2] $argv
end

# Whether the cursor stands where an option of send, or the value of one, may stand.
function __tbx_before_text
    set -l words (commandline -opc)
    test "$words[2]" = send
    or return 1
    set -l value
    for word in $words[3..-1]
        if set -q value[1]
            set value
        else if contains -- $word --to --title --expires --file
            set value $word
        else
            return 1
        end
    end
end

complete -c tbx -f
complete -c tbx -n __fish_is_first_token -a send -d 'Send a message'
complete -c tbx -n __fish_is_first_token -a list -d 'List the messages sent'
complete -c tbx -n __fish_is_first_token -a status -d 'Show a message and the state of its recipients'
complete -c tbx -n __fish_is_first_token -a revoke -d 'Revoke a message'
complete -c tbx -n __fish_is_first_token -a remind -d 'Remind whoever has not confirmed a message'
complete -c tbx -n __fish_is_first_token -a log -d 'Show the history of a message'
complete -c tbx -n __fish_is_first_token -a purge -d 'Delete old messages'
complete -c tbx -n __fish_is_first_token -a version -d 'Show the version'
complete -c tbx -n __fish_is_first_token -a help -d 'Show the guide'

complete -c tbx -n __tbx_before_text -l to -x -a '(__tbx_recipients)' -d 'Recipients, separated by commas'
complete -c tbx -n __tbx_before_text -l title -x -d 'Title of the message'
complete -c tbx -n __tbx_before_text -l expires -x -a '15m 30m 1h 2h 8h 1d 3d 7d' -d 'When the message is no longer shown'
complete -c tbx -n __tbx_before_text -l file -r -F -d 'Read the text from a file'

complete -c tbx -n '__tbx_first_argument_of status revoke remind log' -k -a '(__tbx_messages)'
complete -c tbx -n '__tbx_first_argument_of purge' -k -a '12h 7d 30d 90d 180d 365d'
