#pragma once
// Fields of the engine record written by symbol tracking that other stages read.
#include <cstdint>

#include "shell/relaxed_word.h"

namespace zfn {

struct TrackingFields {
};

}  // namespace zfn
