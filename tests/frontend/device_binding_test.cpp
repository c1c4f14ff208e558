// Binding of the device and simulator libraries. Each suite runs in its own process with its own
// library search path (see CMakeLists.txt), since the dynamic linker reads LD_LIBRARY_PATH once.
#include <dlfcn.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "frontend/device_binding.h"
#include "tests/support/test_device/test_device_control.h"
#include "tests/support/test_simulator/test_simulator_control.h"

namespace zfn {
namespace {

template <class Fn>
Fn Symbol(void* library, const char* name) {
  return reinterpret_cast<Fn>(dlsym(library, name));
}

bool AllDevicePointersSet() {
  const DeviceBinding& b = deviceBinding;
  return b.BDAFilterInit && b.BDAFilterRelease && b.Set_Frequency && b.Set_Bandwidth && b.DeviceUpdate &&
         b.Demod_Byte_Read && b.Demod_Byte_Write && b.GetData && b.SetDABEventHandle && b.ReleaseDABEventHandle &&
         b.Get_TunerType;
}

std::string BoundFlavour() {
  auto flavour = Symbol<const char* (*)()>(deviceBinding.library, "TestDevice_Flavour");
  return flavour != nullptr ? flavour() : "";
}

// An eventfd like the receiver's dataEvent, closed at the end of the test.
struct TestEvent {
  int fd = eventfd(0, EFD_CLOEXEC);
  ~TestEvent() { close(fd); }
  bool WaitSet(int timeoutMs) {
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, timeoutMs) != 1) return false;
    uint64_t value = 0;
    return read(fd, &value, sizeof value) == sizeof value;
  }
};

// The test simulator, opened by the test itself to reach its controls; the handle is the same one
// BindSimulator gets, since the loader shares an already loaded library.
void* TestSimulatorHandle() { return dlopen("libBDA_simu.so", RTLD_NOW | RTLD_LOCAL); }

TEST(BindingAbsent, DeviceLibraryNowhereGivesZero) {
  deviceBinding.GetData = reinterpret_cast<ZfnGetDataFn>(1);  // a stale pointer from an earlier binding
  EXPECT_EQ(BindDeviceLibrary(), 0);
  EXPECT_EQ(deviceBinding.library, nullptr);
  EXPECT_EQ(deviceBinding.GetData, nullptr);
  UnbindDeviceLibrary();
  EXPECT_EQ(deviceBinding.library, nullptr);
}

TEST(BindingAbsent, SimulatorNowhereGivesMinusOne) {
  TestEvent event;
  EXPECT_EQ(BindSimulator(&event.fd), -1);
}

TEST(BindingIncomplete, OneMissingFunctionGivesZeroAndKeepsTheLibraryLoaded) {
  EXPECT_EQ(BindDeviceLibrary(), 0);
  ASSERT_NE(deviceBinding.library, nullptr);
  EXPECT_EQ(BoundFlavour(), "incomplete");
  EXPECT_EQ(deviceBinding.Get_TunerType, nullptr);
  EXPECT_NE(deviceBinding.GetData, nullptr);  // the lookups went on past the missing one
  UnbindDeviceLibrary();
  EXPECT_EQ(deviceBinding.library, nullptr);
}

TEST(BindingPlainName, FindsAllElevenFunctionsThroughTheSearchPath) {
  ASSERT_EQ(BindDeviceLibrary(), 1);
  EXPECT_TRUE(AllDevicePointersSet());
  EXPECT_EQ(BoundFlavour(), "testdevice");
  EXPECT_EQ(deviceBinding.Set_Bandwidth(6), 1);
  UnbindDeviceLibrary();
  EXPECT_EQ(deviceBinding.library, nullptr);
  EXPECT_EQ(deviceBinding.Set_Bandwidth, nullptr);
  // A second binding after an unbind works the same way.
  ASSERT_EQ(BindDeviceLibrary(), 1);
  EXPECT_TRUE(AllDevicePointersSet());
  UnbindDeviceLibrary();
}

