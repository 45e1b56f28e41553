#include "tbx/guide/texts.h"

// ---- Tables -------------------------------------------------------------------------------

static constexpr const char *SYNOPSIS[] = {
    "tbx send --to DEST [options] [TEXT]",
    "tbx list",
    "tbx status ID",
    "tbx",
    "tbx revoke ID",
    "tbx remind ID",
    "tbx log ID",
    "tbx purge DURATION",
    "tbx version",
};
const guide_table GUIDE_SYNOPSIS = SYNOPSIS;

static constexpr const char *COMMANDS[] = {
    "(no command)¦In a terminal, opens the interactive interface: the messages with their "
    "recipients and history; write and send, revoke, remind, delete old messages. In a pipe, shows "
    "this guide.",
    "send [options] [TEXT]¦Sends a message to the recipients given with --to. Without TEXT or "
    "--file, the text is read from stdin.",
    "list¦Lists the messages sent, with how many recipients have confirmed each one.",
    "status ID¦Shows the text of the message and the state of each recipient: sent, delivered (in "
    "their mailbox) or confirmed, with date, time and channel.",
    "revoke ID¦Revokes a message: whoever has not seen it yet will not see it, and dialogs and "
    "questions still open close by themselves.",
    "remind ID¦Reminds whoever has not confirmed yet: the question comes back at their next prompt "
    "and the dialog reappears on the desktop, even if they had postponed it.",
    "log ID¦Shows the history of the message from the system log: sending, deliveries, "
    "postponements, confirmations and revocation, with date and time.",
    "purge DURATION¦Deletes the messages sent more than DURATION ago (for example 90d), with the "
    "copies and confirmations in the users' mailboxes; the events stay in the system log.",
    "version¦Shows the Tellbox version.",
    "help, --help, -h¦Shows this guide.",
};
const guide_table GUIDE_COMMANDS = COMMANDS;

static constexpr const char *SEND_OPTIONS[] = {
    "--to DEST¦Recipients, separated by commas without spaces: a user (pat), a Unix group "
    "(@developers), all (every human user) or online (only those logged in now).",
    "--title TITLE¦Title shown in the message header and in the desktop dialog.",
    "--expires DURATION¦Expiry, after which the message is no longer shown: 30m, 2h, 3d or a date "
    "and time (\"2026-10-04 12:00\").",
    "--file FILE¦Reads the message text from FILE.",
};
const guide_table GUIDE_SEND_OPTIONS = SEND_OPTIONS;

static constexpr const char *EXAMPLES[] = {
    "tbx send --to pat \"Your account expires on Friday.\"¦Message with read confirmation to a "
    "single user.",
    "tbx send --to @developers --title Maintenance --file notice.txt¦Text taken from a file, with "
    "a title, to every member of the developers group.",
    "tbx send --to online --expires 15m \"Reboot at 13:00.\"¦Urgent notice to whoever is logged in "
    "now; after 15 minutes it is no longer shown or asked about.",
    "tbx send --to all --expires 3d \"New password policy.\"¦To every user; after three days it "
    "stops being shown.",
    "tbx list¦Which messages were sent and how many confirmations they have.",
    "tbx status 12¦Who confirmed message 12, when and from where.",
    "tbx log 12¦The history of message 12: sending, deliveries, postponements, confirmations.",
    "tbx purge 90d¦Deletes the messages older than 90 days, with copies and confirmations.",
    "tbx revoke 12¦Revokes message 12.",
    "tbx remind 12¦Asks again, right now, whoever has not confirmed message 12.",
};
const guide_table GUIDE_EXAMPLES = EXAMPLES;

static constexpr const char *FILES[] = {
    "/etc/tellbox/tellbox.conf¦Configuration: minutes before a postponed message is asked about "
    "again, check interval of the desktop agent.",
    "/var/lib/tellbox/¦The messages: sent/ (reference copies, root only) and users/USER/ (each "
    "user's mailbox, readable only by them and by root).",
    "sudo journalctl -t tbx¦The system log: sending, deliveries, confirmations and revocations.",
    "/usr/local/share/doc/tellbox/User Manual.html¦The complete user manual, to open in a browser.",
};
const guide_table GUIDE_FILES = FILES;

static constexpr const char *ENVIRONMENT[] = {
    "PAGER¦Pager used to page this guide when the terminal is too small for the interactive one "
    "(default: less). Like NO_COLOR, it reaches tbx only if sudo keeps it (env_keep in sudoers).",
    "NO_COLOR¦If set, disables colours.",
};
const guide_table GUIDE_ENVIRONMENT = ENVIRONMENT;

static constexpr const char *EXIT_STATUS[] = {
    "0¦Completed successfully.",
    "1¦Error: the error message, starting with «tbx:», says which.",
};
const guide_table GUIDE_EXIT_STATUS = EXIT_STATUS;

// ---- Free texts ---------------------------------------------------------------------------

const char *const MANUAL_NAME_LINE =
    "tbx — sends messages to the users of the machine and tracks their read confirmation";

const char *const GUIDE_NAME_LINE = "tbx — messages to users with read confirmation";

const char *const GUIDE_DESCRIPTION =
    "Tellbox lets administrators send text messages to the users of the machine and know who has "
    "read them. Messages appear in terminals (console, ssh, desktop terminals, tmux) and on the "
    "desktop, in a dialog with the buttons «I have read it» and «Later»; whoever is not logged in "
    "finds them at the next login. Every message asks for a read confirmation and Tellbox asks "
    "again until the user gives it, without ever blocking their work. The command is reserved to "
    "administrators (sudo or wheel group) and re-runs itself with sudo.";

const char *const GUIDE_SEE_ALSO =
    "wall(1), write(1), and the user manual in /usr/local/share/doc/tellbox/User Manual.html";

const char *const GUIDE_INFO_FOOTER =
    "Tellbox " TBX_VERSION " · complete manual: /usr/local/share/doc/tellbox/User Manual.html";
