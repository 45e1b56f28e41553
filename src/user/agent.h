// The desktop agent: one for each user, for as long as there is a desktop. It opens a window for
// each message that is due, and records the user's answer.
#pragma once

// Runs until the desktop ends or a signal asks for the end. Returns the exit status.
[[nodiscard]] int agent_run();
