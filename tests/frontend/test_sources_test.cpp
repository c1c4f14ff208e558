// The test sample sources themselves: other tests read the receiver's behaviour through them, so
// their streams, lengths and failure rules must be what their controls promise.
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "frontend/sample_source_contract.h"
#include "tests/support/test_device/test_device_control.h"
#include "tests/support/test_simulator/test_simulator_control.h"

extern "C" {
int32_t ZFN_BDAFilterInit(int32_t);
int32_t ZFN_BDAFilterRelease(int32_t);
int32_t ZFN_GetData(uint8_t*, int32_t, int32_t*, int32_t*);
int32_t ZFN_SetDABEventHandle(int*);
int32_t ZFN_ReleaseDABEventHandle(int*);
int32_t ZFN_Get_TunerType(int32_t*);
int32_t ZFN_Set_Frequency(int32_t);
int32_t SetEventHandle(int*);
int32_t BDA_Start_simulate(void);
int32_t GetData(uint8_t*, int32_t*);
int32_t BDA_Stop_simulate(void);
}

namespace {

int32_t Fetch(std::vector<uint8_t>& buffer) {
  int32_t length = -1;
  int32_t aux = 0;
  ZFN_GetData(buffer.data(), static_cast<int32_t>(buffer.size()), &length, &aux);
  return length;
}

TEST(TestDevice, RandomLengthsFollowTheSeedAndTheStreamRunsOn) {
  std::vector<uint8_t> buffer(240648);
  auto lengths = [&](int32_t keepGroupsOfFour) {
    TestDevice_Reset();
    TestDevice_SetReadLength(0, 42, keepGroupsOfFour);
    ZFN_BDAFilterInit(0);
    std::vector<int32_t> seen;
    int64_t position = 0;
    for (int i = 0; i < 40; ++i) {
      const int32_t n = Fetch(buffer);
      EXPECT_GE(n, keepGroupsOfFour ? 0 : 1);
      EXPECT_LE(n, 240648);
      for (int32_t k = 0; k < n; k += 101) EXPECT_EQ(buffer[k], TestDevice_PatternByte(position + k));
      position += n;
      seen.push_back(n);
    }
    EXPECT_EQ(TestDevice_BytesServed(), position);
    ZFN_BDAFilterRelease(0);
    return seen;
  };
  const std::vector<int32_t> aligned = lengths(1);
  EXPECT_EQ(lengths(1), aligned);
  for (int32_t n : aligned) EXPECT_EQ(n % 4, 0);
  int unaligned = 0;
  for (int32_t n : lengths(0)) unaligned += n % 4 != 0;
  EXPECT_GT(unaligned, 0);
}

TEST(TestDevice, BufferServedOnceOrInALoop) {
  std::vector<uint8_t> buffer(16);
  const std::vector<uint8_t> data = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
  TestDevice_Reset();
  ZFN_BDAFilterInit(0);
  TestDevice_SetStreamBuffer(data.data(), static_cast<int64_t>(data.size()), 0);
  TestDevice_SetReadLength(8, 0, 1);
  EXPECT_EQ(Fetch(buffer), 8);
  EXPECT_EQ(Fetch(buffer), 2);
  EXPECT_EQ(buffer[1], 10);
  EXPECT_EQ(Fetch(buffer), 0);
  TestDevice_SetStreamBuffer(data.data(), static_cast<int64_t>(data.size()), 1);
  EXPECT_EQ(Fetch(buffer), 8);
  EXPECT_EQ(Fetch(buffer), 8);
  EXPECT_EQ(buffer[0], 9);
  EXPECT_EQ(buffer[2], 1);
  ZFN_BDAFilterRelease(0);
  EXPECT_EQ(Fetch(buffer), 0);  // nothing once released
}

TEST(TestDevice, FailureWindowTunerTypeAndPacing) {
  TestDevice_Reset();
  ASSERT_EQ(TestDevice_FailFunction("ZFN_Set_Frequency", 1, 2), 1);
  EXPECT_EQ(TestDevice_FailFunction("ZFN_NoSuchFunction", 0, 1), 0);
  std::string results;
  for (int i = 0; i < 5; ++i) results += std::to_string(ZFN_Set_Frequency(i));
  EXPECT_EQ(results, "10011");

  for (int32_t type : {0, 6, 7}) {
    TestDevice_SetTunerType(type);
    int32_t reported = -1;
    EXPECT_EQ(ZFN_Get_TunerType(&reported), 1);
    EXPECT_EQ(reported, type);
  }

  std::vector<uint8_t> buffer(240648);
  TestDevice_SetByteRate(1000);  // a few bytes per millisecond at most
  ZFN_BDAFilterInit(0);
  EXPECT_LT(Fetch(buffer), 1000);
  ZFN_BDAFilterRelease(0);
}

TEST(TestDevice, EventThreadOnlyBetweenInitAndRelease) {
  TestDevice_Reset();
  TestDevice_SetEventPeriod(1);
  int event = eventfd(0, EFD_CLOEXEC);
  ASSERT_EQ(ZFN_SetDABEventHandle(&event), 1);
  EXPECT_EQ(TestDevice_EventThreadRunning(), 0);
  ASSERT_EQ(ZFN_BDAFilterInit(0), 1);
  EXPECT_EQ(TestDevice_EventThreadRunning(), 1);
  pollfd waiting{event, POLLIN, 0};
  EXPECT_EQ(poll(&waiting, 1, 1000), 1);
  EXPECT_EQ(ZFN_BDAFilterRelease(0), 1);
  EXPECT_EQ(TestDevice_EventThreadRunning(), 0);
  EXPECT_EQ(ZFN_ReleaseDABEventHandle(&event), 1);
  close(event);
}

TEST(TestSimulator, RandomLengthsNeverExceedTheBufferAndKeepGroupsUnlessTold) {
  TestSim_Reset();
  int event = eventfd(0, EFD_CLOEXEC);
  std::vector<uint8_t> buffer(240648);
  int32_t length = -1;
  EXPECT_EQ(GetData(buffer.data(), &length), 0);
  EXPECT_EQ(length, 0);  // not started
  ASSERT_EQ(SetEventHandle(&event), 0);
  for (int32_t keep : {1, 0}) {
    ASSERT_EQ(BDA_Start_simulate(), 0);
    TestSim_SetReadLength(0, 9, keep);
    int odd = 0;
    int64_t position = 0;
    for (int i = 0; i < 40; ++i) {
      ASSERT_EQ(GetData(buffer.data(), &length), 0);
      ASSERT_LE(length, 240648);
      odd += length % 4 != 0;
      for (int32_t k = 0; k < length; k += 257) ASSERT_EQ(buffer[k], TestSim_PatternByte(position + k));
      position += length;
    }
    EXPECT_EQ(odd > 0, keep == 0);
    EXPECT_EQ(BDA_Stop_simulate(), 0);
    EXPECT_EQ(TestSim_EventThreadRunning(), 0);
  }
  TestSim_SetReadLength(300000, 0, 1);  // cut to the buffer
  ASSERT_EQ(BDA_Start_simulate(), 0);
  ASSERT_EQ(GetData(buffer.data(), &length), 0);
  EXPECT_EQ(length, 240648);
  EXPECT_EQ(BDA_Stop_simulate(), 0);
  close(event);
}

}  // namespace
