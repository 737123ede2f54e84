// "quenor-report doctor": finds out why reports do not arrive, one step after the other, each shown
// as soon as it ends. Sends nothing that a server would take for a report unless asked to.
// Threads: one, which SIGINT ends at once. Page: docs/guide/quenor-report.md.
#ifndef CLI_DOCTOR_DOCTOR_H_
#define CLI_DOCTOR_DOCTOR_H_

#include <cstdint>
#include <functional>
#include <string>

#include "cli/connection.h"
#include "cli/doctor/net.h"
#include "cli/doctor/tls.h"
#include "cli/fatal.h"
#include "cli/options/options.h"

namespace quenor::cli {

// A URL as the HTTP client takes it apart.
struct Target {
  bool is_tls = false;
  Place place;            // With the zone of a link-local address.
  std::string host;       // Without it: what a certificate must name.
  std::string shown_url;  // Without user, password, query and fragment.
};

// `url` has passed CheckUrl(). Throws Fatal with kExitUsage when the client would refuse it.
Target ParseTarget(const std::string& url);

// The value of an environment variable; null when it is not set.
using Environment = std::function<const char*(const char*)>;

// The step "settings". `ca` is what is in force, with the system's certificates if nothing is
// given, and so is `proxy`.
Step DescribeSettings(const Connection& connection, const CaSource& ca, bool is_tls,
                      const HttpProxy& proxy, const Environment& environment);

// What the options give, or else what the HTTP client takes for the system's.
CaSource CaInForce(const Connection& connection);

// Writes the steps to `out_fd`, which it borrows. Answers kExitOk or kExitUnavailable; throws Fatal
// for wrong usage, and when it cannot write.
ExitCode RunDoctor(const DoctorCommand& command, int out_fd);

}  // namespace quenor::cli

#endif  // CLI_DOCTOR_DOCTOR_H_
