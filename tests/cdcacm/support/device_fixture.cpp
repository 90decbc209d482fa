#include "device_fixture.h"

void DeviceFixture::SetUp() {
    DriverTest::SetUp();
    SetFailureHandler([](const std::string& message) { ADD_FAILURE() << message; });
    ASSERT_TRUE(Build(options_));
}

void DeviceFixture::TearDown() {
    DeviceRig::TearDown();
    DriverTest::TearDown();
}
