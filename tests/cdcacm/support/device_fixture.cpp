#include "device_fixture.h"

void DeviceFixture::SetUp() {
    DriverTest::SetUp();
    rig_.SetFailureHandler([](const std::string& message) { ADD_FAILURE() << message; });
    ASSERT_TRUE(rig_.Build(DeviceOptions()));
}

void DeviceFixture::TearDown() {
    rig_.TearDown();
    DriverTest::TearDown();
}
