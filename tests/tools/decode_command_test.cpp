// zfnisdbt decode as a user runs it: a capture from our transmitter comes back as the transport
// stream that went in, the JSON summary parses and says what was received, and bad input files get
// their message and exit status.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "simulator/transmitter.h"

namespace {

constexpr size_t BLOCK_BYTES = 240640;
constexpr size_t PACKET = 188;

std::string TempPath(const std::string& leaf) { return "/tmp/tooling_decode_" + std::to_string(getpid()) + "_" + leaf; }

std::string ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void WriteAll(const std::string& path, const void* data, size_t size) {
  std::ofstream(path, std::ios::binary).write(static_cast<const char*>(data), static_cast<std::streamsize>(size));
}

struct Result {
  int status = -1;
  std::string out, err;
};

// Runs the program with the given arguments (already quoted where needed).
Result RunProgram(const std::string& arguments) {
  const std::string out = TempPath("stdout"), err = TempPath("stderr");
  const int raw = std::system((std::string("LD_LIBRARY_PATH=") + ZFN_LIBRARY_DIR + " " + ZFN_PROGRAM + " decode " +
                               arguments + " >" + out + " 2>" + err).c_str());
  Result r{WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, ReadAll(out), ReadAll(err)};
  std::remove(out.c_str());
  std::remove(err.c_str());
  return r;
}

// The last line of the text, taken as a flat JSON object of numbers, strings and nulls: key ->
// value as written (strings unquoted). Empty if the line is not such an object.
std::map<std::string, std::string> LastLineJson(const std::string& text) {
  const size_t end = text.find_last_not_of('\n') + 1;  // 0 for a text of newlines only
  const size_t begin = end == 0 ? 0 : text.rfind('\n', end - 1) + 1;  // npos + 1 = 0: the first line
  const std::string line = text.substr(begin, end - begin);
  std::map<std::string, std::string> fields;
  size_t i = 0;
  auto skipBlanks = [&] {
    while (i < line.size() && std::isspace(static_cast<unsigned char>(line[i]))) ++i;
  };
  auto quoted = [&](std::string& out) {  // a string without escapes
    if (i >= line.size() || line[i] != '"') return false;
    const size_t close = line.find('"', i + 1);
    if (close == std::string::npos) return false;
    out = line.substr(i + 1, close - i - 1);
    i = close + 1;
    return true;
  };
  skipBlanks();
  if (i >= line.size() || line[i++] != '{') return {};
  for (;;) {
    std::string key, value;
    skipBlanks();
    if (!quoted(key)) return {};
    skipBlanks();
    if (i >= line.size() || line[i++] != ':') return {};
    skipBlanks();
    if (line.compare(i, 4, "null") == 0) {
      value = "null";
      i += 4;
    } else if (!quoted(value)) {
      const size_t first = i;
      if (i < line.size() && line[i] == '-') ++i;
      if (i >= line.size() || !std::isdigit(static_cast<unsigned char>(line[i]))) return {};
      while (i < line.size() && std::strchr("0123456789.eE+-", line[i]) != nullptr) ++i;
      value = line.substr(first, i - first);
    }
    fields[key] = value;
    skipBlanks();
    if (i >= line.size()) return {};
    const char separator = line[i++];
    if (separator == '}') return line.find_first_not_of(' ', i) == std::string::npos ? fields : decltype(fields){};
    if (separator != ',') return {};
  }
}

// A capture of the common broadcast (Mode 3, 1/8, QPSK 2/3, I = 4) with numbered test packets and
// a little noise, made once for the suite: 40 whole blocks (2.37 s) and half a block more, with
// the packets that went in. The file holds the whole blocks.
std::vector<uint8_t> capture, sent;
const std::string capturePath = TempPath("capture");

class DecodeCommand : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    zfn::sim::ChannelConfig c;
    c.noise = true;
    c.cnDb = 20;
    std::string error;
    auto gen = zfn::sim::SignalGenerator::Create(zfn::sim::BroadcastConfig{}, c, zfn::sim::MakeTestPatternSource(7), &error);
    ASSERT_TRUE(gen) << error;
    gen->RecordPackets(true);
    capture.resize(40 * BLOCK_BYTES + BLOCK_BYTES / 2);
    gen->GenerateBytes(capture.data(), capture.size());
    sent = gen->TransmittedPackets();
    WriteAll(capturePath, capture.data(), 40 * BLOCK_BYTES);
  }
  static void TearDownTestSuite() { std::remove(capturePath.c_str()); }

  // The decoded stream must be the transmitted one from some packet on, within the first few
  // hundred packets (the start-up), and to its end.
  static void ExpectSentStream(const std::string& ts, const std::vector<uint8_t>& transmitted = sent) {
    ASSERT_EQ(0u, ts.size() % PACKET);
    const size_t packets = ts.size() / PACKET;
    ASSERT_GE(packets, 256u);
    const std::string all(transmitted.begin(), transmitted.end());
    size_t first = 0, at = std::string::npos;
    for (; first < packets && first < 400; ++first) {
      at = all.find(ts.substr(first * PACKET, PACKET));
      if (at != std::string::npos && at % PACKET == 0) break;
    }
    ASSERT_LT(first, 400u) << "no transmitted packet among the first 400 decoded";
    const size_t rest = ts.size() - first * PACKET;
    ASSERT_LE(at + rest, all.size());
    for (size_t k = 0; k < rest / PACKET; ++k) {
      ASSERT_EQ(all.substr(at + k * PACKET, PACKET), ts.substr((first + k) * PACKET, PACKET)) << "decoded packet " << first + k;
    }
    EXPECT_GE(rest / PACKET, packets / 2);
  }
};

