// Stands in for the registry library: records what osal.so passes down, and answers as told.
//
// One object at a time.
#pragma once

#include <deque>
#include <string>
#include <vector>

#include "host/tsreg.h"
#include "support/interpose.h"

namespace osal_test {

class RegistryStandIn {
  public:
    RegistryStandIn();
    ~RegistryStandIn();

    // Calls since the last time, each as "function(argument, ...)". Addresses of outputs are
    // written as "&", null as "0", rooms as "&room".
    std::vector<std::string> take();

    // What the next calls answer.
    KCSTATUS status = KC_OK;
    HANDLE key = reinterpret_cast<HANDLE>(0x1234);
    std::string name = "name";
    UINT32 type = KX_REG_BINARY;
    std::string data;
    UINT64 written = 0;

  private:
    std::vector<std::string> calls_;
    std::deque<Interpose> hooks_;
    friend struct StandInCalls;
};

}  // namespace osal_test
