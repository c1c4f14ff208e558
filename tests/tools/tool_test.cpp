// zfnisdbt as people use it, run as a separate process. decode: a capture from our transmitter (and
// what a generic SDR records of it) comes back as the transport stream that went in, with a JSON
// summary of what was received. receive: on the simulator through the public library, a player that
// pauses for five seconds still gets every packet, the same stream goes out as UDP datagrams of seven
// packets, the status comes as JSON lines, and ffprobe and ffmpeg take the stream for the programme
// that went in. scan: exactly the channels that carry a broadcast. Then every command line that
// must fail or only print, as a table of exit statuses and messages. JSON is read with jq.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <numeric>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "simulator/transmitter.h"
#include "tests/diagnostics/diagnostics_support.h"
#include "tools/stream_output.h"

namespace {

using zfn_test::ReadText;
constexpr size_t PACKET = 188, BLOCK = 240640;

std::string Temp(const std::string& leaf) { return "/tmp/zfn_tool_" + std::to_string(getpid()) + "_" + leaf; }

void WriteAll(const std::string& path, const void* data, size_t size) {
  std::ofstream(path, std::ios::binary).write(static_cast<const char*>(data), static_cast<std::streamsize>(size));
}

int Shell(const std::string& command) {
  const int raw = std::system(command.c_str());
  return WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
}

std::string LastLine(std::string text) {
  while (!text.empty() && text.back() == '\n') text.pop_back();
  return text.substr(text.rfind('\n') + 1);  // npos + 1 = 0: the only line
}

struct Result {
  int status = -1;
  std::string out, err;
};

// Runs `prefix zfnisdbt arguments` in the shell (arguments quoted where needed).
Result Program(const std::string& arguments, const std::string& prefix = "") {
  const std::string out = Temp("stdout"), err = Temp("stderr");
  const int status = Shell(prefix + " LD_LIBRARY_PATH=" + ZFN_LIBRARY_DIR + " " + ZFN_PROGRAM + " " + arguments + " >" +
                           out + " 2>" + err);
  Result r{status, ReadText(out), ReadText(err)};
  Shell("rm -f " + out + " " + err);
  return r;
}

// jq's compact output for `filter` (in single quotes) on `json`; empty when jq refuses the input.
std::string Jq(const std::string& filter, const std::string& json, const char* options = "") {
  const std::string in = Temp("jq.in"), out = Temp("jq.out");
  WriteAll(in, json.data(), json.size());
  Shell(std::string("jq -c ") + options + " '" + filter + "' <" + in + " >" + out + " 2>/dev/null");
  const std::string text = ReadText(out);
  std::remove(in.c_str());
  std::remove(out.c_str());
  return LastLine(text);  // one compact line
}

// A capture of the common broadcast (Mode 3, 1/8, QPSK 2/3, I = 4) with numbered test packets at
// C/N 20 dB: 40 whole blocks (2.37 s) and half a block more, made once for the suite; the file holds
// the whole blocks. And what a generic SDR records of the broadcast (other packets), 11 kHz below
// its channel, its clock 15 ppm slow, as 8-bit I/Q.
std::vector<uint8_t> capture, sent, sdrSent;
const std::string capturePath = Temp("capture"), sdrPath = Temp("sdr");

class Tool : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    capture = Make({}, 7, 40 * BLOCK + BLOCK / 2, &sent);
    WriteAll(capturePath, capture.data(), 40 * BLOCK);
  }
  static std::vector<uint8_t> Make(zfn::sim::ChannelConfig c, uint64_t seed, size_t bytes, std::vector<uint8_t>* packets) {
    c.noise = true;
    c.cnDb = 20;
    std::string error;
    auto gen = zfn::sim::SignalGenerator::Create(zfn::sim::BroadcastConfig{}, c, zfn::sim::MakeTestPatternSource(seed), &error);
    EXPECT_TRUE(gen) << error;
    std::vector<uint8_t> out(bytes);
    if (!gen) return out;
    gen->RecordPackets(true);
    gen->GenerateBytes(out.data(), out.size());
    *packets = gen->TransmittedPackets();
    return out;
  }
  static void TearDownTestSuite() {
    std::remove(capturePath.c_str());
    std::remove(sdrPath.c_str());
  }
};