TEST_F(DecodeCommand, StreamComesBackAndTheSummaryTellsTheBroadcast) {
  const std::string ts = TempPath("out.ts");
  const Result r = RunProgram(capturePath + " --output " + ts + " --json");
  ASSERT_EQ(0, r.status) << r.err;
  ExpectSentStream(ReadAll(ts));
  std::remove(ts.c_str());

  std::map<std::string, std::string> f = LastLineJson(r.out);
  ASSERT_FALSE(f.empty()) << r.out;
  for (const char* key : {"signal_seconds", "cpu_seconds", "realtime_factor", "blocks", "packets", "rs_ok",
                          "rs_corrected", "rs_failed", "final_state", "mode", "guard", "modulation", "code_rate",
                          "interleave", "snr_db"}) {
    EXPECT_TRUE(f.count(key)) << key;
  }
  const std::map<std::string, std::string> expected = {
      {"blocks", "40"},     {"final_state", "tracking"}, {"mode", "3"},         {"guard", "1/8"},
      {"modulation", "QPSK"}, {"code_rate", "2/3"},      {"interleave", "3"},   {"rs_failed_streaming", "0"},
      {"tracking_losses", "0"}, {"behaviour", "refined"}};
  for (const auto& [key, value] : expected) EXPECT_EQ(value, f[key]) << key;
  EXPECT_NEAR(40 * 60160 / (64e6 / 63), std::stod(f["signal_seconds"]), 1e-4);
  EXPECT_GT(std::stod(f["snr_db"]), 10.0);
  // Every packet through Reed-Solomon is counted once; the delivered ones come in blocks of 128.
  const long long decoded = std::stoll(f["rs_ok"]) + std::stoll(f["rs_corrected"]) + std::stoll(f["rs_failed"]);
  const long long delivered = std::stoll(f["packets"]);
  EXPECT_EQ(0, delivered % 128);
  EXPECT_GE(decoded, delivered);
  EXPECT_LT(decoded, delivered + 128);
  EXPECT_NE(std::string::npos, r.err.find("Mode 3, guard 1/8, QPSK 2/3"));
}

// What a generic SDR records of the broadcast (other packets) at C/N 20 dB, 11 kHz below its
// channel and with its clock 15 ppm slow, 2.37 s of 8-bit I/Q, through the device library's
// conditioning, comes back as the stream that went in, with no failed packet after the start-up;
// read as the design device's stream (no filter ahead of the sample drop) the same file gives
// nothing.
TEST_F(DecodeCommand, SdrRecordingComesBackThroughTheConditioning) {
  zfn::sim::ChannelConfig c;
  c.noise = true;
  c.cnDb = 20;
  c.frontEnd = zfn::sim::FrontEnd::Sdr;
  c.carrierOffsetHz = -11000;
  c.clockPpm = -15;
  std::string error;
  auto sdr = zfn::sim::SignalGenerator::Create(zfn::sim::BroadcastConfig{}, c, zfn::sim::MakeTestPatternSource(8), &error);
  ASSERT_TRUE(sdr) << error;
  sdr->RecordPackets(true);
  std::vector<uint8_t> recording(40 * BLOCK_BYTES);
  sdr->GenerateBytes(recording.data(), recording.size());
  const std::string sdrPath = TempPath("sdr");
  WriteAll(sdrPath, recording.data(), recording.size());

  const std::string ts = TempPath("sdr.ts");
  const Result r = RunProgram(sdrPath + " --front-end sdr --output " + ts + " --json");
  ASSERT_EQ(0, r.status) << r.err;
  ExpectSentStream(ReadAll(ts), sdr->TransmittedPackets());
  std::remove(ts.c_str());
  std::map<std::string, std::string> f = LastLineJson(r.out);
  const std::map<std::string, std::string> expected = {{"blocks", "40"},        {"final_state", "tracking"},
                                                       {"mode", "3"},           {"rs_failed_streaming", "0"},
                                                       {"tracking_losses", "0"}};
  for (const auto& [key, value] : expected) EXPECT_EQ(value, f[key]) << key;
  EXPECT_GT(std::stod(f["snr_db"]), 15.0);

  const Result plain = RunProgram(sdrPath + " --front-end device --json");
  std::remove(sdrPath.c_str());
  ASSERT_EQ(0, plain.status) << plain.err;
  EXPECT_EQ("0", LastLineJson(plain.out)["packets"]);
}

