#pragma once
// Fields of the engine record written by acquisition: numerology, detection, coarse and frame synchronisation, TMCC.
#include <cstdint>

#include "shell/relaxed_word.h"

namespace zfn {

struct AcquisitionFields {
};

}  // namespace zfn
