// The system and threads calls by which arenas and tables are made, to fail or to die at.
//
// The calls that the CMakeLists.txt beside this names to the linker ask the hook first, wherever in
// the test program they are made; calls inside shared libraries do not.
#pragma once

#include <functional>
#include <string_view>

// Gets the call's name. 0 lets the call through, an error number makes it fail so. Not called while
// it is running itself.
extern std::function<int(std::string_view call)> callHook;

// A hook that lets the call of that name fail, after so many that it lets through.
inline std::function<int(std::string_view)> failing(std::string_view call, int error,
                                                    int letThrough = 0) {
    return
        [=](std::string_view now) mutable { return now == call && letThrough-- == 0 ? error : 0; };
}