// With the stream on standard output the summary and its JSON line go to standard error, and a
// part block at the end is left undecoded with a word, not an error. As designed the stream is the
// same.
TEST_F(DecodeCommand, StreamOnStandardOutputAndAPartBlockAtTheEnd) {
  const std::string odd = TempPath("odd");
  WriteAll(odd, capture.data(), capture.size());
  const Result r = RunProgram(odd + " --output - --json --as-designed");
  std::remove(odd.c_str());
  ASSERT_EQ(0, r.status) << r.err;
  ExpectSentStream(r.out);
  EXPECT_NE(std::string::npos, r.err.find("the last 120320 bytes are not a whole block"));
  std::map<std::string, std::string> f = LastLineJson(r.err);
  EXPECT_EQ("40", f["blocks"]) << r.err;
  EXPECT_EQ("120320", f["trailing_bytes"]);
  EXPECT_EQ("designed", f["behaviour"]);
}

// Bad input gets its message and status and writes nothing to standard output; a signal the engine
// cannot lock to (only noise) decodes to no stream and says so, without failing.
TEST_F(DecodeCommand, BadInputsGetTheirMessageAndStatus) {
  const std::string empty = TempPath("empty"), dir = TempPath("dir"), shortFile = TempPath("short");
  const std::string noise = TempPath("noise");
  WriteAll(empty, "", 0);
  ASSERT_EQ(0, mkdir(dir.c_str(), 0700));
  WriteAll(shortFile, capture.data(), BLOCK_BYTES - 4);
  std::vector<uint8_t> noiseBytes(6 * BLOCK_BYTES);
  uint64_t s = 12345;
  for (auto& b : noiseBytes) {
    s ^= s << 13;
    s ^= s >> 7;
    s ^= s << 17;
    b = static_cast<uint8_t>(127 + static_cast<int>(s % 57) - 28);
  }
  WriteAll(noise, noiseBytes.data(), noiseBytes.size());
  const struct {
    std::string arguments;
    int status;
    const char* message;
  } cases[] = {
      {TempPath("missing"), 1, "cannot open"},
      {empty, 1, "is empty"},
      {dir, 1, "is a directory"},
      {shortFile, 1, "is truncated: 240636 bytes, less than one block"},
      {"- < " + empty, 1, "'standard input' is empty"},
      {"- < " + shortFile + " --output " + TempPath("never.ts"), 1, "'standard input' is truncated: 240636 bytes"},
      {capturePath + " --output /nonexistent_dir/x.ts", 1, "cannot write"},
      {shortFile + " --output " + shortFile, 1, "is truncated"},
      {capturePath + " --output " + capturePath, 1, "is the input itself"},
      {"", 2, "no input file"},
      {capturePath + " --speed 3", 2, "unknown option '--speed'"},
      {capturePath + " --output", 2, "--output needs"},
      {capturePath + " --front-end tuner", 2, "--front-end needs device or sdr"},
      {noise + " --output -", 0, "no lock"},
  };
  for (const auto& c : cases) {
    const Result r = RunProgram(c.arguments);
    EXPECT_EQ(c.status, r.status) << c.arguments << ": " << r.err;
    EXPECT_NE(std::string::npos, r.err.find(c.message)) << c.arguments << ": " << r.err;
    EXPECT_EQ("", r.out) << c.arguments;
  }
  EXPECT_NE(0, access(TempPath("never.ts").c_str(), F_OK)) << "an output with nothing decoded into it is removed";
  struct stat st {};
  ASSERT_EQ(0, stat(capturePath.c_str(), &st));
  EXPECT_EQ(static_cast<off_t>(40 * BLOCK_BYTES), st.st_size) << "the capture is left as it was";
  for (const std::string& path : {empty, shortFile, noise}) std::remove(path.c_str());
  rmdir(dir.c_str());
}

}  // namespace
