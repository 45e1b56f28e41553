// What the user's commands share, and the commands themselves. A command returns the exit status, 0
// or 1; an error that makes it impossible to go on ends the process through die().
#pragma once

#include "user/answer.h"
#include "user/inbox.h"

#include <cstdint>
#include <string>

// ---- The commands -------------------------------------------------------------------------
// The words after the command's name.

using arguments = std::vector<std::string>;

int cmd_list();
int cmd_show(const arguments &ids);
int cmd_read(const arguments &ids);
int cmd_later(const arguments &ids);
int cmd_ask(); // "tellbox" alone
int cmd_hook(const arguments &shells);
int cmd_mailbox();
int cmd_prompt(const arguments &words);
int cmd_shells(const arguments &words);
int cmd_help();

// ---- The own mailbox ----------------------------------------------------------------------

// The name of the own account. Ends the process if there is none.
[[nodiscard]] std::string own_account_or_die();

// Opens the own mailbox and finishes what killed runs have left there. `folder` is empty if there
// is no mailbox. Ends the process if it cannot be opened.
[[nodiscard]] own_mailbox open_own_mailbox_or_die();

// Opens it again, to see folders that were made since. If it fails, with errno, or if the mailbox
// is gone, `box` stays as it was.
[[nodiscard]] mailbox_look reopen_mailbox(own_mailbox *box);

// ---- Identifiers --------------------------------------------------------------------------

// Parses an identifier from the command line, 1 to 18 digits. For anything else prints a diagnostic
// and returns false.
[[nodiscard]] bool parse_identifier(const std::string &argument, int64_t *id);

// ---- Sentences ----------------------------------------------------------------------------
// Each is one line without its end.

// "on 21/11 22:05 (desktop)", as far as the answer holds it.
[[nodiscard]] std::string answer_moment(const answer_record &answer);
// "Message 12 was already confirmed on 21/11 22:05 (desktop)."
[[nodiscard]] std::string already_confirmed_sentence(int64_t id, const answer_record &answer);
// "Answer with: ...", for one message.
[[nodiscard]] std::string how_to_answer_sentence(int64_t id);
// "30 minutes", for "it comes back in ...".
[[nodiscard]] std::string remind_period(int64_t seconds);

// Prints on standard output that no message waits.
void print_nothing_waits();

// Diagnostics for a message that cannot be answered or shown.
void warn_no_such_message(int64_t id);
void warn_withdrawn(int64_t id);
void warn_not_a_file(const own_mailbox &box, int64_t id);
void warn_unreadable(int64_t id, int error);
void warn_unreadable_answer(int64_t id, int error);

// ---- Answering ----------------------------------------------------------------------------

// Answers one message on the terminal channel and prints the result. Returns 0, or 1 after a
// diagnostic.
int confirm_and_tell(own_mailbox *box, int64_t id);
int postpone_and_tell(own_mailbox *box, int64_t id);

// Marks a message as shown after it was printed, if standard output is a terminal: elsewhere nobody
// has seen it. If the mark cannot be written, the message is shown once more.
void note_shown(own_mailbox *box, int64_t id);

// ---- The terminal -------------------------------------------------------------------------

struct terminal_size {
    int rows = 24;
    int columns = 80;
};

// Returns the size of the terminal on standard output.
[[nodiscard]] terminal_size output_size();

// Whether both standard input and output are terminals.
[[nodiscard]] bool is_on_terminal();

// Whether the terminal can do nothing but print lines, like that within an editor: it sends what is
// typed line by line, and pagers do not work in it.
[[nodiscard]] bool is_dumb_terminal();

// Returns the rows that `text` takes on a terminal of that width. A character that may be wide
// counts as two columns.
[[nodiscard]] size_t rows_of(std::string_view text, int columns);

enum class shown_in { nowhere, screen, pager };

// Shows a message in its frame: through the pager if it is longer than the screen, otherwise, and
// on a dumb terminal, directly. `footer`, which may be empty, is a line below it. Returns
// shown_in::nowhere if it could not be written.
[[nodiscard]] shown_in show_message(const message_record &message, const std::string &footer);

// Returns the first line of the frame, without its end.
[[nodiscard]] std::string message_headline_of(const message_record &message);
