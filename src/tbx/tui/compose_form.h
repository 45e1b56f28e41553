// The state of the form for a new message, and what the keys do to it. Nothing here draws or
// starts anything.
#pragma once

#include "tbx/screen/keys.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

enum compose_focus { COMPOSE_TO = 0, COMPOSE_TITLE = 1, COMPOSE_EXPIRES = 2, COMPOSE_TEXT = 3 };
constexpr size_t COMPOSE_FIELDS = 3;          // the fields of one line
constexpr int COMPOSE_FIELD_MAX_BYTES = 1000; // a value of this length takes no more characters

struct compose_field {
    std::string value;
    size_t cursor = 0; // byte offset, at a character's start or at the end
    int scroll = 0;    // first column shown
};

struct compose_text {
    std::vector<std::string> lines = {""}; // never empty
    size_t line = 0;                       // of the cursor
    size_t cursor = 0;                     // byte offset in that line
    size_t top = 0;                        // first line shown
    int scroll = 0;                        // first column shown of the cursor's line
};

// A send that failed or was interrupted. It may have created a message all the same.
struct compose_try {
    std::vector<int64_t> ids_before; // of the messages there were, ascending
    std::string title;               // as they would have been stored
    std::string text;
};

struct compose_form {
    std::array<compose_field, COMPOSE_FIELDS> fields;
    compose_text text;
    int focus = COMPOSE_TO;
    std::string preview; // whom To reaches, or why nobody; may be styled; empty for none
    std::string notice;  // shown beside the text's size until a key; empty for none
    std::vector<compose_try> tries;
    std::string edited_path; // of a file that the editor left and nobody was told of
};

// Applies an editing or moving key; every other key changes nothing.
void compose_press(compose_form *form, tui_key key, std::string_view character);

// Inserts pasted text at the cursor: as lines into the text, as one line into a field. A field
// takes as much as it would if it were typed; returns false if that is not all.
[[nodiscard]] bool compose_paste(compose_form *form, std::string_view pasted);

// Whether nothing has been written.
[[nodiscard]] bool compose_is_empty(const compose_form &form);
[[nodiscard]] bool compose_has_text(const compose_text &text);

// The text with its lines joined by newlines, and the length of that in bytes.
[[nodiscard]] std::string compose_text_joined(const compose_text &text);
[[nodiscard]] size_t compose_text_bytes(const compose_text &text);

// Replaces the text, without its trailing newlines; the cursor goes to its end.
void compose_set_text(compose_text *text, std::string_view joined);