// The decoded stream is the transmitted one from some packet within the first 400 (the start-up)
// to its end.
void ExpectSentStream(const std::string& ts, const std::vector<uint8_t>& transmitted) {
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
  EXPECT_TRUE(all.compare(at, rest, ts, first * PACKET, rest) == 0) << "the stream differs after packet " << first;
  EXPECT_GE(rest / PACKET, packets / 2);
}

// Each decode gives the stream that went in and a summary (on standard error when the stream goes
// to standard output) that tells the broadcast; every packet through Reed-Solomon is counted once,
// the delivered ones in calls of 128. A part block at the end is left undecoded with a word.
TEST_F(Tool, DecodeGivesTheStreamThatWentInAndTellsTheBroadcast) {
  const std::string odd = Temp("odd"), ts = Temp("out.ts");
  WriteAll(odd, capture.data(), capture.size());
  zfn::sim::ChannelConfig sdr;
  sdr.frontEnd = zfn::sim::FrontEnd::Sdr;
  sdr.carrierOffsetHz = -11000;
  sdr.clockPpm = -15;
  const std::vector<uint8_t> recording = Make(sdr, 8, 40 * BLOCK, &sdrSent);
  WriteAll(sdrPath, recording.data(), recording.size());
  const struct {
    std::string arguments;
    const std::vector<uint8_t>* transmitted;
    const char* summary;  // blocks, state, layer, failures after start-up, losses, behaviour, trailing bytes
  } cases[] = {
      {capturePath + " --output " + ts + " --json", &sent, "[40,\"tracking\",3,\"1/8\",\"QPSK\",\"2/3\",3,0,0,\"refined\",0]"},
      {sdrPath + " --front-end sdr --output " + ts + " --json", &sdrSent,
       "[40,\"tracking\",3,\"1/8\",\"QPSK\",\"2/3\",3,0,0,\"refined\",0]"},
      {odd + " --output - --json --as-designed", &sent, "[40,\"tracking\",3,\"1/8\",\"QPSK\",\"2/3\",3,0,0,\"designed\",120320]"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.arguments);
    const Result r = Program("decode " + c.arguments);
    ASSERT_EQ(0, r.status) << r.err;
    const bool toStdout = c.arguments.find("--output -") != std::string::npos;
    ExpectSentStream(toStdout ? r.out : ReadText(ts), *c.transmitted);
    const std::string summary = LastLine(toStdout ? r.err : r.out);
    // The fields, that none is missing, and the counts within their bounds.
    EXPECT_EQ(std::string("[").append(c.summary).append(",[],true]"),
              Jq("[[.blocks, .final_state, .mode, .guard, .modulation, .code_rate, .interleave, .rs_failed_streaming, "
                 ".tracking_losses, .behaviour, .trailing_bytes], [\"signal_seconds\", \"cpu_seconds\", "
                 "\"realtime_factor\", \"packets\", \"rs_ok\", \"rs_corrected\", \"rs_failed\", \"snr_db\"] - keys, "
                 "(.signal_seconds - 40 * 60160 / (64e6 / 63) | fabs) < 1e-4 and .snr_db > 15 and .packets % 128 == 0 "
                 "and (.rs_ok + .rs_corrected + .rs_failed - .packets) as $d | $d >= 0 and $d < 128]",
                 summary));
    EXPECT_NE(std::string::npos, r.err.find("Mode 3, guard 1/8, QPSK 2/3")) << r.err;
    EXPECT_EQ(toStdout, r.err.find("the last 120320 bytes are not a whole block") != std::string::npos);
    std::remove(ts.c_str());
  }
  // Read as the design device's stream (no filter ahead of the sample drop), the SDR's file gives nothing.
  const Result plain = Program("decode " + sdrPath + " --front-end device --json");
  ASSERT_EQ(0, plain.status) << plain.err;
  EXPECT_EQ("0", Jq(".packets", LastLine(plain.out)));
  std::remove(odd.c_str());
}

