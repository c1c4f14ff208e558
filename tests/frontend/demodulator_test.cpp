// Demodulator programming, tuning and the clock and carrier corrections, call by call against the
// test device library, which records every call and keeps a register file: every register sequence
// is checked against one golden log (ZFN_UPDATE_GOLDEN=1 rewrites it from the code's output).
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "frontend/device_binding.h"
#include "shell/device_state.h"
#include "shell/stages.h"
#include "tests/support/test_device/test_device_control.h"

namespace zfn {
namespace {

// A fresh device whose register file holds a known pattern, so that read-modify-writes show.
void FreshDevice() {
  TestDevice_Reset();
  for (int p = 0; p < 2; ++p)
    for (int a = 0; a < 256; ++a) TestDevice_SetRegister(p, a, static_cast<uint8_t>(p * 0x5B + a * 0x3D + 0x11));
}

// The calls so far, shortened: "W page address bytes" for a register write, "R page address count"
// for a read, the other functions without their prefix.
std::vector<std::string> Calls() {
  std::vector<std::string> calls;
  char line[128];
  for (int i = 0; i < TestDevice_CallCount(); ++i) {
    TestDevice_GetCall(i, line, sizeof line);
    std::string call = line;
    if (call.rfind("ZFN_Demod_Byte_Write ", 0) == 0) call.erase(25, 2).replace(0, 21, "W ");
    if (call.rfind("ZFN_Demod_Byte_Read ", 0) == 0) call.replace(0, 20, "R ");
    if (call.rfind("ZFN_", 0) == 0) call.erase(0, 4);
    calls.push_back(call);
  }
  return calls;
}

class Demodulator : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(BindDeviceLibrary(), 1);
    ASSERT_EQ(TestDevice_Flavour(), std::string("testdevice"));  // the same library the binding found
    FreshDevice();
  }
  void TearDown() override {
    UnbindDeviceLibrary();
    device.tunerType = 0;
  }
};

struct Scenario {
  std::string name;
  std::function<int32_t()> run;
};

std::vector<Scenario> Scenarios() {
  std::vector<Scenario> s;
  const auto failing = [](const char* f, std::function<int32_t()> run) {
    return [=] { TestDevice_FailFunction(f, 0, 1); return run(); };
  };
  for (int t = 0; t <= 7; ++t)
    s.push_back({"programme of tuner type " + std::to_string(t), [t] { device.tunerType = t; return ProgramDemodulator(); }});
  // Retune: tuner (600 kHz above the channel), IF word back to the channel plus an extra offset in
  // either direction (22 bits, top two clear), clock offset cleared, reset pulse. Nothing follows a
  // failed tuner call; a failed register write still lets the later writes and the pulse through.
  for (const int offset : {0, 100, -700})
    s.push_back({"tune 557143 kHz offset " + std::to_string(offset), [offset] { return TuneFrontEnd(557143, 6, offset); }});
  for (const char* f : {"ZFN_Set_Frequency", "ZFN_Set_Bandwidth", "ZFN_DeviceUpdate", "ZFN_Demod_Byte_Write"})
    s.push_back({std::string("tune 473143 kHz, ") + f + " fails", failing(f, [] { return TuneFrontEnd(473143, 6, 0); })});
  // Sample clock offset, absolute: floor(ppm * 2^24 / 10^6) in 14 bits.
  for (const float ppm : {-1.0f, 2.5f, 0.0f})
    s.push_back({"clock absolute " + testing::PrintToString(ppm), [ppm] { return WriteSampleClockOffset(0, ppm); }});
  s.push_back({"clock absolute, write fails", failing("ZFN_Demod_Byte_Write", [] { return WriteSampleClockOffset(0, 1.0f); })});
  // Relative, from the word's two bytes as set: added to the word read back, wrapped to 14 bits both
  // ways, only changed bytes written (bits 7 and 6 of the high byte stay out of the sum but make the
  // compare differ); after a failed read nothing is written, after a failed high byte the low byte
  // is not tried.
  const struct {
    const char* name;
    uint8_t hi, lo;
    float ppm;
    const char* failing;
  } relative[] = {{"00 05 -1", 0x00, 0x05, -1.0f, nullptr},  {"00 00 -0.01", 0x00, 0x00, -0.01f, nullptr},
                  {"3f ff +0.1", 0x3F, 0xFF, 0.1f, nullptr},  {"01 10 +0.5", 0x01, 0x10, 0.5f, nullptr},
                  {"c1 10 +0.5", 0xC1, 0x10, 0.5f, nullptr},  {"12 34 0", 0x12, 0x34, 0.0f, nullptr},
                  {"00 05 -1, read fails", 0x00, 0x05, -1.0f, "ZFN_Demod_Byte_Read"},
                  {"00 05 -1, write fails", 0x00, 0x05, -1.0f, "ZFN_Demod_Byte_Write"}};
  for (const auto& r : relative) {
    s.push_back({std::string("clock relative ") + r.name, [r] {
                   TestDevice_SetRegister(1, 0x3E, r.hi);
                   TestDevice_SetRegister(1, 0x3F, r.lo);
                   if (r.failing != nullptr) TestDevice_FailFunction(r.failing, 0, 1);
                   return WriteSampleClockOffset(1, r.ppm);
                 }});
  }
  // Carrier offset: added to the IF word read back (top bits outside the 22-bit word), or absolute.
  s.push_back({"carrier relative +100 on c1 55 55, then absolute 600", [] {
                 for (const auto& [address, value] : {std::pair{0x16, 0xC1}, {0x17, 0x55}, {0x18, 0x55}})
                   TestDevice_SetRegister(1, address, static_cast<uint8_t>(value));
                 return WriteCarrierOffset(1, 100.0f) + 2 * WriteCarrierOffset(0, 600.0f);
               }});
  return s;
}

