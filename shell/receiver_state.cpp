#include "shell/receiver_state.h"

namespace zfn {

ReceiverState engine;

}  // namespace zfn