// One run for all receive checks: five seconds of the simulated programme, no noise, to standard
// output, read by a player that starts reading only after five seconds; the same stream to UDP; the
// status as JSON lines. The first call of 128 packets may hold the start-up; checks of content skip it.
TEST(ReceiveCommand, PausingPlayerGetsEveryPacketAlsoOverUdpJsonStatusAndRealPlayersTakeIt) {
  // A UDP receiver on a free port of the loopback interface, collecting datagrams on a thread.
  const int fd = socket(AF_INET, SOCK_DGRAM, 0), size = 8 << 20;
  const timeval wait{0, 200000};
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof a;
  ASSERT_TRUE(setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size) == 0 &&
              setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait) == 0 &&
              bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
              getsockname(fd, reinterpret_cast<sockaddr*>(&a), &length) == 0);
  std::atomic<bool> stop{false};
  std::vector<std::string> datagrams;
  std::thread sink([&] {
    for (std::vector<char> buffer(65536); !stop.load();)
      if (const ssize_t n = recv(fd, buffer.data(), buffer.size(), 0); n >= 0) datagrams.emplace_back(buffer.data(), n);
  });
  const std::string out = Temp("slow.ts"), err = Temp("err"), statusPath = Temp("status");
  Shell(std::string("(LD_LIBRARY_PATH=") + ZFN_LIBRARY_DIR + " " + ZFN_PROGRAM +
        " receive --simulate --channel 13 --seconds 5 --output - --json --udp 127.0.0.1:" + std::to_string(ntohs(a.sin_port)) +
        " 2>" + err + "; echo $? >" + statusPath + ") | (sleep 5; cat >" + out + ")");
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  stop = true;
  sink.join();
  close(fd);
  const std::string ts = ReadText(out), stderrText = ReadText(err);
  const int status = std::atoi(ReadText(statusPath).c_str());
  for (const std::string& p : {out, err, statusPath}) std::remove(p.c_str());
  ASSERT_EQ(0, status) << stderrText;
  ASSERT_TRUE(ts.size() % PACKET == 0 && ts.size() / PACKET >= 384u) << ts.size() << " bytes: " << stderrText;
  for (size_t at = 128 * PACKET; at < ts.size(); at += PACKET) ASSERT_EQ(0x47, static_cast<uint8_t>(ts[at])) << at;

  // Every line that starts with '{' is one JSON object: at least four status lines with all their
  // keys; the last that names the service tells the broadcast; the summary says nothing was dropped
  // (the player got every packet the library delivered).
  const std::string n = std::to_string(ts.size() / PACKET);
  EXPECT_EQ("[true,null,[\"QPSK\",\"2/3\",4,3,\"1/8\",\"Test pattern\"],[0," + n + "," + n + "]]",
            Jq("[inputs | select(startswith(\"{\")) | fromjson] | map(select(has(\"summary\") | not)) as $s | [($s | length >= 4), ($s | map([\"seconds\", "
               "\"present\", \"lock\", \"quality\", \"state\", \"mode\", \"guard\", \"modulation\", \"code_rate\", "
               "\"interleave\", \"snr_db\", \"carrier_offset_hz\", \"packets\", \"dropped\", \"services\"] - keys) | "
               "add | if . == [] then null else . end), ($s | map(select(.state == \"tracking\" and (.services | length) "
               "== 1)) | last | [.modulation, .code_rate, .interleave_length, .mode, .guard, .services[0].name]), "
               "(map(select(has(\"summary\"))) | last | [.dropped, .packets, .written])]",
               stderrText, "-R -n"))
      << stderrText;

  // UDP carries the same stream in datagrams of seven packets.
  ASSERT_FALSE(datagrams.empty());
  EXPECT_TRUE(std::all_of(datagrams.begin(), datagrams.end(), [](const std::string& d) { return d.size() == 7 * PACKET; }));
  const std::string joined = std::accumulate(datagrams.begin(), datagrams.end(), std::string());
  EXPECT_EQ(ts.size() / PACKET / 7, datagrams.size());
  EXPECT_EQ(ts.substr(0, joined.size()), joined);

  // ffprobe finds the programme's video and audio, and ffmpeg decodes the received video to frames
  // that are, checksum for checksum, frames of the programme that went in (the last may be cut).
  if (Shell("command -v ffprobe >/dev/null && command -v ffmpeg >/dev/null") != 0) {
    GTEST_SKIP() << "ffprobe/ffmpeg not installed (scripts/setup.sh installs them): real players not tried";
  }
  const std::string received = Temp("received.ts"), probe = Temp("probe"), mine = Temp("mine"), theirs = Temp("theirs");
  WriteAll(received, ts.data() + 128 * PACKET, ts.size() - 128 * PACKET);
  ASSERT_EQ(0, Shell("ffprobe -v error -show_entries stream=codec_type,codec_name -of csv=p=0 " + received + " >" + probe));
  const std::string streams = ReadText(probe);
  EXPECT_NE(std::string::npos, streams.find("h264,video")) << streams;
  EXPECT_NE(std::string::npos, streams.find("aac,audio")) << streams;
  const auto checksums = [](const std::string& input, const std::string& into) {
    EXPECT_EQ(0, Shell("ffmpeg -v error -i " + input + " -map 0:v -f framemd5 - | grep -v '^#' | awk -F, '{print $NF}' >" + into));
    std::istringstream sums(ReadText(into));
    return std::vector<std::string>(std::istream_iterator<std::string>(sums), {});
  };
  const std::vector<std::string> decoded = checksums(received, mine),
                                 sent = checksums(std::string(ZFN_SOURCE_DIR) + "/simulator/fixtures/programme.ts", theirs);
  const std::set<std::string> programme(sent.begin(), sent.end());
  ASSERT_GE(decoded.size(), 10u);
  size_t unknown = 0;
  for (size_t k = 0; k + 1 < decoded.size(); ++k) unknown += programme.count(decoded[k]) == 0;
  EXPECT_EQ(0u, unknown) << "of " << decoded.size() << " decoded frames";
  for (const std::string& p : {received, probe, mine, theirs}) std::remove(p.c_str());
}

