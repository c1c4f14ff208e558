#pragma once
// What the stand-in sample clock write recorded.
namespace zfn::test {
extern int clockWrites;
extern float clockWritePpm;
}  // namespace zfn::test
