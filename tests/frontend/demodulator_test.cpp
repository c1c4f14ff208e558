// Demodulator programming, tuning and the clock and carrier corrections, checked register by
// register against the test device library, which records every access and keeps a register file.
#include <cstdio>
#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "frontend/device_binding.h"
#include "shell/device_state.h"
#include "shell/stages.h"
#include "tests/support/test_device/test_device_control.h"

namespace zfn {
namespace {

// One register access as "W|R page address bytes...".
std::string Describe(bool write, int page, int address, const uint8_t* bytes, size_t count) {
  char text[64];
  std::snprintf(text, sizeof text, "%s %d %02x", write ? "W" : "R", page, address);
  std::string s = text;
  for (size_t i = 0; i < count; ++i) {
    std::snprintf(text, sizeof text, " %02x", bytes[i]);
    s += text;
  }
  return s;
}

uint8_t InitialRegister(int page, int address) { return static_cast<uint8_t>(page * 0x5B + address * 0x3D + 0x11); }

// What the device should see, built from the register programme as written down, on a register
// file of its own that starts where the test device's does.
class ExpectedSequence {
 public:
  ExpectedSequence() {
    for (int p = 0; p < 2; ++p)
      for (int a = 0; a < 256; ++a) registers_[p][a] = InitialRegister(p, a);
  }

  void W(int page, int address, std::vector<uint8_t> bytes) {
    for (size_t i = 0; i < bytes.size(); ++i) registers_[page][address + i] = bytes[i];
    accesses.push_back(Describe(true, page, address, bytes.data(), bytes.size()));
  }
  uint8_t R(int page, int address) {
    accesses.push_back(Describe(false, page, address, &registers_[page][address], 1));
    return registers_[page][address];
  }
  void SetBits(int page, int address, uint8_t bits) { W(page, address, {static_cast<uint8_t>(R(page, address) | bits)}); }
  void ClearBits(int page, int address, uint8_t bits) {
    W(page, address, {static_cast<uint8_t>(R(page, address) & ~bits)});
  }

  // Record lists as "id=value" rows. Fields: page, address, top bit, bottom bit. The records wider
  // than a byte (25, 30, 31) are cut to their low byte, written over the whole address, and the
  // byte above is never touched: the exact comparison of the programme holds that cut.
  void Records(const std::string& rows) {
    static const std::map<int, std::array<int, 4>> fields = {
        {0, {0, 0x0E, 1, 1}},   {1, {0, 0x0E, 0, 0}},   {5, {1, 0x08, 7, 0}},   {6, {1, 0x09, 7, 0}},
        {7, {1, 0x0A, 7, 0}},   {8, {1, 0x0B, 7, 0}},   {11, {1, 0x12, 7, 0}},  {12, {1, 0x02, 0, 0}},
        {13, {1, 0x03, 7, 0}},  {14, {1, 0xC7, 5, 1}},  {15, {1, 0x04, 4, 1}},  {16, {1, 0x05, 7, 7}},
        {17, {1, 0xC8, 4, 0}},  {18, {1, 0x06, 5, 0}},  {19, {1, 0xC9, 5, 0}},  {20, {1, 0xCA, 5, 0}},
        {21, {1, 0xCB, 7, 0}},  {22, {1, 0x07, 7, 0}},  {23, {1, 0xCD, 7, 0}},  {24, {1, 0xCE, 7, 0}},
        {25, {0, 0x11, 15, 0}}, {26, {0, 0x08, 7, 7}},  {27, {0, 0x08, 6, 6}},  {28, {0, 0xB9, 3, 3}},
        {29, {1, 0xE5, 0, 0}},  {30, {1, 0xD9, 8, 0}},  {31, {1, 0xDB, 8, 0}},  {32, {1, 0xDD, 7, 0}},
        {33, {1, 0xDE, 7, 0}},  {34, {1, 0xD8, 3, 0}},  {35, {1, 0xE6, 3, 3}},  {36, {1, 0xD7, 0, 0}},
        {37, {0, 0x0D, 1, 0}},  {38, {0, 0x0D, 2, 2}},  {39, {0, 0x0D, 7, 7}},  {40, {0, 0x10, 0, 0}},
        {41, {0, 0x13, 0, 0}}};
    std::istringstream in(rows);
    std::string row;
    while (in >> row) {
      const int id = std::stoi(row.substr(0, row.find('=')));
      const unsigned value = std::stoul(row.substr(row.find('=') + 1), nullptr, 16);
      const auto& f = fields.at(id);
      uint8_t fieldMask = 0;
      for (int bit = f[3]; bit <= f[2] && bit < 8; ++bit) fieldMask |= static_cast<uint8_t>(1u << bit);
      const uint8_t old = R(f[0], f[1]);
      W(f[0], f[1], {static_cast<uint8_t>((old & ~fieldMask) | static_cast<uint8_t>(value << f[3]))});
    }
  }

