// The page of one message: its facts, its text, its recipients and its history.
#pragma once

#include <cstdint>

// Shows message `id` until the user leaves or the message is gone.
void detail_view(int64_t id);
