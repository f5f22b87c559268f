// Listing compute devices through the exported functions.
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "library/array_alloc_probe.h"
#include "library/library_test_util.h"
#include "runtime/DeviceListProcessor.h"
#include "videoanalytics.h"

namespace {

using array_probe::OutstandingOnThisThread;
using array_probe::RequestedSize;

class DeviceListing : public ::testing::Test {
 protected:
  void SetUp() override {
    ProcessResult* created = CreateDeviceListProcessor();
    ASSERT_NE(created, nullptr);
    ASSERT_NE(created->error, nullptr);
    EXPECT_EQ(created->error->code, 0);
    EXPECT_EQ(created->error->message, nullptr);
    processor_ = created->payload;
    DisposeProcessResult(created);
    ASSERT_NE(processor_, nullptr);
  }
  void TearDown() override { DisposeDeviceListProcessor(processor_); }

  void* processor_ = nullptr;
};

TEST_F(DeviceListing, OneCpuWithItsNameAndType) {
  ProcessResult* listed = GetComputeDevices(processor_);
  ASSERT_NE(listed, nullptr);
  EXPECT_EQ(listed->error->code, 0);
  EXPECT_EQ(listed->error->message, nullptr);
  auto* info = static_cast<ComputeDeviceInfo*>(listed->payload);
  DisposeProcessResult(listed);
  ASSERT_NE(info, nullptr);
  ASSERT_EQ(info->count, 1);
  ASSERT_NE(info->devices, nullptr);
  const char* name = info->devices[0].name;
  const char* type = info->devices[0].type;
  EXPECT_STREQ(name, "/job:localhost/replica:0/task:0/device:CPU:0");
  EXPECT_STREQ(type, "CPU");
  // Each copy has room for its terminator: 44 + 1 and 3 + 1 bytes.
  EXPECT_EQ(RequestedSize(name), 45u);
  EXPECT_EQ(RequestedSize(type), 4u);
  EXPECT_TRUE(library_test::LockIsFree(static_cast<DeviceListProcessor*>(processor_)->lock));
  DisposeComputeDeviceInfo(processor_, info);
}

TEST_F(DeviceListing, DisposingTwiceIsHarmlessAndKeepsTheRecord) {
  const int64_t before = OutstandingOnThisThread();
  ProcessResult* listed = GetComputeDevices(processor_);
  auto* info = static_cast<ComputeDeviceInfo*>(listed->payload);
  DisposeProcessResult(listed);
  ASSERT_NE(info, nullptr);

  DisposeComputeDeviceInfo(processor_, info);
  // Strings and entry array are gone; the record stays allocated and intact.
  EXPECT_EQ(OutstandingOnThisThread(), before);
  EXPECT_EQ(info->devices, nullptr);
  EXPECT_EQ(info->count, 1);
  DisposeComputeDeviceInfo(processor_, info);
  EXPECT_EQ(info->devices, nullptr);
  EXPECT_EQ(OutstandingOnThisThread(), before);
}

}  // namespace