// A reader that stays away longer than the ring holds: whole calls are dropped and counted, what was
// taken is written in order once the reader comes back, and nothing is lost without a count.
TEST(StreamOutput, AReaderFarBehindLosesWholeCallsAndTheyAreCounted) {
  int ends[2];
  ASSERT_EQ(0, pipe(ends));
  zfn::tools::StreamOutput output;
  std::string error;
  ASSERT_TRUE(output.Start(ends[1], "", &error)) << error;
  constexpr size_t CALL = 128 * PACKET;
  const size_t calls = zfn::tools::StreamOutput::RING_BYTES / CALL + 40;
  std::vector<uint8_t> call(CALL);
  for (size_t k = 0; k < calls; ++k) {
    for (size_t p = 0; p < 128; ++p) {
      call[p * PACKET] = 0x47;
      std::memcpy(&call[p * PACKET + 4], &k, sizeof k);  // the call's number in every packet
    }
    output.Push(call.data(), call.size());
  }
  std::string got;
  std::thread reader([&] {
    std::vector<char> buffer(1 << 16);
    for (ssize_t n; (n = read(ends[0], buffer.data(), buffer.size())) > 0;) got.append(buffer.data(), static_cast<size_t>(n));
  });
  output.Finish();
  close(ends[1]);
  reader.join();
  close(ends[0]);
  EXPECT_EQ(std::make_pair(0, static_cast<int64_t>(calls * CALL)), std::make_pair(output.WriteError(), output.BytesReceived()));
  EXPECT_TRUE(output.PacketsDropped() > 0 && output.PacketsDropped() % 128 == 0) << "whole calls: " << output.PacketsDropped();
  EXPECT_EQ(output.BytesReceived(), output.BytesWritten() + output.PacketsDropped() * static_cast<int64_t>(PACKET));
  ASSERT_EQ(static_cast<size_t>(output.BytesWritten()), got.size());
  for (size_t at = CALL; at < got.size(); at += CALL) {
    size_t previous = 0, k = 0;
    std::memcpy(&previous, &got[at - CALL + 4], sizeof previous);
    std::memcpy(&k, &got[at + 4], sizeof k);
    EXPECT_GT(k, previous) << "calls stay in order";
  }
}

// Two channels of three carry the broadcast; the scan names exactly those, with the service.
TEST(ScanCommand, FindsExactlyTheChannelsOnAirWithTheirServiceNames) {
  const Result r = Program("scan --simulate --band japan --channels 13-15 --json",
                           "ZFNISDBT_SIM_SPEED=2 ZFNISDBT_SIM_CHANNELS=473143,485143");
  ASSERT_EQ(0, r.status) << r.err;
  EXPECT_EQ("[\"japan\",[[13,473143,\"Test pattern\",1,1,3,\"1/8\"],[15,485143,\"Test pattern\",1,1,3,\"1/8\"]]]",
            Jq("[.band, (.channels | map([.channel, .frequency_khz, .service_name, (.services | length), "
               ".services[0].id, .mode, .guard]))]",
               LastLine(r.out)))
      << r.err;
  EXPECT_NE(std::string::npos, r.err.find("channel 14 (479143 kHz) ... nothing")) << r.err;
}

