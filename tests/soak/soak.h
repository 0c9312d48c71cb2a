// Long runs that must leave descriptors, heap and children as they were.
#pragma once

// Plays the rounds of one item, or the share of them that the command line asks for, prints a line
// about it, and returns whether it left nothing behind. Some rounds before the counted ones let the
// C library and the pools take what they keep.
bool soak(const char *name, int rounds, void (*playRound)(int round));

// Ends the program: a round did not do what it should have done.
[[noreturn]] void soakFailed(const char *what, int got);

// One for each source file of items.
bool soakSched();
bool soakProcsAio();
bool soakStorms();