TEST_F(Demodulator, EveryRegisterSequenceAsInTheGoldenLog) {
  std::string log;
  for (const Scenario& scenario : Scenarios()) {
    FreshDevice();
    const int32_t result = scenario.run();
    device.tunerType = 0;
    std::string line = "== " + scenario.name + " -> " + std::to_string(result) + ":";
    for (const std::string& call : Calls()) {
      if (line.size() + call.size() > 148) log += line + "\n", line = " ";
      line += " " + call + ";";
    }
    log += line + "\n";
  }
  const std::string path = std::string(ZFN_GOLDEN_DIR) + "/demodulator_programme.log";
  if (std::getenv("ZFN_UPDATE_GOLDEN") != nullptr) std::ofstream(path) << log;
  std::ifstream file(path);
  std::istringstream got(log);
  std::string want, line;
  for (int n = 1; std::getline(file, want); ++n) {
    ASSERT_TRUE(std::getline(got, line)) << "missing from line " << n << ": " << want;
    ASSERT_EQ(line, want) << "line " << n << " of " << path;
  }
  EXPECT_FALSE(std::getline(got, line)) << "more than the golden log: " << line;
}

TEST_F(Demodulator, OneFailedAccessFailsTheProgrammeButNotTheRestOfIt) {
  device.tunerType = 5;
  EXPECT_NE(ProgramDemodulator(), 0);
  const int complete = TestDevice_CallCount();
  for (const char* function : {"ZFN_Demod_Byte_Write", "ZFN_Demod_Byte_Read"}) {
    SCOPED_TRACE(function);
    FreshDevice();
    TestDevice_FailFunction(function, 10, 1);
    EXPECT_EQ(ProgramDemodulator(), 0);
    EXPECT_EQ(TestDevice_CallCount(), complete);
  }
}

TEST(DemodulatorUnbound, AccessWithoutALibraryFailsCleanly) {
  UnbindDeviceLibrary();
  EXPECT_EQ(PulseDemodReset(), 0);
  EXPECT_EQ(WriteSampleClockOffset(1, 1.0f), 0);
  EXPECT_EQ(TuneFrontEnd(473143, 6, 0), 1);
  EXPECT_EQ(ProgramDemodulator(), 0);
}

}  // namespace
}  // namespace zfn
