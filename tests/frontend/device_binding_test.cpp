// Binding of the device and simulator libraries. Each suite runs in its own process with its own
// library search path (see CMakeLists.txt), since the dynamic linker reads LD_LIBRARY_PATH once.
#include <dlfcn.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstring>
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

TEST(BindingAbsent, DeviceLibraryNowhereGivesZeroAndTheSimulatorMinusOne) {
  deviceBinding.GetData = reinterpret_cast<ZfnGetDataFn>(1);  // a stale pointer from an earlier binding
  EXPECT_EQ(BindDeviceLibrary(), 0);
  EXPECT_EQ(deviceBinding.library, nullptr);
  EXPECT_EQ(deviceBinding.GetData, nullptr);
  UnbindDeviceLibrary();
  EXPECT_EQ(deviceBinding.library, nullptr);
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

TEST(BindingPlainName, SimulatorStartsRestartsAndFailsWithMinusOne) {
  void* own = TestSimulatorHandle();
  ASSERT_NE(own, nullptr);
  Symbol<void (*)()>(own, "TestSim_Reset")();
  TestEvent event;
  ASSERT_EQ(BindSimulator(&event.fd), 0);
  EXPECT_EQ(simulatorBinding.library, own);
  EXPECT_TRUE(event.WaitSet(1000));

  std::vector<uint8_t> buffer(240648);
  int32_t length = -1;
  ASSERT_EQ(simulatorBinding.GetData(buffer.data(), &length), 0);
  ASSERT_GT(length, 0);
  EXPECT_EQ(buffer[0], Symbol<uint8_t (*)(int64_t)>(own, "TestSim_PatternByte")(0));
  EXPECT_EQ(simulatorBinding.BDA_Stop_simulate(), 0);
  EXPECT_EQ(Symbol<int32_t (*)()>(own, "TestSim_EventThreadRunning")(), 0);

  // A second open loads the simulator again over the stored handle, and it starts again.
  ASSERT_EQ(BindSimulator(&event.fd), 0);
  EXPECT_EQ(simulatorBinding.library, own);
  EXPECT_EQ(Symbol<int64_t (*)()>(own, "TestSim_BytesServed")(), 0);
  EXPECT_EQ(simulatorBinding.BDA_Stop_simulate(), 0);

  // Failures of registration or start give -1.
  auto reset = Symbol<void (*)()>(own, "TestSim_Reset");
  auto fail = Symbol<int32_t (*)(const char*)>(own, "TestSim_FailFunction");
  auto started = Symbol<int32_t (*)()>(own, "TestSim_Started");
  auto calls = Symbol<int32_t (*)(const char*)>(own, "TestSim_CallCount");
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
