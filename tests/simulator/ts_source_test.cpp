// Transport stream input: a file at a lower rate than the layer plays at its own rate with null
// packets between, in order and looped; its own null packets are dropped; a faster file plays back
// to back; bad files are refused.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "simulator/transmitter.h"

namespace zfn::sim {
namespace {

// Packets numbered in bytes 180..181, every fourth a null packet if asked, every eighth other one
// with a PCR for the time its first byte goes out at `rate`. No bytes: `junk` bytes of 0x12.
std::string WriteTs(const std::string& name, int packets, double rate, bool withNulls, size_t junk = 0) {
  const std::string path = testing::TempDir() + name;
  std::vector<uint8_t> file(junk, 0x12);
  for (int i = 0; i < packets; ++i) {
    uint8_t p[188];
    std::fill(p, p + 188, 0xFF);
    const bool null = withNulls && i % 4 == 3;
    p[0] = 0x47, p[1] = null ? 0x1F : 0x01, p[2] = null ? 0xFF : 0x00, p[3] = 0x10;
    p[180] = static_cast<uint8_t>(i), p[181] = static_cast<uint8_t>(i >> 8);
    if (!null && i % 8 == 0) {  // adaptation field of 7 bytes with a PCR
      const auto pcr = static_cast<int64_t>(i * 188 * 8 / rate * 27e6);
      const int64_t base = pcr / 300, ext = pcr % 300;
      p[3] = 0x30, p[4] = 7, p[5] = 0x10;
      for (int k = 0; k < 4; ++k) p[6 + k] = static_cast<uint8_t>(base >> (25 - 8 * k));
      p[10] = static_cast<uint8_t>(((base & 1) << 7) | 0x7E | (ext >> 8));
      p[11] = static_cast<uint8_t>(ext);
    }
    file.insert(file.end(), p, p + 188);
  }
  FILE* f = std::fopen(path.c_str(), "wb");
  EXPECT_NE(f, nullptr);
  if (f) std::fwrite(file.data(), 1, file.size(), f), std::fclose(f);
  return path;
}

TEST(TransportInput, SlowerFileIsPacedWithNullPacketsInOrderAndFasterOnePlaysBackToBack) {
  // 400 packets at 100 kbit/s, a quarter of them nulls: 75 kbit/s of content in 300 kbit/s.
  const std::string path = WriteTs("zfn_ts_slow.ts", 400, 100e3, true);
  std::string error;
  auto src = OpenTsFile(path, 300e3, &error);
  ASSERT_TRUE(src) << error;
  int content = 0, expectIndex = 0;
  for (int n = 0; n < 4000; ++n) {
    uint8_t p[188];
    src->Next(p);
    ASSERT_EQ(p[0], 0x47);
    if (((p[1] & 0x1F) << 8 | p[2]) == 0x1FFF) continue;
    ++content;
    ASSERT_EQ(p[180] | (p[181] << 8), expectIndex);
    expectIndex = (expectIndex + (expectIndex % 4 == 2 ? 2 : 1)) % 400;  // the file's own nulls are gone
  }
  EXPECT_NEAR(content / 4000.0, 0.25, 0.01);
  std::remove(path.c_str());
  const std::string fast = WriteTs("zfn_ts_fast.ts", 64, 1e6, false);
  src = OpenTsFile(fast, 300e3, &error);
  ASSERT_TRUE(src) << error;
  for (int n = 0; n < 200; ++n) {
    uint8_t p[188];
    src->Next(p);
    EXPECT_EQ(p[180], n % 64);
  }
  std::remove(fast.c_str());
}

// Three packets' worth without a sync byte, a file shorter than one packet, and no file.
TEST(TransportInput, BadFilesAreRefusedWithAReason) {
  for (const auto& [size, reason] : {std::pair{size_t{188 * 3}, "not a transport stream"}, std::pair{size_t{100}, ""}}) {
    const std::string bad = WriteTs("zfn_ts_bad.ts", 0, 1, false, size);
    std::string error;
    EXPECT_EQ(OpenTsFile(bad, 300e3, &error), nullptr);
    EXPECT_NE(error, "") << size;
    EXPECT_NE(error.find(reason), std::string::npos) << error;
    std::remove(bad.c_str());
  }
  std::string error;
  EXPECT_EQ(OpenTsFile("/nonexistent/file.ts", 416e3, &error), nullptr);
  EXPECT_NE(error.find("cannot open"), std::string::npos);
}

}  // namespace
}  // namespace zfn::sim