// Help on standard output for every command and the version; usage errors with status 2; bad input
// files with their message and status 1 and nothing on standard output; a signal the engine cannot
// lock to (only noise) decodes to no stream and says so without failing; a capture that would
// replace an existing file is refused.
TEST_F(Tool, CommandLinesThatOnlyPrintOrFail) {
  const std::string dir = Temp("cwd"), empty = Temp("empty"), shortFile = Temp("short"), noise = Temp("noise");
  ASSERT_EQ(0, Shell("mkdir -p " + dir + " && touch " + dir + "/BBStore0"));
  WriteAll(empty, "", 0);
  WriteAll(shortFile, capture.data(), BLOCK - 4);
  ASSERT_EQ(0, Shell("head -c " + std::to_string(6 * BLOCK) + " /dev/urandom >" + noise));
  const struct {
    std::string arguments;
    int status;
    const char* text;  // in standard output for status 0 with an empty standard error, else in standard error
  } cases[] = {
      {"--version", 0, "zfnisdbt "},
      {"-V", 0, "zfnisdbt "},
      {"--help", 0, "scan"},
      {"receive --help", 0, "--udp HOST:PORT"},
      {"scan --help", 0, "--band"},
      {"decode --help", 0, "usage: zfnisdbt decode"},
      {"generate --help", 0, "generate"},
      {"receive --channel 70", 2, "channel 70 is not in the japan band (13..62)"},
      {"receive --channel 13 --frequency 473143", 2, "not both"},
      {"scan --band mars", 2, "--band needs japan or brazil"},
      {"receive --gain loud", 2, "--gain needs a number"},
      {"receive --udp nowhere", 1, "--udp needs HOST:PORT"},
      {"receive --simulate --capture", 1, "BBStore0 exists"},
      {"decode " + Temp("missing"), 1, "cannot open"},
      {"decode " + empty, 1, "is empty"},
      {"decode " + dir, 1, "is a directory"},
      {"decode " + shortFile, 1, "is truncated: 240636 bytes, less than one block"},
      {"decode - < " + empty, 1, "'standard input' is empty"},
      {"decode - < " + shortFile + " --output " + Temp("never.ts"), 1, "'standard input' is truncated: 240636 bytes"},
      {"decode " + capturePath + " --output /nonexistent_dir/x.ts", 1, "cannot write"},
      {"decode " + shortFile + " --output " + shortFile, 1, "is truncated"},
      {"decode " + capturePath + " --output " + capturePath, 1, "is the input itself"},
      {"decode", 2, "no input file"},
      {"decode " + capturePath + " --speed 3", 2, "unknown option '--speed'"},
      {"decode " + capturePath + " --output", 2, "--output needs"},
      {"decode " + capturePath + " --front-end tuner", 2, "--front-end needs device or sdr"},
      {"decode " + noise + " --output -", -1, "no lock"},  // status 0, the word on standard error
  };
  for (const auto& c : cases) {
    const Result r = Program(c.arguments, "cd " + dir + " &&");
    EXPECT_EQ(std::max(c.status, 0), r.status) << c.arguments << ": " << r.err;
    EXPECT_NE(std::string::npos, (c.status == 0 ? r.out : r.err).find(c.text)) << c.arguments << ": " << r.out << r.err;
    EXPECT_EQ("", c.status == 0 ? r.err : r.out) << c.arguments;
  }
  EXPECT_NE(0, access(Temp("never.ts").c_str(), F_OK)) << "an output with nothing decoded into it is removed";
  EXPECT_EQ(40 * BLOCK, ReadText(capturePath).size()) << "the input is left as it was";
  EXPECT_EQ(0u, ReadText(dir + "/BBStore0").size()) << "the existing capture is left as it was";
  Shell("rm -rf " + dir + " " + empty + " " + shortFile + " " + noise);
}

}  // namespace