  std::vector<std::string> accesses;

 private:
  uint8_t registers_[2][256];
};

std::vector<std::string> RecordedAccesses() {
  std::vector<std::string> list;
  for (int i = 0; i < TestDevice_AccessCount(); ++i) {
    int32_t isWrite = 0, page = 0, address = 0, count = 0, ok = 0;
    uint8_t bytes[4] = {};
    TestDevice_GetAccess(i, &isWrite, &page, &address, &count, bytes, &ok);
    list.push_back(Describe(isWrite != 0, page, address, bytes, static_cast<size_t>(count)));
  }
  return list;
}

std::vector<std::string> RecordedCalls() {
  std::vector<std::string> calls;
  char line[128];
  for (int i = 0; i < TestDevice_CallCount(); ++i) {
    TestDevice_GetCall(i, line, sizeof line);
    calls.emplace_back(line);
  }
  return calls;
}

void ExpectSameSequence(const std::vector<std::string>& expected, const std::vector<std::string>& actual) {
  const size_t n = std::min(expected.size(), actual.size());
  for (size_t i = 0; i < n; ++i) {
    ASSERT_EQ(actual[i], expected[i]) << "access " << i;
  }
  EXPECT_EQ(actual.size(), expected.size());
}

class Demodulator : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(BindDeviceLibrary(), 1);
    ASSERT_EQ(TestDevice_Flavour(), std::string("testdevice"));  // the same library the binding found
    TestDevice_Reset();
    for (int p = 0; p < 2; ++p)
      for (int a = 0; a < 256; ++a) TestDevice_SetRegister(p, a, InitialRegister(p, a));
  }
  void TearDown() override {
    UnbindDeviceLibrary();
    device.tunerType = 0;
  }
};

// The whole programme for one tuner type, as written down for the chip.
ExpectedSequence ProgrammeFor(int tunerType) {
  ExpectedSequence e;
  const bool of1235 = tunerType == 1 || tunerType == 2 || tunerType == 3 || tunerType == 5;
  if (of1235) {
    e.W(0, 0x08, {0xCD});
    e.W(1, 0xB1, {0x1F});
  }
  e.W(1, 0x3E, {0x00, 0x00});
  e.W(1, 0x15, {0x00});
  e.W(1, 0x16, {0x00, 0x00, 0x00});
  if (tunerType == 4) e.W(1, 0x19, {0x35, 0xD8, 0x2E});
  if (of1235 || tunerType == 6) e.W(1, 0x19, {0x00, 0x00, 0x00});
  e.W(1, 0x9F, {0x03, 0x8B, 0x33, 0x30});
  const uint8_t filter[20] = {0xCA, 0xDC, 0xD7, 0xD8, 0xE0, 0xF2, 0x0E, 0x35, 0x06, 0x50,
                              0x9C, 0x0D, 0x71, 0x11, 0x14, 0x71, 0x74, 0x19, 0x41, 0xA5};
  for (int i = 0; i < 20; ++i) e.W(1, 0x1C + i, {filter[i]});
  const int singles[][3] = {{0, 0x17, 0x08}, {0, 0x18, 0x10}, {0, 0x19, 0x21}, {0, 0x1F, 0x02}, {0, 0x1E, 0x02},
                            {0, 0x1D, 0xFA}, {0, 0x1C, 0xF9}, {0, 0x1B, 0x13}, {0, 0x1A, 0x37}, {1, 0x92, 0x00},
                            {1, 0x93, 0xF0}, {1, 0x94, 0x0F}, {0, 0x61, 0x60}, {0, 0x20, 0x40}};
  for (const auto& [page, address, value] : singles) e.W(page, address, {static_cast<uint8_t>(value)});
  e.W(0, 0x06, {static_cast<uint8_t>(tunerType == 3 ? 0x90 : 0x80)});

  const std::string head =
      "11=%A 12=00 13=%B 14=%C 15=%D 16=01 17=%C 18=35 19=21 20=21 21=00 22=40 23=10 24=10 5=80 6=7F 7=%E 8=7F ";
  auto list = [&head](const char* a, const char* b, const char* c, const char* d, const char* x, const char* tail) {
    std::string rows = head;
    for (auto [key, value] : {std::pair{"%A", a}, {"%B", b}, {"%C", c}, {"%D", d}, {"%E", x}}) {
      for (size_t at; (at = rows.find(key)) != std::string::npos;) rows.replace(at, 2, value);
    }
    return rows + tail;
  };
  switch (tunerType) {
    case 1:
      e.SetBits(0, 0x0E, 0x03);
      for (const auto& [address, value] : {std::pair{0x08, 0x80}, {0x09, 0xB0}, {0x04, 0xDE}, {0xCB, 0x38},
                                           {0x06, 0x20}, {0xC9, 0x80}, {0xCA, 0x80}})
        e.W(1, address, {static_cast<uint8_t>(value)});
      break;
    case 2:
      e.ClearBits(0, 0x0E, 0x03);
      break;
    case 3:
      e.ClearBits(0, 0x0E, 0x03);
      e.ClearBits(0, 0x09, 0x0F);
      e.Records(list("39", "5A", "16", "06", "9C", ""));
      e.W(0, 0x11, {0xE9});
      e.W(0, 0x12, {0xF4});
      break;
    case 4:
      e.Records(list("39", "32", "16", "06", "80", "0=00 1=00 25=E9D4 27=00 28=00"));
      break;
    case 5:
      e.Records(list("5A", "5A", "18", "08", "80",
                     "0=00 1=00 25=E9D4 29=00 30=00 31=00 32=14 33=EC 34=0C 35=00 36=01 39=01 40=01 38=01 "
                     "37=01 41=00"));
      break;
    case 6:
      e.Records(list("5A", "5A", "16", "06", "80",
                     "0=00 1=00 29=00 30=00 31=00 32=11 33=EF 34=0C 35=00 36=01 26=01 27=01"));
      break;
    default:
      break;
  }
  const uint8_t reset = e.R(1, 0x01);
  e.W(1, 0x01, {static_cast<uint8_t>(reset | 0x04)});
  e.W(1, 0x01, {static_cast<uint8_t>(reset & ~0x04)});
  return e;
}

