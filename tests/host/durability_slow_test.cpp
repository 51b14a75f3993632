// The long form of the test of killed writers.
#include "host/killed_writer.h"

namespace osal_test {
namespace {

TEST_F(Durability, AKilledWriterLosesNothingInAHundredRounds) {
    kill_writers(100);
}

}  // namespace
}  // namespace osal_test