TEST(BindingPlainName, DeviceEventThreadRunsBetweenInitAndRelease) {
  ASSERT_EQ(BindDeviceLibrary(), 1);
  void* library = deviceBinding.library;
  Symbol<void (*)()>(library, "TestDevice_Reset")();
  auto threadRunning = Symbol<int32_t (*)()>(library, "TestDevice_EventThreadRunning");
  TestEvent event;
  ASSERT_EQ(deviceBinding.BDAFilterInit(0), 1);
  EXPECT_EQ(threadRunning(), 0);  // no event yet
  ASSERT_EQ(deviceBinding.SetDABEventHandle(&event.fd), 1);
  EXPECT_EQ(threadRunning(), 1);
  EXPECT_TRUE(event.WaitSet(1000));

  std::vector<uint8_t> buffer(240648);
  int32_t length = -1;
  int32_t aux = 0;
  EXPECT_EQ(deviceBinding.GetData(buffer.data(), 240648, &length, &aux), 1);
  ASSERT_EQ(length, 240648);
  auto pattern = Symbol<uint8_t (*)(int64_t)>(library, "TestDevice_PatternByte");
  for (int32_t k = 0; k < length; k += 997) ASSERT_EQ(buffer[k], pattern(k)) << k;

  EXPECT_EQ(deviceBinding.ReleaseDABEventHandle(&event.fd), 1);
  EXPECT_EQ(threadRunning(), 0);
  EXPECT_EQ(deviceBinding.BDAFilterRelease(0), 1);
  UnbindDeviceLibrary();
}

// The receiver calls the device from three threads at once with no lock of its own: reception
// (GetData on each event), demodulation (register writes) and the API caller. Run under
// ThreadSanitizer this shows the test library safe for that, and its thread gone after release.
TEST(BindingPlainName, DeviceTakesCallsFromSeveralThreads) {
  ASSERT_EQ(BindDeviceLibrary(), 1);
  void* library = deviceBinding.library;
  Symbol<void (*)()>(library, "TestDevice_Reset")();
  Symbol<void (*)(int32_t, uint32_t, int32_t)>(library, "TestDevice_SetReadLength")(0, 3, 1);
  Symbol<void (*)(int32_t)>(library, "TestDevice_SetEventPeriod")(1);
  TestEvent event;
  ASSERT_EQ(deviceBinding.BDAFilterInit(0), 1);
  ASSERT_EQ(deviceBinding.SetDABEventHandle(&event.fd), 1);

  std::atomic<bool> stop{false};
  int64_t received = 0;
  std::thread reception([&] {
    std::vector<uint8_t> buffer(240648);
    while (!stop.load()) {
      if (!event.WaitSet(300)) continue;
      int32_t length = 0;
      int32_t aux = 0;
      deviceBinding.GetData(buffer.data(), 240648, &length, &aux);
      received += length;
    }
  });
  std::thread demodulation([&] {
    for (int i = 0; i < 200; ++i) {
      uint8_t bytes[2] = {static_cast<uint8_t>(i), 0};
      deviceBinding.Demod_Byte_Write(1, 0x3E, 2, bytes);
      deviceBinding.Demod_Byte_Read(1, 0x01, 1, bytes);
    }
  });
  for (int i = 0; i < 50; ++i) {
    deviceBinding.Set_Frequency(500000 + i);
    Symbol<int32_t (*)()>(library, "TestDevice_CallCount")();
  }
  demodulation.join();
  while (Symbol<int64_t (*)()>(library, "TestDevice_EventsSignalled")() < 5) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  stop.store(true);
  reception.join();
  EXPECT_EQ(deviceBinding.ReleaseDABEventHandle(&event.fd), 1);
  EXPECT_EQ(deviceBinding.BDAFilterRelease(0), 1);
  EXPECT_EQ(Symbol<int32_t (*)()>(library, "TestDevice_EventThreadRunning")(), 0);
  EXPECT_EQ(received, Symbol<int64_t (*)()>(library, "TestDevice_BytesServed")());
  EXPECT_EQ(Symbol<int32_t (*)(int32_t, int32_t)>(library, "TestDevice_GetRegister")(1, 0x3E), 199);
  UnbindDeviceLibrary();
}

