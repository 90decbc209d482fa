// The simulated bus under the emulated PnP manager, with a small function
// driver of the test's own: SetUp installs the driver's INF and a driver
// object whose routines the test's Install fills; PlugSettled and
// UnplugSettled let enumeration, start and removal run; TearDown unplugs
// what is left.
//
// Environment: the test body is an application thread at PASSIVE_LEVEL.
#pragma once

#include "bus_client.h"

#include "hostkernel/pnp.h"

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

class PnpBusTest : public BusTest {
  protected:
    // Fills the driver object: AddDevice and the dispatch routines.
    virtual void Install(PDRIVER_OBJECT driver) = 0;

    void SetUp() override {
        BusTest::SetUp();
        driver_ = std::make_unique<hk::Driver>(u"\\Driver\\cdcacm");
        Install(driver_->Object());
        std::string error;
        ASSERT_TRUE(pnp().LoadInf(CDCACM_INF, &error)) << error;
        pnp().RegisterDriver("cdcacm", driver_->Object());
        bus_ = std::make_unique<hu::Bus>();
    }
    void TearDown() override {
        for (int port : ports_)
            bus_->Unplug(port);
        pnp().Settle();
        driver_.reset();
        BusTest::TearDown();
    }
    hk::PnpManager& pnp() { return kernel().pnp(); }
    int PlugSettled(const sm::Profile& profile) {
        modems_.push_back(std::make_shared<sm::Modem>(profile));
        ports_.push_back(bus_->Plug(modems_.back()));
        pnp().Settle();
        return ports_.back();
    }
    void UnplugSettled(int port) {
        bus_->Unplug(port);
        ports_.erase(std::find(ports_.begin(), ports_.end(), port));
        pnp().Settle();
    }

    std::unique_ptr<hk::Driver> driver_;
    std::vector<std::shared_ptr<sm::Modem>> modems_;
    std::vector<int> ports_;
};
