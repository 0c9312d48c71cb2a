// Going into the background without a word too early: the program that was started stays until the
// server serves, or cannot, and says which.
#pragma once

// Returns in the server's process; the calling one ends with status 0 and "serving" on its standard
// output once nowServing() is called, or with status 1 and what was logged until then. Returns
// false with errno if there is no other process to be had.
bool goIntoBackground();

// Says that the server serves: to whoever waits for it, or on standard output.
void nowServing();

// In a worker: it has nothing to tell the program that was started.
void forgetLauncher();

// Copies a line of the log to the program that was started, while that waits.
void tellLauncher(const char *line, unsigned long length);
