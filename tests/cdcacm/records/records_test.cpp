// The device context records: resolving either device object of a modem to
// its DEVICE and PORT_OBJ, pointer validation by magic, and the device lock
// convention.
#define TRACE_FILE "tests/cdcacm/records"
#include "cdcacm.h"

#include "driver_test.h"

#include <memory>

namespace {

// One modem's two device objects: the data port whose extension is the
// DEVICE, and the attach object whose extension points to it.
class RecordsTest : public DriverTest {
  protected:
    void SetUp() override {
        DriverTest::SetUp();
        device_ = std::make_unique<DEVICE>();
        device_->Type = EXTENSION_TYPE_DEVICE;
        device_->Magic = DEVICE_MAGIC;
        device_->Port.Magic = PORT_OBJ_MAGIC;
        device_->Port.Device = device_.get();
        dataPort_.DeviceExtension = device_.get();
        device_->Port.DeviceObject = &dataPort_;

        attach_.Type = EXTENSION_TYPE_ATTACH;
        attach_.DeviceObject = &attachObject_;
        attach_.Device = device_.get();
        attachObject_.DeviceExtension = &attach_;
    }

    std::unique_ptr<DEVICE> device_;
    DEVICE_OBJECT dataPort_{};
    ATTACH_OBJ attach_{};
    DEVICE_OBJECT attachObject_{};
};

TEST_F(RecordsTest, BothDeviceObjectsResolveToTheSameDeviceAndPortEachOutOptional) {
    for (PDEVICE_OBJECT object : {&dataPort_, &attachObject_}) {
        PDEVICE dev = nullptr;
        PPORT_OBJ port = nullptr;
        GetDevAndPort(object, &dev, &port);
        EXPECT_EQ(dev, device_.get());
        EXPECT_EQ(port, &device_->Port);
        dev = nullptr;
        GetDevAndPort(object, &dev, nullptr);
        EXPECT_EQ(dev, device_.get());
        port = nullptr;
        GetDevAndPort(object, nullptr, &port);
        EXPECT_EQ(port, &device_->Port);
    }
}

TEST_F(RecordsTest, PtrValidNeedsAPointerAndItsOwnMagic) {
    PDEVICE none = nullptr;
    EXPECT_FALSE(PTRVALID(none, DEVICE));
    EXPECT_TRUE(PTRVALID(device_.get(), DEVICE));
    device_->Magic = PORT_OBJ_MAGIC;
    EXPECT_FALSE(PTRVALID(device_.get(), DEVICE)) << "another record's magic";
    SER_PORT serPort{};
    serPort.Magic = SER_PORT_MAGIC;
    EXPECT_TRUE(PTRVALID(&serPort, SER_PORT));
}

TEST_F(RecordsTest, PortNameForTracesFallsBackToComQuestionMark) {
    TRACE(TL_ERROR, "%P:%S:x\n", DEV_PORT_NAME(device_.get()));
    WCHAR name[] = u"COM7";
    device_->Port.PortName = name;
    TRACE(TL_ERROR, "%P:%S:x\n", DEV_PORT_NAME(device_.get()));
    ASSERT_EQ(dbg().Lines().size(), 2u);
    EXPECT_EQ(dbg().Lines()[0], "ACM:COM?:x");
    EXPECT_EQ(dbg().Lines()[1], "ACM:COM7:x");
}

TEST_F(RecordsTest, DeviceLockCountsItsHolderAndRaisesIrql) {
    KIRQL oldIrql;
    DEVICE_LOCK(device_.get(), &oldIrql);
    EXPECT_EQ(device_->CheckLock, 1);
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    DEVICE_UNLOCK_AT_DPC(device_.get());
    EXPECT_EQ(device_->CheckLock, 0);
    DEVICE_LOCK_AT_DPC(device_.get());
    EXPECT_EQ(device_->CheckLock, 1);
    DEVICE_UNLOCK(device_.get(), oldIrql);
    EXPECT_EQ(device_->CheckLock, 0);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    EXPECT_FALSE(dbg().Contains("ASSERTION FAILED"));
}

} // namespace
