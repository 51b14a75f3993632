// Cancellation of threads inside of the C++ face.
#pragma once

#include <pthread.h>

namespace kx::detail {

// A scope in which the calling thread is not cancelled.
class Uncancelled {
  public:
    Uncancelled() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &former_); }
    ~Uncancelled() { pthread_setcancelstate(former_, nullptr); }
    Uncancelled(const Uncancelled&) = delete;
    Uncancelled& operator=(const Uncancelled&) = delete;

  private:
    int former_ = PTHREAD_CANCEL_ENABLE;
};

}  // namespace kx::detail
