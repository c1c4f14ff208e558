// Transport stream input: a file at a lower rate than the layer plays at its own rate with null
// packets between, in order and looped; its own null packets are dropped; bad files are refused.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "simulator/transmitter.h"

namespace zfn::sim {
namespace {

std::string WriteTs(const std::string& name, int packets, double rate, bool withNulls) {
  const std::string path = testing::TempDir() + name;
  FILE* f = std::fopen(path.c_str(), "wb");
  EXPECT_NE(f, nullptr);
  for (int i = 0; i < packets; ++i) {
    uint8_t p[188];
    std::fill(p, p + 188, 0xFF);
    p[0] = 0x47;
    const bool null = withNulls && i % 4 == 3;
    const int pid = null ? 0x1FFF : 0x100;
    p[1] = static_cast<uint8_t>(pid >> 8);
    p[2] = static_cast<uint8_t>(pid);
    p[3] = 0x10;
    p[180] = static_cast<uint8_t>(i);  // which file packet this is
    p[181] = static_cast<uint8_t>(i >> 8);
    if (!null && i % 8 == 0) {  // PCR at the time this packet's first byte goes out at `rate`
      const auto pcr = static_cast<int64_t>(i * 188 * 8 / rate * 27e6);
      const int64_t base = pcr / 300, ext = pcr % 300;
      p[3] = 0x30;  // adaptation field of 7 bytes with a PCR
      p[4] = 7;
      p[5] = 0x10;
      for (int k = 0; k < 4; ++k) p[6 + k] = static_cast<uint8_t>(base >> (25 - 8 * k));
      p[10] = static_cast<uint8_t>(((base & 1) << 7) | 0x7E | (ext >> 8));
      p[11] = static_cast<uint8_t>(ext);
    }
    std::fwrite(p, 1, 188, f);
  }
  std::fclose(f);
  return path;
}

TEST(TransportInput, SlowerFileIsPacedWithNullPacketsInOrder) {
  // 400 packets at 100 kbit/s, a quarter of them nulls: 75 kbit/s of content.
  const std::string path = WriteTs("zfn_ts_slow.ts", 400, 100e3, true);
  std::string error;
  auto src = OpenTsFile(path, 300e3, &error);
  ASSERT_TRUE(src) << error;
  int content = 0;
  int expectIndex = 0;
  for (int n = 0; n < 4000; ++n) {
    uint8_t p[188];
    src->Next(p);
    ASSERT_EQ(p[0], 0x47);
    const int pid = ((p[1] & 0x1F) << 8) | p[2];
    if (pid == 0x1FFF) continue;
    ++content;
    const int index = p[180] | (p[181] << 8);
    ASSERT_EQ(index, expectIndex);
    expectIndex += expectIndex % 4 == 2 ? 2 : 1;  // the file's own nulls are gone
    if (expectIndex >= 400) expectIndex = 0;
  }
  EXPECT_NEAR(content / 4000.0, 0.25, 0.01);
  std::remove(path.c_str());
}

TEST(TransportInput, FasterFilePlaysBackToBackAndBadFilesAreRefused) {
  const std::string fast = WriteTs("zfn_ts_fast.ts", 64, 1e6, false);
  std::string error;
  auto src = OpenTsFile(fast, 300e3, &error);
  ASSERT_TRUE(src) << error;
  for (int n = 0; n < 200; ++n) {
    uint8_t p[188];
    src->Next(p);
    EXPECT_EQ(p[180], n % 64);
  }
  std::remove(fast.c_str());
  // Three packets without a sync byte, and a file shorter than one packet.
  const std::string bad = testing::TempDir() + "zfn_ts_bad.ts";
  for (size_t size : {188 * 3, 100}) {
    FILE* f = std::fopen(bad.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    const std::vector<uint8_t> junk(size, 0x12);
    std::fwrite(junk.data(), 1, junk.size(), f);
    std::fclose(f);
    error.clear();
    EXPECT_EQ(OpenTsFile(bad, 300e3, &error), nullptr);
    EXPECT_NE(error, "") << size;
    if (size > 100) {
      EXPECT_NE(error.find("not a transport stream"), std::string::npos) << error;
    }
  }
  std::remove(bad.c_str());
}

}  // namespace
}  // namespace zfn::sim
