// The page on which a message is written and sent.
#pragma once

// Runs the form until the message is sent or abandoned.
void compose_page();
