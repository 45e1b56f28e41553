// Records an answer that was given on the desktop.
#pragma once

#include <cstdint>
#include <string>

enum class desktop_answer { read, later };

struct answer_outcome {
    enum class kind {
        recorded,  // now or earlier
        withdrawn, // the message was withdrawn meanwhile: the answer does not count
        failed,    // the message still waits
    } what = kind::recorded;
    std::string reason; // of a failure, for the user
};

// Writes the answer and its event. A failure is printed too.
[[nodiscard]] answer_outcome record_answer(const std::string &owner, int64_t id,
                                           desktop_answer given);
