#pragma once
// ReceiverState: the one engine record of the process. Each subsystem declares the fields it writes
// in its own group (shell, acquisition, tracking, decoder); the record joins the groups so that
// every stage reads every field by its plain name: engine.readPos, engine.symbolIndex, ...
// TrackerState and DecoderState, the stage-private records of tracking and decoding, stand beside it.
#include "acquisition/acquisition_fields.h"
#include "decoder/decoder_fields.h"
#include "shell/shell_fields.h"
#include "tracking/tracking_fields.h"

namespace zfn {

struct ReceiverState : ShellFields, AcquisitionFields, TrackingFields, DecoderFields {};

// The engine record, zero at load (static storage), one per process.
extern ReceiverState engine;

}  // namespace zfn
