#pragma once
// Fields of the engine record written by channel decoding and transport output that other stages read.
#include <cstdint>

#include "shell/relaxed_word.h"

namespace zfn {

struct DecoderFields {
};

}  // namespace zfn
