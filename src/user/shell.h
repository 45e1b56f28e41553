// The hooks with which shells look for messages before their prompts, and the switch in /etc for
// shells that read no folder there.
#pragma once

#include <string>
#include <string_view>

// ---- Hooks --------------------------------------------------------------------------------

struct hook_place {
    std::string program; // path of the recipients' program
    std::string mailbox; // empty: the hook asks the program, once
    // Assignments before the program's name, each ending in a blank.
    std::string environment;
};

// Returns the text that the shell evaluates. Empty for an unknown shell.
[[nodiscard]] std::string hook_text(std::string_view shell, const hook_place &place);

// /etc/profile.d/tellbox.sh, for login shells of every kind.
[[nodiscard]] std::string profile_text(const std::string &program);

// Returns `text` quoted, so that a shell reads it as one word, whatever it holds.
[[nodiscard]] std::string shell_word(std::string_view text);

// ---- The switch ---------------------------------------------------------------------------

// The text of a shell's file with the block that loads the hook, or without it. False when the
// file holds half a block: then nothing is changed. A block that is whole and up to date stays
// where it is.
[[nodiscard]] bool with_block(std::string_view text, std::string *out);
[[nodiscard]] bool without_block(std::string_view text, std::string *out);