TEST_F(Demodulator, ProgrammeOfEveryTunerTypeRegisterByRegister) {
  for (int tunerType = 0; tunerType <= 7; ++tunerType) {
    SCOPED_TRACE("tuner type " + std::to_string(tunerType));
    SetUp();
    device.tunerType = tunerType;
    EXPECT_NE(ProgramDemodulator(), 0);
    ExpectSameSequence(ProgrammeFor(tunerType).accesses, RecordedAccesses());
    TearDown();
  }
}

TEST_F(Demodulator, OneFailedAccessFailsTheProgrammeButNotTheRestOfIt) {
  device.tunerType = 5;
  const size_t complete = ProgrammeFor(5).accesses.size();
  for (const char* function : {"ZFN_Demod_Byte_Write", "ZFN_Demod_Byte_Read"}) {
    SCOPED_TRACE(function);
    SetUp();
    device.tunerType = 5;
    TestDevice_FailFunction(function, 10, 1);
    EXPECT_EQ(ProgramDemodulator(), 0);
    EXPECT_EQ(RecordedAccesses().size(), complete);
    TearDown();
  }
}

TEST_F(Demodulator, RetuneSetsTunerThenIfWordClockOffsetAndReset) {
  TestDevice_SetRegister(1, 0x01, 0x5B);
  EXPECT_EQ(TuneFrontEnd(557143, 6, 0), 3);
  const std::vector<std::string> expected = {
      "ZFN_Set_Frequency 557743",          "ZFN_Set_Bandwidth 6",
      "ZFN_DeviceUpdate",                  "ZFN_Demod_Byte_Write 1 16 3 01 55 55",
      "ZFN_Demod_Byte_Write 1 3e 2 00 00", "ZFN_Demod_Byte_Read 1 01 1",
      "ZFN_Demod_Byte_Write 1 01 1 5f",    "ZFN_Demod_Byte_Write 1 01 1 5b"};
  EXPECT_EQ(RecordedCalls(), expected);

  // The IF word follows an extra offset, in both directions, 22 bits with the top two bits clear.
  TestDevice_Reset();
  EXPECT_EQ(TuneFrontEnd(557143, 6, 100), 3);
  EXPECT_EQ(RecordedCalls()[0], "ZFN_Set_Frequency 557843");
  EXPECT_EQ(RecordedCalls()[3], "ZFN_Demod_Byte_Write 1 16 3 01 8e 38");
  TestDevice_Reset();
  EXPECT_EQ(TuneFrontEnd(557143, 6, -700), 3);
  EXPECT_EQ(RecordedCalls()[3], "ZFN_Demod_Byte_Write 1 16 3 3f c7 1c");
}

TEST_F(Demodulator, RetuneResultTellsWhichStepFailed) {
  // Nothing follows a failed tuner call; a failed register write still lets the later writes and
  // the reset pulse through.
  const std::tuple<const char*, int32_t, size_t> cases[] = {
      {"ZFN_Set_Frequency", 1, 1}, {"ZFN_Set_Bandwidth", 1, 2}, {"ZFN_DeviceUpdate", 2, 3}, {"ZFN_Demod_Byte_Write", 2, 8}};
  for (const auto& [function, result, calls] : cases) {
    TestDevice_Reset();
    TestDevice_FailFunction(function, 0, 1);
    EXPECT_EQ(TuneFrontEnd(473143, 6, 0), result) << function;
    EXPECT_EQ(RecordedCalls().size(), calls) << function;
  }
}

