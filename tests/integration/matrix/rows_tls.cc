// From the first packet to the end of the TLS handshake; every row goes over both protocols.
#include "tests/integration/matrix/row.h"

namespace quenor::test {

namespace {

Row Make(const std::string& name, const std::string& peer, Expected expected = Expected::Fails()) {
  Row row;
  row.name = name;
  row.peer = peer;
  row.peer_also_http1 = true;
  row.expected = expected;
  return row;
}

Row Slow(Row row) {
  row.is_slow = true;
  row.expected = Expected::TimesOut();
  return row;
}

Row ComesFirst(Row row) {
  row.comes_first = true;
  return row;
}

Row With(Row::Kind certificate, const std::string& name) {
  Row row = Make(name, "reply:200:7b7d");
  row.certificate = certificate;
  return row;
}

}  // namespace

Rows TlsRows() {
  Rows rows = {
      Make("connection closed as soon as it stands", "tcp_close"),
      Make("connection reset at the client's first byte", "tcp_reset"),
      Make("random bytes instead of TLS", "tcp_garbage"),
      Make("plain HTTP error page instead of TLS",
           "tcp_bytes:" + Hex("HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n")),
      Make("plain HTTP 200 instead of TLS",
           "tcp_bytes:" + Hex("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n{}")),
      Make("SSH banner instead of TLS", "tcp_bytes:" + Hex("SSH-2.0-OpenSSH_9.2\r\n")),
      Make("TLS alert handshake_failure", "tcp_bytes:15030300020228"),
      Make("TLS alert protocol_version", "tcp_bytes:15030300020246"),
      Make("TLS alert internal_error", "tcp_bytes:15030300020250"),
      Make("TLS alert unrecognized_name", "tcp_bytes:15030300020270"),
      Make("TLS alert close_notify before the handshake", "tcp_bytes:15030300020100"),
      Make("TLS alert of an unknown kind", "tcp_bytes:150303000202ff"),
      Make("TLS record that announces 64 KiB", "tcp_bytes:160303ffff02"),
      Make("TLS record of length zero", "tcp_bytes:1603030000"),
      Slow(Make("connection that stands and says nothing", "tcp_hold")),
      Make("TLS 1.0 and 1.1 only", "tls_old"),
      Make("no cipher in common", "tls_other_ciphers"),
      Make("client certificate demanded", "tls_wants_certificate"),
      Make("connection closed after the handshake", "tls_close_after"),
      Make("close_notify right after the handshake", "tls_goodbye_after"),
      Make("record that cannot be decrypted", "tls_garbage_after"),
      Make("unencrypted alert after the handshake", "tls_alert_after:2:40"),
      ComesFirst(Make("unencrypted HTTP after the handshake", "tls_plain_after")),
      Make("TLS 1.2 and nothing newer", "tls_1_2", Expected::Delivered()),
      Make("no application protocol agreed on", "tls_no_protocol", Expected::Delivered()),
      With(Row::kExpired, "expired certificate"),
      With(Row::kNotYetValid, "certificate that is not valid yet"),
      With(Row::kOtherHost, "certificate of another host"),
      With(Row::kOtherAuthority, "certificate of an unknown authority"),
  };
  for (int size : {1, 5, 80, 300, 600}) {
    const std::string at = std::to_string(size);
    rows.push_back(Make("handshake closed after " + at + " bytes", "tls_cut:" + at));
    rows.push_back(Make("handshake reset after " + at + " bytes", "tls_cut_reset:" + at));
  }
  rows.push_back(Slow(Make("handshake that stops after 5 bytes", "tls_cut_hold:5")));
  rows.push_back(Slow(Make("handshake that stops after 600 bytes", "tls_cut_hold:600")));
  return rows;
}

}  // namespace quenor::test
