// The test sample sources themselves, as far as other tests rely on them without checking: the
// random read lengths really vary (odd ones only when asked) and the stream runs on across reads.
#include <sys/eventfd.h>
#include <unistd.h>

#include <vector>

#include <gtest/gtest.h>

#include "frontend/sample_source_contract.h"
#include "tests/support/test_device/test_device_control.h"
#include "tests/support/test_simulator/test_simulator_control.h"

extern "C" {
int32_t ZFN_BDAFilterInit(int32_t);
int32_t ZFN_BDAFilterRelease(int32_t);
int32_t ZFN_GetData(uint8_t*, int32_t, int32_t*, int32_t*);
int32_t SetEventHandle(int*);
int32_t BDA_Start_simulate(void);
int32_t GetData(uint8_t*, int32_t*);
int32_t BDA_Stop_simulate(void);
}

namespace {

TEST(TestSources, RandomLengthsVaryKeepGroupsUnlessToldAndTheStreamRunsOn) {
  std::vector<uint8_t> buffer(240648);
  int event = eventfd(0, EFD_CLOEXEC);
  TestSim_Reset();
  ASSERT_EQ(SetEventHandle(&event), 0);
  for (int32_t keep : {1, 0}) {
    for (bool simulator : {false, true}) {
      SCOPED_TRACE(testing::Message() << "simulator " << simulator << " keep " << keep);
      TestDevice_Reset();
      TestDevice_SetReadLength(0, 42, keep);
      TestSim_SetReadLength(0, 9, keep);
      simulator ? BDA_Start_simulate() : ZFN_BDAFilterInit(0);
      int odd = 0, distinct = 0;
      int32_t last = -1;
      int64_t position = 0;
      for (int i = 0; i < 40; ++i) {
        int32_t n = -1, aux = 0;
        simulator ? GetData(buffer.data(), &n) : ZFN_GetData(buffer.data(), 240648, &n, &aux);
        ASSERT_GE(n, 0);
        ASSERT_LE(n, 240648);
        odd += n % 4 != 0;
        distinct += n != last;
        last = n;
        for (int32_t k = 0; k < n; k += 101) {
          ASSERT_EQ(buffer[k], simulator ? TestSim_PatternByte(position + k) : TestDevice_PatternByte(position + k));
        }
        position += n;
      }
      EXPECT_EQ(odd > 0, keep == 0);
      EXPECT_GT(distinct, 20);
      if (!simulator) {
        EXPECT_EQ(TestDevice_BytesServed(), position);
      }
      simulator ? BDA_Stop_simulate() : ZFN_BDAFilterRelease(0);
    }
  }
  close(event);
}

}  // namespace