TEST_F(Demodulator, SampleClockOffsetAbsoluteForm) {
  EXPECT_EQ(WriteSampleClockOffset(0, -1.0f), 1);  // floor(-16.78) = -17, 14 bits: 3F EF
  EXPECT_EQ(WriteSampleClockOffset(0, 2.5f), 1);   // 41
  EXPECT_EQ(WriteSampleClockOffset(0, 0.0f), 1);
  const std::vector<std::string> expected = {"ZFN_Demod_Byte_Write 1 3e 2 3f ef", "ZFN_Demod_Byte_Write 1 3e 2 00 29",
                                             "ZFN_Demod_Byte_Write 1 3e 2 00 00"};
  EXPECT_EQ(RecordedCalls(), expected);
  TestDevice_FailFunction("ZFN_Demod_Byte_Write", 0, 1);
  EXPECT_EQ(WriteSampleClockOffset(0, 1.0f), 0);
}

TEST_F(Demodulator, SampleClockOffsetRelativeFormWritesOnlyChangedBytes) {
  struct Case {
    uint8_t hi, lo;
    float ppm;
    std::vector<std::string> writes;
  };
  const std::vector<Case> cases = {
      // Below zero: floor goes away from zero and the sum wraps to 14 bits.
      {0x00, 0x05, -1.0f, {"ZFN_Demod_Byte_Write 1 3e 1 3f", "ZFN_Demod_Byte_Write 1 3f 1 f4"}},
      {0x00, 0x00, -0.01f, {"ZFN_Demod_Byte_Write 1 3e 1 3f", "ZFN_Demod_Byte_Write 1 3f 1 ff"}},
      // Above the top: wraps to 0.
      {0x3F, 0xFF, 0.1f, {"ZFN_Demod_Byte_Write 1 3e 1 00", "ZFN_Demod_Byte_Write 1 3f 1 00"}},
      // Only the low byte changes: one single-byte write.
      {0x01, 0x10, 0.5f, {"ZFN_Demod_Byte_Write 1 3f 1 18"}},
      // Bits 7 and 6 of hi stay out of the sum but make the compare differ.
      {0xC1, 0x10, 0.5f, {"ZFN_Demod_Byte_Write 1 3e 1 01", "ZFN_Demod_Byte_Write 1 3f 1 18"}},
      // No change at all: nothing written.
      {0x12, 0x34, 0.0f, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << std::hex << int(c.hi) << " " << int(c.lo) << " " << c.ppm);
    TestDevice_Reset();
    TestDevice_SetRegister(1, 0x3E, c.hi);
    TestDevice_SetRegister(1, 0x3F, c.lo);
    EXPECT_EQ(WriteSampleClockOffset(1, c.ppm), 1);
    std::vector<std::string> expected = {"ZFN_Demod_Byte_Read 1 3e 2"};
    expected.insert(expected.end(), c.writes.begin(), c.writes.end());
    EXPECT_EQ(RecordedCalls(), expected);
  }

  TestDevice_Reset();
  TestDevice_FailFunction("ZFN_Demod_Byte_Read", 0, 1);
  EXPECT_EQ(WriteSampleClockOffset(1, -1.0f), 0);
  EXPECT_EQ(RecordedCalls().size(), 1u);
  TestDevice_Reset();
  TestDevice_FailFunction("ZFN_Demod_Byte_Write", 0, 1);
  EXPECT_EQ(WriteSampleClockOffset(1, -1.0f), 0);
  EXPECT_EQ(RecordedCalls().size(), 2u);  // the low byte is not tried after the high byte failed
}

TEST_F(Demodulator, CarrierOffsetAddsToTheIfWord) {
  TestDevice_SetRegister(1, 0x16, 0xC1);  // top bits outside the 22-bit word
  TestDevice_SetRegister(1, 0x17, 0x55);
  TestDevice_SetRegister(1, 0x18, 0x55);
  EXPECT_EQ(WriteCarrierOffset(1, 100.0f), 1);  // 0x15555 + 14563
  EXPECT_EQ(WriteCarrierOffset(0, 600.0f), 1);
  const std::vector<std::string> expected = {"ZFN_Demod_Byte_Read 1 16 3", "ZFN_Demod_Byte_Write 1 16 3 01 8e 38",
                                             "ZFN_Demod_Byte_Write 1 16 3 01 55 55"};
  EXPECT_EQ(RecordedCalls(), expected);
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
