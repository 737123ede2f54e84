// The conformance suites' host on virtual time.
#ifndef QUENOR_TESTS_UNIT_SUPPORT_VIRTUAL_HOST_H_
#define QUENOR_TESTS_UNIT_SUPPORT_VIRTUAL_HOST_H_

#include <memory>

#include "tests/conformance/dispatch_queue_conformance.h"
#include "tests/support/virtual_time.h"

namespace quenor::conformance {

class VirtualHost : public QueueHost {
 public:
  bool WaitFor(Gate& gate) override {
    time_.RunUntilIdle();
    for (int ms = 0; ms < 60000 && !gate.IsOpen(); ++ms) {
      time_.AdvanceBy(base::TimeDelta::FromMilliseconds(1));
    }
    return gate.IsOpen();
  }

 private:
  test::VirtualTime time_;
};

inline std::unique_ptr<QueueHost> MakeVirtualHost() { return std::make_unique<VirtualHost>(); }

}  // namespace quenor::conformance

#endif  // QUENOR_TESTS_UNIT_SUPPORT_VIRTUAL_HOST_H_
