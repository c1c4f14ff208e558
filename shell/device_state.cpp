#include "shell/device_state.h"

namespace zfn {

DeviceState device;

}  // namespace zfn
