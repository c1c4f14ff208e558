#pragma once
// The debug output sink of the log lines. Silent unless the environment variable names a target:
// "stderr" for standard error, any other non-empty value is a file that each text is appended to.
// Each text goes out in one write, exactly as formatted.
namespace zfn::platform {

inline constexpr const char* DEBUG_OUTPUT_VARIABLE = "ZFNISDBT_DEBUG_OUTPUT";

void DebugOutput(const char* text);

}  // namespace zfn::platform
