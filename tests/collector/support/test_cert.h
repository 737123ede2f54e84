// A throw-away certificate for 127.0.0.1 and localhost, signed by its own key.
#ifndef TESTS_COLLECTOR_SUPPORT_TEST_CERT_H_
#define TESTS_COLLECTOR_SUPPORT_TEST_CERT_H_

#include <string>

namespace quenor::collector::test {

// Makes a new key and writes both as PEM. Throws std::runtime_error.
void MakeCertificate(const std::string& cert_path, const std::string& key_path);

}  // namespace quenor::collector::test

#endif  // TESTS_COLLECTOR_SUPPORT_TEST_CERT_H_
