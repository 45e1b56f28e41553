// Finishes what an interrupted run left behind.
#pragma once

// Brings every message with a mark of an interrupted operation to a consistent state: completes or
// cancels sends, finishes revocations and purges. Skips messages that another run is working on.
// What cannot be finished is left for the next run. Reports through warn().
void recover_interrupted();
