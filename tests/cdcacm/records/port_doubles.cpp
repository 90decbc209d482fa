// Doubles for what the rest of the port module calls: these tests exercise
// only GetDevAndPort, so any call here is a fault of the test setup.
#include "cdcacm.h"

#include <gtest/gtest.h>

VOID QueueCompleteIrp(PCOMPLETE_QUEUE, PIRP) {
    ADD_FAILURE() << "QueueCompleteIrp is not expected in the records tests";
}
