// Processor cost of the SDR device library per second of signal: a generic SDR's recording of the
// common broadcast (C/N 20 dB) played by the capture module as fast as it is read, once read
// through SoapySDR alone and once through the device library (resampling where the rate asks it,
// conditioning, the byte ring), at the device rate and at two rates the library resamples from.
// The library's share is the difference of the two, per second of signal, in one run.
#include <SoapySDR/Device.hpp>
#include <SoapySDR/Formats.hpp>
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <time.h>

#include <chrono>
#include <complex>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "bench/bench_machine.h"
#include "frontend/sample_source_contract.h"
#include "simulator/transmitter.h"

namespace {

constexpr double RECORDING_SECONDS = 2.0;
const std::string recordingPath = "/tmp/zfn_sdr_device_bench.cu8";
std::map<int64_t, double> moduleMs, libraryMs;  // per second of signal, by rate

double ProcessCpuSeconds() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

bool WriteRecording() {
  zfn::sim::BroadcastConfig b;
  zfn::sim::ChannelConfig c;
  c.frontEnd = zfn::sim::FrontEnd::Sdr;
  c.noise = true;
  c.cnDb = 20;
  std::string error;
  auto gen = zfn::sim::SignalGenerator::Create(b, c, zfn::sim::MakeTestPatternSource(1), &error);
  if (!gen) return false;
  std::vector<uint8_t> bytes(static_cast<size_t>(RECORDING_SECONDS * zfn::sim::kBroadcastRateHz) * 2 & ~size_t{3});
  gen->GenerateBytes(bytes.data(), bytes.size());
  std::FILE* f = std::fopen(recordingPath.c_str(), "wb");
  if (f == nullptr) return false;
  const bool ok = std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
  return std::fclose(f) == 0 && ok;
}

std::string Args(int64_t rate) {
  return "driver=zfncapture,speed=0,path=" + recordingPath + ",rates=" + std::to_string(rate);
}

void BM_ModuleAlone(benchmark::State& state) {
  const int64_t rate = state.range(0);
  double cpu = 0;
  for (auto _ : state) {
    const double start = ProcessCpuSeconds();
    SoapySDR::Device* d = SoapySDR::Device::make(Args(rate));
    d->setSampleRate(SOAPY_SDR_RX, 0, static_cast<double>(rate));
    SoapySDR::Stream* s = d->setupStream(SOAPY_SDR_RX, SOAPY_SDR_CF32);
    d->activateStream(s);
    std::vector<std::complex<float>> buffer(16384);
    void* buffers[1] = {buffer.data()};
    int flags = 0;
    long long timeNs = 0;
    while (d->readStream(s, buffers, buffer.size(), flags, timeNs, 100000) > 0) {
    }
    d->deactivateStream(s);
    d->closeStream(s);
    SoapySDR::Device::unmake(d);
    cpu += ProcessCpuSeconds() - start;
  }
  moduleMs[rate] = 1e3 * cpu / (static_cast<double>(state.iterations()) * RECORDING_SECONDS);
}

void BM_ModuleAndLibrary(benchmark::State& state) {
  const int64_t rate = state.range(0);
  void* library = dlopen(ZFN_DEVICE_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) {
    state.SkipWithError("libZFNACCESS.so not found");
    return;
  }
  auto init = reinterpret_cast<ZfnBdaFilterInitFn>(dlsym(library, "ZFN_BDAFilterInit"));
  auto release = reinterpret_cast<ZfnBdaFilterReleaseFn>(dlsym(library, "ZFN_BDAFilterRelease"));
  auto getData = reinterpret_cast<ZfnGetDataFn>(dlsym(library, "ZFN_GetData"));
  setenv("ZFNISDBT_DEVICE", Args(rate).c_str(), 1);
  std::vector<uint8_t> buffer(240648);
  double cpu = 0;
  for (auto _ : state) {
    const double start = ProcessCpuSeconds();
    if (init(0) != 1) {
      state.SkipWithError("the device library did not open the capture");
      break;
    }
    // Until the capture has ended and the stream has stopped (no bytes for 0.3 s).
    auto last = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - last < std::chrono::milliseconds(300)) {
      int32_t length = 0, aux = 0;
      getData(buffer.data(), static_cast<int32_t>(buffer.size()), &length, &aux);
      if (length > 0) {
        last = std::chrono::steady_clock::now();
      } else {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
      }
    }
    release(0);
    cpu += ProcessCpuSeconds() - start;
  }
  libraryMs[rate] = 1e3 * cpu / (static_cast<double>(state.iterations()) * RECORDING_SECONDS);
  dlclose(library);
}

BENCHMARK(BM_ModuleAlone)->Arg(2031746)->Arg(2048000)->Arg(2400000)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_ModuleAndLibrary)->Arg(2031746)->Arg(2048000)->Arg(2400000)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace

int main(int argc, char** argv) {
  std::printf("Machine: %s\n", zfn::bench::MachineLine().c_str());
  setenv("SOAPY_SDR_PLUGIN_PATH", ZFN_SOAPY_MODULES, 1);
  setenv("SOAPY_SDR_ROOT", ZFN_NO_SOAPY_ROOT, 1);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  if (!WriteRecording()) {
    std::fprintf(stderr, "sdr_device_bench: cannot write %s\n", recordingPath.c_str());
    return 1;
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::printf("\nDevice library, processor time per second of signal (module's own share taken off):\n");
  for (const auto& [rate, both] : libraryMs) {
    if (moduleMs.count(rate) != 0) {
      std::printf("  from %lld samples/s: %.1f ms\n", static_cast<long long>(rate), both - moduleMs[rate]);
    }
  }
  std::remove(recordingPath.c_str());
  return 0;
}
