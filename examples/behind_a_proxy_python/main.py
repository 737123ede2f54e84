"""Delivers one report through a proxy, with a header that changes.
main.py URL PROXY USER PASSWORD CA_FILE TOKEN FOLDER"""
import sys, quenor

url, proxy, user, password, ca_file, token, folder = sys.argv[1:]
quenor.set_http(ca_file=ca_file, proxy_url=proxy, proxy_user=user, proxy_password=password,
                headers={"X-Host": "host"},
                fresh_headers=lambda: {"Authorization": "Bearer " + token})
with quenor.Reporter("python-host", url, folder=folder, send_limit=1) as reporter:
    reporter.send(b"started")
    outcome = reporter.flush(60)
print(f"acknowledged={outcome.acknowledged} dropped={outcome.dropped} "
      f"exchanges={quenor.spent().exchanges}")
