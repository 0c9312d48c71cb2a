// Whose eyes the kernel looks through: it checks every permission for us, as the user of the
// request.
#pragma once

#include <cstdint>

// Takes on a user's identity towards the file system, with the user's groups, until the next call.
// With a group that the user belongs to, new files get it. Does nothing in a server that was not
// started as root: there all users are the server's.
void actAs(uint32_t uid, uint32_t group = ~0u);