TEST(BindingPlainName, SimulatorStartsAndServesThePattern) {
  void* own = TestSimulatorHandle();
  ASSERT_NE(own, nullptr);
  Symbol<void (*)()>(own, "TestSim_Reset")();
  TestEvent event;
  ASSERT_EQ(BindSimulator(&event.fd), 0);
  EXPECT_EQ(simulatorBinding.library, own);
  EXPECT_TRUE(event.WaitSet(1000));

  auto pattern = Symbol<uint8_t (*)(int64_t)>(own, "TestSim_PatternByte");
  Symbol<void (*)(int32_t, uint32_t, int32_t)>(own, "TestSim_SetReadLength")(0, 7, 1);
  std::vector<uint8_t> buffer(240648);
  int64_t position = 0;
  for (int call = 0; call < 20; ++call) {
    int32_t length = -1;
    ASSERT_EQ(simulatorBinding.GetData(buffer.data(), &length), 0);
    ASSERT_GE(length, 4);
    ASSERT_LE(length, 240648);
    ASSERT_EQ(length % 4, 0);
    for (int32_t i = 0; i < length; i += 131) ASSERT_EQ(buffer[i], pattern(position + i));
    position += length;
  }
  EXPECT_EQ(simulatorBinding.BDA_Stop_simulate(), 0);
  EXPECT_EQ(Symbol<int32_t (*)()>(own, "TestSim_EventThreadRunning")(), 0);

  // A second open loads the simulator again over the stored handle, and it starts again.
  ASSERT_EQ(BindSimulator(&event.fd), 0);
  EXPECT_EQ(simulatorBinding.library, own);
  EXPECT_EQ(Symbol<int64_t (*)()>(own, "TestSim_BytesServed")(), 0);
  EXPECT_EQ(simulatorBinding.BDA_Stop_simulate(), 0);
}

TEST(BindingPlainName, SimulatorFailuresGiveMinusOne) {
  void* own = TestSimulatorHandle();
  ASSERT_NE(own, nullptr);
  auto reset = Symbol<void (*)()>(own, "TestSim_Reset");
  auto fail = Symbol<int32_t (*)(const char*)>(own, "TestSim_FailFunction");
  auto started = Symbol<int32_t (*)()>(own, "TestSim_Started");
  auto calls = Symbol<int32_t (*)(const char*)>(own, "TestSim_CallCount");
  TestEvent event;

  reset();
  ASSERT_EQ(fail("BDA_Start_simulate"), 1);
  EXPECT_EQ(BindSimulator(&event.fd), -1);
  EXPECT_EQ(started(), 0);

  reset();
  ASSERT_EQ(fail("SetEventHandle"), 1);
  EXPECT_EQ(BindSimulator(&event.fd), -1);
  EXPECT_EQ(calls("BDA_Start_simulate"), 0);  // start is not tried after a failed registration
  reset();
}

TEST(BindingSimulatorEnvironment, StartFailureChosenByEnvironment) {
  TestEvent event;
  EXPECT_EQ(BindSimulator(&event.fd), -1);
}

TEST(BindingLibdirFirst, SystemDirectoryWinsOverTheSearchPath) {
  ASSERT_EQ(BindDeviceLibrary(), 1);
  EXPECT_EQ(BoundFlavour(), "libdir");
  UnbindDeviceLibrary();
}

TEST(BindingShippedSimulationDevice, AcceptsRegistersButFindsNoDevice) {
  ASSERT_EQ(BindDeviceLibrary(), 1);
  EXPECT_EQ(dlsym(deviceBinding.library, "TestDevice_Flavour"), nullptr);  // the shipped build
  EXPECT_EQ(deviceBinding.BDAFilterInit(0), 0);
  uint8_t written[2] = {0x12, 0x34};
  EXPECT_EQ(deviceBinding.Demod_Byte_Write(1, 0x3E, 2, written), 1);
  uint8_t read[2] = {};
  EXPECT_EQ(deviceBinding.Demod_Byte_Read(1, 0x3E, 2, read), 1);
  EXPECT_EQ(std::memcmp(read, written, 2), 0);
  EXPECT_EQ(deviceBinding.Demod_Byte_Write(1, 0xFE, 4, written), 0);  // past the end of the page
  uint8_t buffer[64];
  int32_t length = -1;
  int32_t aux = 0;
  deviceBinding.GetData(buffer, sizeof buffer, &length, &aux);
  EXPECT_EQ(length, 0);
  int32_t tunerType = -1;
  EXPECT_EQ(deviceBinding.Get_TunerType(&tunerType), 1);
  EXPECT_EQ(tunerType, 0);
  UnbindDeviceLibrary();
}

}  // namespace
}  // namespace zfn
