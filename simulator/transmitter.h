#pragma once
// Our ISDB-T transmitter for the partial-reception segment and its neighbours, the channel model,
// and the device byte stream. This is the interface that the generate command, the simulator
// library and the tests use.
//
// Where the signal sits. The device tunes 600 kHz above the channel and its mixer brings that IF
// back to zero, so in the device stream the carrier at the channel centre (local carrier Nc/2 of
// segment 0, band carrier 6.5*Nc) lies at DC. Segment 0 then spans carriers -Nc/2 .. Nc/2 - 1
// around DC, -214.3 kHz to +210.3 kHz (Mode 1), so its true centre lies half a carrier below DC
// (-1984 Hz in Mode 1, -992 Hz in Mode 2, -496 Hz in Mode 3). Segments 1 and 3 lie below it,
// 2 and 4 above. Every second device sample taken with no filter keeps carrier Nc/2 on bin 0 of
// the receiver's 64/63 MHz transform.
//
// Rates. The broadcast is synthesised at exactly 2 x 64/63 MHz = 2031746.03 samples/s. A real
// device samples at 28.8 MHz * 2^22 / 59454256 = 2031746.14 samples/s, +0.054 ppm against that;
// the clock offset of the channel model can add it (or any other offset).
#include <complex>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace zfn::sim {

constexpr double kEngineRateHz = 64e6 / 63.0;
constexpr double kBroadcastRateHz = 2.0 * kEngineRateHz;
constexpr double kDeviceNominalRateHz = 28800000.0 * 4194304.0 / 59454256.0;
constexpr int kBytesPerEngineSample = 4;  // I, Q of two device samples; the receiver keeps the first

struct BroadcastConfig {
  int mode = 3;         // 1..3
  int guard = 2;        // 0..3: 1/32, 1/16, 1/8, 1/4
  int modulation = 1;   // layer A, TMCC code: 1 QPSK, 2 16QAM, 3 64QAM
  int codeRate = 1;     // 0..4: 1/2, 2/3, 3/4, 5/6, 7/8
  int interleave = 3;   // 0..3: index of the time interleaving length
  bool partialReception = true;  // TMCC partial reception flag
  int systemId = 0;     // TMCC system identification: 0 television, 1 sound, 2 and 3 reserved
  int neighbourModulation = 3;   // layer B of the 12 other segments (random data), TMCC code
  // Device filter: carriers farther than this from DC are not synthesised (the device's filter
  // puts them at least 60 dB down). 780 kHz models a front end that keeps everything that folds
  // onto segment 0 out, though carriers from 0.66 MHz up fold into the receiver's analysis span
  // beside it; 650 kHz keeps the span clean too. wideDeviceFilter passes everything the transform
  // can hold (+-1.01 MHz).
  double deviceFilterHz = 780e3;
  bool wideDeviceFilter = false;
  uint64_t seed = 1;    // neighbour data and the initial contents of the delay lines
  std::vector<int> tmccFlips{};  // test hook: TMCC word bits (0 = B20) sent inverted in every frame
};

struct EchoPath {
  double delayUs = 0;    // against the main path
  double gainDb = -10;   // against the main path
  double phaseDeg = 0;
};

enum class FadingProfile { Tu6, SinglePath };

// Which receiver front end the stream comes from.
//  Device: the design's device. Its filter is modelled at synthesis (BroadcastConfig's
//    deviceFilterHz); thermal noise enters ahead of that filter, so it is band-limited like the
//    carriers. Bytes around 127 (round to nearest).
//  Sdr: a generic SDR tuned like the device at 2031746 samples/s. The whole 13-segment broadcast,
//    shaped by a transmit filter that runs continuously across symbols, thermal noise, the SDR's
//    wide anti-alias filter (flat to about 0.92 MHz, 6 dB down at 1.016 MHz, 55 dB from 1.11 MHz;
//    what lies between 1.016 and 1.11 MHz folds back onto the band edges), DC offset, I/Q gain and
//    phase imbalance, 8-bit quantisation around 127.5 (byte b stands for b - 127.5), and the loss
//    of whole USB transfers now and then.
enum class FrontEnd { Device, Sdr };

struct ChannelConfig {
  bool noise = false;
  double cnDb = 30;               // C/N over the occupied band of segment 0 (6/14 MHz)
  double carrierOffsetHz = 0;     // +-110 kHz at most
  double clockPpm = 0;            // device sample clock against the broadcast's, parts per million
  std::vector<EchoPath> echoes;   // static echoes beside a main path of gain 1
  double dopplerHz = 0;           // > 0: Rayleigh fading with this maximum Doppler frequency
  FadingProfile profile = FadingProfile::Tu6;
  double rmsLevel = 28;           // RMS of each byte component around 127, in steps
  // A host that falls behind: every dropEveryBytes bytes, dropBytes bytes are lost (both are
  // rounded down to groups of four). 0 disables.
  int64_t dropEveryBytes = 0;
  int64_t dropBytes = 0;
  uint64_t seed = 1;              // noise and fading

