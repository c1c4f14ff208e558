// Binding of the device and simulator libraries. Each case runs in its own process with its own
// library search path (see CMakeLists.txt), since the dynamic linker reads LD_LIBRARY_PATH once.
#include <dlfcn.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "frontend/device_binding.h"

namespace zfn {
namespace {

template <class Fn = int32_t (*)()>
Fn Symbol(void* library, const char* name) {
  return reinterpret_cast<Fn>(dlsym(library, name));
}

// Binds the device library and tells which build it found ("" for none, "shipped" for one without
// the test controls), with all eleven functions or only those before the first missing one.
std::string Bind(int32_t expected, bool complete) {
  EXPECT_EQ(BindDeviceLibrary(), expected);
  const DeviceBinding& b = deviceBinding;
  const bool all = b.BDAFilterInit && b.BDAFilterRelease && b.Set_Frequency && b.Set_Bandwidth && b.DeviceUpdate &&
                   b.Demod_Byte_Read && b.Demod_Byte_Write && b.GetData && b.SetDABEventHandle &&
                   b.ReleaseDABEventHandle && b.Get_TunerType;
  EXPECT_EQ(all, complete);
  if (b.library == nullptr) return "";
  auto flavour = Symbol<const char* (*)()>(b.library, "TestDevice_Flavour");
  return flavour != nullptr ? flavour() : "shipped";
}

void UnbindClears() {
  UnbindDeviceLibrary();
  EXPECT_EQ(deviceBinding.library, nullptr);
  EXPECT_EQ(deviceBinding.GetData, nullptr);
}

TEST(Binding, Absent) {
  deviceBinding.GetData = reinterpret_cast<ZfnGetDataFn>(1);  // a stale pointer from an earlier binding
  EXPECT_EQ(Bind(0, false), "");
  EXPECT_EQ(deviceBinding.GetData, nullptr);
  UnbindClears();
  int event = eventfd(0, EFD_CLOEXEC);
  EXPECT_EQ(BindSimulator(&event), -1);
  close(event);
}

TEST(Binding, Incomplete) {
  EXPECT_EQ(Bind(0, false), "incomplete");  // kept loaded
  EXPECT_EQ(deviceBinding.Get_TunerType, nullptr);
  EXPECT_NE(deviceBinding.GetData, nullptr);  // the lookups went on past the missing one
  UnbindClears();
}

TEST(Binding, SystemDirectoryFirst) {
  EXPECT_EQ(Bind(1, true), "libdir");
  UnbindClears();
}

TEST(Binding, PlainName) {
  // Found through the search path, and again after an unbind.
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(Bind(1, true), "testdevice");
    EXPECT_EQ(deviceBinding.Set_Bandwidth(6), 1);
    UnbindClears();
  }

  // The simulator: the test's own handle is the one BindSimulator gets, since the loader shares an
  // already loaded library. It starts, signals, serves its stream, stops, and starts again.
  void* own = dlopen("libBDA_simu.so", RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(own, nullptr);
  Symbol<void (*)()>(own, "TestSim_Reset")();
  int event = eventfd(0, EFD_CLOEXEC);
  for (int round = 0; round < 2; ++round) {
    ASSERT_EQ(BindSimulator(&event), 0);
    EXPECT_EQ(simulatorBinding.library, own);
    pollfd p{event, POLLIN, 0};
    EXPECT_EQ(poll(&p, 1, 1000), 1);
    std::vector<uint8_t> buffer(240648);
    int32_t length = -1;
    ASSERT_EQ(simulatorBinding.GetData(buffer.data(), &length), 0);
    ASSERT_GT(length, 0);
    EXPECT_EQ(buffer[0], Symbol<uint8_t (*)(int64_t)>(own, "TestSim_PatternByte")(0));  // from byte 0
    EXPECT_EQ(simulatorBinding.BDA_Stop_simulate(), 0);
    EXPECT_EQ(Symbol(own, "TestSim_EventThreadRunning")(), 0);
  }
  // A failed registration or start gives -1; start is not tried after a failed registration.
  for (const char* failing : {"BDA_Start_simulate", "SetEventHandle"}) {
    SCOPED_TRACE(failing);
    Symbol<void (*)()>(own, "TestSim_Reset")();
    ASSERT_EQ(Symbol<int32_t (*)(const char*)>(own, "TestSim_FailFunction")(failing), 1);
    EXPECT_EQ(BindSimulator(&event), -1);
    EXPECT_EQ(Symbol(own, "TestSim_Started")(), 0);
    EXPECT_EQ(Symbol<int32_t (*)(const char*)>(own, "TestSim_CallCount")("BDA_Start_simulate"), failing[0] == 'B' ? 1 : 0);
  }
  close(event);
}

TEST(Binding, ShippedLibraryWithoutDevice) {
  // Registers answer, no device opens, no data comes, and the tuner type is 0.
  EXPECT_EQ(Bind(1, true), "shipped");
  EXPECT_EQ(deviceBinding.BDAFilterInit(0), 0);
  uint8_t written[2] = {0x12, 0x34}, read[2] = {};
  EXPECT_EQ((std::vector<int32_t>{deviceBinding.Demod_Byte_Write(1, 0x3E, 2, written), deviceBinding.Demod_Byte_Read(1, 0x3E, 2, read)}),
            (std::vector<int32_t>{1, 1}));
  EXPECT_EQ(std::vector<uint8_t>(read, read + 2), std::vector<uint8_t>(written, written + 2));
  EXPECT_EQ(deviceBinding.Demod_Byte_Write(1, 0xFE, 4, written), 0);  // past the end of the page
  uint8_t buffer[64];
  int32_t length = -1, aux = 0, tunerType = -1;
  deviceBinding.GetData(buffer, sizeof buffer, &length, &aux);
  EXPECT_EQ((std::vector<int32_t>{length, deviceBinding.Get_TunerType(&tunerType), tunerType}), (std::vector<int32_t>{0, 1, 0}));
  UnbindClears();
}

}  // namespace
}  // namespace zfn
