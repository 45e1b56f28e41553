// Waking or starting the desktop agent of a user who is logged in to a graphical desktop.
#pragma once

#include "tbx/accounts.h"

// Wakes the user's running agent with SIGUSR1, or else starts one through the user's service
// manager. Does nothing in test mode or without a live graphical session. Reports nothing.
void agent_start(const resolved_user &user);

// Runs in the child, as the user. The argument is a const uint32_t *, the user's UID. Exit status 0
// when a running agent has been signalled, else 1.
int agent_wake_existing(void *argument);
