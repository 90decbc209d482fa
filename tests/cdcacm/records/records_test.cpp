// The device context records: pointer validation by magic. (Resolving either
// device object to its DEVICE and PORT_OBJ is what every dispatch routine
// does, the attach object's in the serial controls' test of it and the
// optional outputs in the cancel routines; the "COM?" of a port without a
// name is in the port object's creation-failure traces; the device lock's
// holder count is asserted by every holder.)
#define TRACE_FILE "tests/cdcacm/records"
#include "cdcacm.h"

#include "driver_test.h"

#include <memory>

namespace {

using RecordsTest = DriverTest;

TEST_F(RecordsTest, PtrValidNeedsAPointerAndItsOwnMagic) {
    PDEVICE none = nullptr;
    EXPECT_FALSE(PTRVALID(none, DEVICE));
    auto device = std::make_unique<DEVICE>();
    device->Magic = DEVICE_MAGIC;
    EXPECT_TRUE(PTRVALID(device.get(), DEVICE));
    device->Magic = PORT_OBJ_MAGIC;
    EXPECT_FALSE(PTRVALID(device.get(), DEVICE)) << "another record's magic";
    SER_PORT serPort{};
    serPort.Magic = SER_PORT_MAGIC;
    EXPECT_TRUE(PTRVALID(&serPort, SER_PORT));
}

} // namespace
