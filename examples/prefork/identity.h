// Who the server is while it serves.
#pragma once

// Started as root, becomes the user for good: user and group ids, supplementary groups. Whoever is
// not root stays who he is, and may name nobody else. Returns false, with the reason in the log.
bool becomeUser(const char *user);
