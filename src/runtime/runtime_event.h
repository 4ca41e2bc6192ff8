// Internal seam between the start of the library and the event engine.
#pragma once

// Marks the first n entries of the descriptor table free.
void select_table_reset(int n);
// Creates the timer and posted-function lists, the tick and post pipes with their table entries, and
// starts the event thread and the timer thread. Logs the failing step and gives 0; nothing made so
// far is undone.
int event_engine_start(void);
