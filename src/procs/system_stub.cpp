// The private `system` of the library: local, so that neither the shared nor the static library
// captures a call to libc's. Its warning stands in system_warning.cpp.

namespace {

// Declared here and named by hand: libc's header would make it the external function.
[[gnu::used]] int refuseSystem(const char *command) __asm__("system");

int refuseSystem(const char *) {
    return -1;
}

}  // namespace
