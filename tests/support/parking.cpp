// Makes the loop park all descriptors in epoll or none, whatever they cost, so that the same tests
// hold for both ways of asking. The library itself reads no environment.
#include "sched/ready_internal.h"

#include <cstdlib>
#include <string_view>

namespace {

const bool isSet = [] {
    const char *word = std::getenv("IOSCHED_TEST_PARKING");
    parkingPolicy =
        word != nullptr && std::string_view(word) == "always" ? Parking::kAlways : Parking::kNever;
    return true;
}();

}  // namespace