  FrontEnd frontEnd = FrontEnd::Device;
  // Generic SDR only (FrontEnd::Sdr); the defaults are those of a typical USB dongle.
  bool transmitFilter = true;     // band-limiting filter of the transmitter, across symbol edges
  double dcI = 1.5, dcQ = -1.0;   // DC offset of each component, in byte steps from 127.5
  double iqGainDb = 0.3;          // I against Q amplitude: I' = g I, Q' = (Q cos p + I sin p) / g,
  double iqPhaseDeg = 2.0;        //   g = 10^(iqGainDb/40), p the phase error of the Q branch
  // Lost USB transfers: the stream is cut into transfers of transferBytes bytes and each is lost
  // with probability 1 / transferLossOneIn (seeded). 0 disables.
  int64_t transferBytes = 0;
  int64_t transferLossOneIn = 0;
};

// Layer numbers.
int PacketsPerFrame(const BroadcastConfig& b);       // T = 12 * q * R * 2^(mode-1)
double SymbolSeconds(const BroadcastConfig& b);
double FrameSeconds(const BroadcastConfig& b);
double LayerBitRate(const BroadcastConfig& b);       // of the 188-byte packets, bit/s
int EngineSamplesPerSymbol(const BroadcastConfig& b);  // nfft + nguard at 64/63 MHz
// Device bytes of one OFDM frame: frame f starts at byte f * BytesPerFrame(b) of the output
// (before any clock offset, multipath delay or dropped bytes).
inline int64_t BytesPerFrame(const BroadcastConfig& b) {
  return int64_t{204} * EngineSamplesPerSymbol(b) * kBytesPerEngineSample;
}

// Empty if both are valid, otherwise one line that says what is wrong.
std::string CheckConfig(const BroadcastConfig& b, const ChannelConfig& c);

// ---------------------------------------------------------------------------------------------
// Transport stream input: one 188-byte packet per call.
class PacketSource {
 public:
  virtual ~PacketSource() = default;
  virtual void Next(uint8_t* packet) = 0;
};
// A TS file, played in a loop. Its null packets are dropped and null packets are inserted so that
// its own rate (from its PCRs) is kept inside the layer's rate; a file without PCRs or faster than
// the layer plays packet after packet. nullptr and *error set on failure.
std::unique_ptr<PacketSource> OpenTsFile(const std::string& path, double layerBitRate, std::string* error);
// Deterministic packets on PID 0x100 whose payload follows from the packet count and the seed,
// continuity counter running; for tests.
std::unique_ptr<PacketSource> MakeTestPatternSource(uint64_t seed);
// Null packets only.
std::unique_ptr<PacketSource> MakeNullSource();

// ---------------------------------------------------------------------------------------------
// The whole chain: transmitter, channel, device bytes. The output starts at symbol 0 of OFDM
// frame 0 (before any clock or multipath delay).
class SignalGenerator {
 public:
  static std::unique_ptr<SignalGenerator> Create(const BroadcastConfig& b, const ChannelConfig& c,
                                                 std::unique_ptr<PacketSource> source, std::string* error);
  virtual ~SignalGenerator() = default;

  // Device bytes: groups of four (I, Q of two device samples), zero level 127 (127.5 from the
  // generic SDR front end).
  virtual void GenerateBytes(uint8_t* out, size_t count) = 0;
  std::vector<uint8_t> GenerateSeconds(double seconds);
  // Complex device-rate samples after the channel, before quantisation (unit: one step of a byte
  // component; from the generic SDR front end with its DC offset and imbalance, 0 standing for
  // 127.5). Use either this or GenerateBytes on one generator.
  virtual void GenerateSamples(std::complex<float>* out, size_t count) = 0;

  // Keep a copy of every 188-byte packet that enters the transmitter, in order.
  virtual void RecordPackets(bool on) = 0;
  virtual const std::vector<uint8_t>& TransmittedPackets() const = 0;  // 188 bytes each

  virtual int PacketsPerFrame() const = 0;
  virtual double LayerBitRate() const = 0;
  // Device samples per OFDM symbol and per frame at the broadcast's rate.
  virtual int DeviceSamplesPerSymbol() const = 0;
  // Mean power of the signal per complex device sample before scaling to bytes, of segment 0
  // alone and of all synthesised carriers (from the generic SDR front end: all that its filters
  // pass); and the scale to byte steps that the quantiser uses.
  virtual double Segment0Power() const = 0;
  virtual double TotalPower() const = 0;
  virtual double ByteScale() const = 0;
  // Whole transfers lost so far (generic SDR front end).
  virtual int64_t TransfersLost() const { return 0; }
};

}  // namespace zfn::sim
