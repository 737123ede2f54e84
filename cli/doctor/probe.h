// The probe of "quenor-report doctor": one small report through the library's own HTTP client, so
// that what it says holds for the channel. Page: docs/guide/quenor-report.md.
#ifndef CLI_DOCTOR_PROBE_H_
#define CLI_DOCTOR_PROBE_H_

#include <cstdint>
#include <map>
#include <string>

#include "cli/connection.h"
#include "cli/doctor/step.h"

namespace quenor::cli {

// What the probe sends, for the server's owner to find it.
constexpr char kProbeBody[] = R"({"quenor_doctor":"probe"})";

// Completes the step "probe" by the server's answer, as the channel would take it. `is_tls`:
// whether the URL is https.
void JudgeAnswer(int status, const std::map<std::string, std::string>& headers,
                 const std::string& body, bool is_tls, Step* step);

// The step "probe": waits for the answer, or the time limit. ApplyConnection() has been called. For
// its time the process's log is caught.
Step Probe(const std::string& url, bool is_tls, const Connection& connection, uint32_t timeout_ms);

}  // namespace quenor::cli

#endif  // CLI_DOCTOR_PROBE_H_
