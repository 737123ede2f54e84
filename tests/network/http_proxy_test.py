#!/usr/bin/env python3
"""The client through real proxies: what each of their answers and failures becomes, that a request
reaches the server once or not at all, and that nothing leaves but towards the proxy."""
import base64, collections, os, re, subprocess

import proxies, support
from proxies import FIRST, NAME, PASSWORD, SECOND, SERVER, USER, WRONG
from support import FULL, say, sha256, wait_until

MESSAGES, KILLS = (200, 3) if FULL else (50, 1)
LOGINS = 100 if FULL else 12
CONNECT_MS = 20000  # Of what must not run into it, whatever else the machine does.
HANG_MS = 300       # Of what must.
HTTP2_PORT, MUTE_HTTP2_PORT, NOBODYS_PORT, SCRIPTED_PORT = 8443, 8444, 9, 4000

Expected = collections.namedtuple("Expected", "state reasons status arrived")
DELIVERED = Expected("completed", {"none"}, 200, 1)
NOT_LET_IN = Expected("failed", {"proxy_credentials"}, 0, 0)
NOT_LET_OUT = Expected("failed", {"proxy_refused"}, 0, 0)
NO_PROXY = Expected("failed", {"proxy_unreachable"}, 0, 0)
TOO_LATE = Expected("timed_out", {"connect_timeout"}, 0, 0)
BROKEN_TUNNEL = Expected("failed", {"proxy_refused", "proxy_unreachable", "protocol"}, 0, 0)
BROKEN_OFF = Expected("failed", {"unreachable", "protocol"}, 0, 1)


class HttpProxyTest(proxies.ProxyCase):
    def setUp(self):
        super().setUp()
        os.mkdir(self.folder + "/proxy")  # What it shows is not what the servers' CA has signed.
        support.make_certificates(self.folder + "/proxy", [f"IP:{FIRST}"])
        self.rows, self.programs, self.known = [], [], set()

    def proxy(self, kind, address=FIRST):
        for program in {kind.program, getattr(kind, "inside", kind).program}:
            reason = proxies.why_missing(program)
            if reason:
                self.skipTest(reason)
        return self.ending(kind(self.folder, self.away, address), "end").start()

    def servers(self):
        """The URL of each, by what it speaks; the mute ones never answer."""
        self.judges, urls = [], {}
        for mute, port in (("", HTTP2_PORT), ("mute ", MUTE_HTTP2_PORT)):
            options = ["--misbehave", "all: hang=0"] if mute else []
            tls, plain = (self.collector(self.away, SERVER, tls=tls, name=f"{mute}{tls}",
                                         options=options) for tls in (True, False))
            self.judges += [tls, plain]
            self.nginx(SERVER, port, f"proxy_pass {plain.url(SERVER)}; proxy_read_timeout 600;",
                       self.away, name=f"{mute}nginx")
            urls |= {mute + "https, HTTP/1.1": tls.url(NAME), mute + "http": plain.url(NAME),
                     mute + "https, HTTP/2": f"https://{NAME}:{port}/reports"}
        return urls

    def arrived(self, body):
        """How often the body has reached a server, whatever became of the answer."""
        return sum(record["sha256"] == sha256(body.encode())
                   for judge in self.judges for record in judge.all_records())

    def program(self, **options):
        app = self.application("https://unused.test/", channels=0, namespace=self.home, **options)
        self.programs.append(app)
        return app

    def set(self, app, proxy="", role="open", version=1, **settings):
        """What holds from now on, for a new client."""
        url = proxy if isinstance(proxy, str) else proxy.url(role)
        settings = {"proxy-ca": self.folder + "/proxy/ca.pem" if url.startswith("https") else "",
                    "connect-ms": CONNECT_MS, **settings}
        words = [f"proxy={url}", *(f"{key}={value}" for key, value in settings.items() if value != "")]
        self.assertEqual("ok", app.do("http " + " ".join(words)))
        app.do(f"client {version}")

    def begin(self, app, url):
        """Has it sent, and does not wait. The body."""
        body = f"{self._testMethodName}-{len(self.rows)}"
        app.tell(f"exchange {url} {body}")
        return body

    def end(self, app, what, body, expected, there):
        """Notes how it ended, and what has left home but there. Connections that stood before may
        say goodbye to where they led."""
        got = dict(re.findall(r"(\w+)=(\S+)", app.answer()))
        sent, self.link.sent = self.link.sent, collections.Counter()
        opened, self.link.opened = self.link.opened, collections.Counter()
        self.known.add(there)
        around = sum(count for place, count in sent.items() if place not in self.known)
        around += sum(count for place, count in opened.items() if place in self.known - {there})
        self.rows.append((what, body, got, around, there, sent, expected))

    def exchange(self, app, what, url, expected, there):
        self.end(app, what, self.begin(app, url), expected, f"tcp {there}")

    def wait_for_news(self, app, proxy):
        """Returns once all connections to a killed proxy are known as dead: until then one at rest
        may still be sent to."""
        wait_until(lambda: support.connections_of(app.pid, proxy.ports["open"], True) == 0,
                   "every connection is known as dead")

    def check_rows(self):
        """Prints the table and judges it; and no secret stands in what the programs have said."""
        wrong = []
        for what, body, got, around, there, sent, expected in self.rows:
            arrived = self.arrived(body)
            is_right = (got["state"] == expected.state and int(got["status"]) == expected.status and
                        got["reason"] in expected.reasons and arrived == expected.arrived and
                        around == 0 and there in sent)
            line = (f"{what:66} {got['state']:10} {got['reason']:18} status={got['status']:4}"
                    f"arrived={arrived} around={around}")
            say(("     " if is_right else "WRONG") + " " + line)
            if not is_right:
                wrong.append(f"{line} instead of {expected}, sent {sent}")
        around = sum(row[3] for row in self.rows) + self.on_loopback()
        say(f"{self._testMethodName}: {len(self.rows)} exchanges, {len(wrong)} not as expected, "
            f"packets around: {around}")
        self.check_secrets()
        self.assertEqual([], wrong)
        self.assertEqual(0, around)

    def check_secrets(self):
        told = ""
        for app in self.programs:
            with open(app.errors) as file:
                told += file.read()
        pairs = [f"{USER}:{word}" for word in (PASSWORD, WRONG)]
        for secret in (USER, PASSWORD, WRONG, *(base64.b64encode(pair.encode()).decode() for pair in pairs)):
            self.assertNotIn(secret, told)
        say(f"{self._testMethodName}: {len(told.splitlines())} lines logged, none with a secret")

    # ---- What becomes of one exchange ------------------------------------------------------------

    def check_table(self, kind):
        proxy, urls, app = self.proxy(kind), self.servers(), self.program()
        right, wrong = {"user": USER, "password": PASSWORD}, {"user": USER, "password": WRONG}
        for name in [name for name in urls if not name.startswith("mute")]:
            settings = {"version": 2 if name.endswith("2") else 1}
            self.home.set_hosts({})  # Whoever asks for a name is seen on the wire.

            def row(what, expected, role="open", url=urls[name], new=True, **more):
                if new:
                    self.set(app, proxy, role, **{**settings, **more})
                self.exchange(app, f"{kind.__name__}, {name}: {what}", url, expected,
                              f"{FIRST}:{proxy.ports[role]}")

            row("up", DELIVERED)
            row("up, again", DELIVERED, new=False)
            self.home.set_hosts({NAME: SERVER})  # From here on the proxy could be passed by.
            row(f"right credentials ({kind.takes})", DELIVERED, "login", **right)
            row("the same, again", DELIVERED, "login", new=False)
            row("wrong credentials", NOT_LET_IN, "login", **wrong)
            row("no credentials", NOT_LET_IN, "login")
            if "refusing" in proxy.roles:
                row("refusing", NOT_LET_OUT, "refusing")
            row("nobody at the target", NOT_LET_OUT,
                url=re.sub(r":\d+/", f":{NOBODYS_PORT}/", urls[name]))
            if proxy.scheme == "https":
                row("with a certificate that is not trusted", NO_PROXY, **{"proxy-ca": ""})
            for script, expected in (("hang", TOO_LATE), ("half", BROKEN_TUNNEL)):
                scripted = self.scripted(script, proxy.scheme)
                self.set(app, scripted, **settings,
                         **({"connect-ms": HANG_MS} if script == "hang" else {}))
                self.exchange(app, f"{kind.__name__}, {name}: scripted, {script}", urls[name],
                              expected, f"{FIRST}:{SCRIPTED_PORT}")
                scripted.end()
            for what in ("in the middle of the first", "in the middle of the second"):
                self.set(app, proxy, **settings)
                if "second" in what:
                    row("before that", DELIVERED, new=False)
                body = self.begin(app, urls["mute " + name])
                wait_until(lambda: self.arrived(body), "the server has it")
                proxy.kill()
                self.end(app, f"{kind.__name__}, {name}: killed {what}", body, BROKEN_OFF,
                         f"tcp {FIRST}:{proxy.ports['open']}")
                self.wait_for_news(app, proxy)
                row("down", NO_PROXY, new=False)
                proxy.start()
                row("up again", DELIVERED, new=False)
        self.check_rows()

    def scripted(self, script, scheme):
        return self.ending(proxies.Scripted(self.folder, self.away, FIRST, SCRIPTED_PORT, script,
                                            scheme), "end").start()

    def test_table_of_microsocks(self):
        self.check_table(proxies.Microsocks)

    def test_table_of_tinyproxy(self):
        self.check_table(proxies.Tinyproxy)

    def test_table_of_haproxy(self):
        self.check_table(proxies.Haproxy)

    def test_table_of_squid(self):
        self.check_table(proxies.Squid)

    def test_table_of_squid_with_digest(self):
        self.check_table(proxies.SquidDigest)

    def test_table_of_squid_with_tls(self):
        self.check_table(proxies.SquidTls)

    def test_table_of_haproxy_and_squid(self):
        self.check_table(proxies.HaproxySquid)

    # ---- Logging in for every exchange -----------------------------------------------------------

    def check_logins(self, kind):
        proxy, urls, app = self.proxy(kind), self.servers(), self.program()
        for name in [name for name in urls if not name.startswith("mute")]:
            self.set(app, proxy, "login", user=USER, password=PASSWORD, keep=0,
                     version=2 if name.endswith("2") else 1)
            for i in range(LOGINS):
                self.exchange(app, f"{kind.__name__}, {name}: login {i}", urls[name], DELIVERED,
                              f"{FIRST}:{proxy.ports['login']}")
        self.check_rows()

    def test_logins_at_tinyproxy(self):
        self.check_logins(proxies.Tinyproxy)

    def test_logins_at_squid(self):
        self.check_logins(proxies.Squid)

    def test_logins_at_squid_with_digest(self):
        self.check_logins(proxies.SquidDigest)

    # ---- Which proxy, and for what ---------------------------------------------------------------

    def test_socks_proxy_of_the_process_wins(self):
        socks, http = self.proxy(proxies.Microsocks, SECOND), self.proxy(proxies.Tinyproxy)
        urls, app = self.servers(), self.program()
        there = f"{SECOND}:{socks.ports['open']}"
        app.do(f"proxy {SECOND} {socks.ports['open']}")
        for name in ("https, HTTP/1.1", "https, HTTP/2", "http"):
            self.set(app, http, version=2 if name.endswith("2") else 1)
            self.exchange(app, f"both set, {name}", urls[name], DELIVERED, there)
            self.set(app, http, version=2 if name.endswith("2") else 1, **{"except": "*"})
            self.exchange(app, f"both set, all excepted, {name}", urls[name], DELIVERED, there)
        socks.kill()
        self.wait_for_news(app, socks)
        for name in ("https, HTTP/1.1", "https, HTTP/2", "http"):
            self.exchange(app, f"both set, SOCKS5 down, {name}", urls[name], NO_PROXY, there)
        self.check_rows()

    def test_excepted_hosts_and_no_others_go_direct(self):
        proxy, urls, app = self.proxy(proxies.Tinyproxy), self.servers(), self.program()
        sub, other = "sub." + NAME, "not" + NAME
        for namespace in (self.home, self.away):
            namespace.set_hosts({NAME: SERVER, sub: SERVER, other: SERVER})
        through = f"{FIRST}:{proxy.ports['open']}"
        for name in ("https, HTTP/1.1", "http"):
            port = urls[name].split(":")[2].split("/")[0]
            for exceptions, host, goes_direct in (
                    ([], NAME, False), ([NAME], NAME, True), ([NAME], sub, True),
                    ([NAME], other, False), ([sub], NAME, False), ([NAME.upper()], NAME, True),
                    ([sub, NAME], NAME, True), (["*"], other, True), ([SERVER], SERVER, True),
                    ([FIRST], SERVER, False), (["10.77.2.0/24"], SERVER, True),
                    (["10.77.0.0/24"], SERVER, False), (["10.77.2.0/24"], NAME, False)):
                self.set(app, proxy, **{"except": " except=".join(exceptions)})
                self.exchange(app, f"{name} to {host}, excepted: {', '.join(exceptions)}",
                              urls[name].replace(NAME, host), DELIVERED,
                              f"{SERVER}:{port}" if goes_direct else through)
        self.check_rows()

    def test_the_environments_proxies_only_where_asked_for(self):
        proxy, urls = self.proxy(proxies.Tinyproxy), self.servers()
        secure, plain = "https, HTTP/1.1", "http"
        self.home.set_hosts({NAME: SERVER})
        login = proxy.url("login").replace("//", f"//{USER}:{PASSWORD}@")
        through = {role: f"{FIRST}:{port}" for role, port in proxy.ports.items()}
        direct = {name: f"{SERVER}:" + urls[name].split(":")[2].split("/")[0] for name in urls}
        down = "http://" + through["open"].replace(str(proxy.ports["open"]), "1")
        for environment, asked, name, expected, there in (
                ({"https_proxy": proxy.url(), "http_proxy": proxy.url(), "all_proxy": proxy.url()},
                 False, secure, DELIVERED, direct[secure]),
                ({"https_proxy": down, "HTTPS_PROXY": down, "ALL_PROXY": down, "all_proxy": down},
                 False, secure, DELIVERED, direct[secure]),
                ({"http_proxy": down, "all_proxy": down}, False, plain, DELIVERED, direct[plain]),
                ({}, True, secure, DELIVERED, direct[secure]),
                ({"https_proxy": proxy.url()}, True, secure, DELIVERED, through["open"]),
                ({"HTTPS_PROXY": proxy.url()}, True, secure, DELIVERED, through["open"]),
                ({"https_proxy": login}, True, secure, DELIVERED, through["login"]),
                ({"https_proxy": down}, True, secure, NO_PROXY, f"{FIRST}:1"),
                ({"https_proxy": down, "no_proxy": NAME}, True, secure, DELIVERED, direct[secure]),
                ({"https_proxy": down, "NO_PROXY": "x.test, " + NAME}, True, secure, DELIVERED,
                 direct[secure]),
                ({"all_proxy": proxy.url()}, True, secure, DELIVERED, through["open"]),
                ({"http_proxy": proxy.url()}, True, secure, DELIVERED, direct[secure]),
                ({"http_proxy": proxy.url()}, True, plain, DELIVERED, through["open"]),
                ({"HTTP_PROXY": down}, True, plain, DELIVERED, direct[plain]),
                ({"https_proxy": down}, True, plain, DELIVERED, direct[plain])):
            app = self.program(environment=environment, name=f"application{len(self.rows)}")
            self.set(app, environment=1 if asked else 0)
            shown = " ".join(f"{key}={value}" for key, value in environment.items())
            self.exchange(app, f"asked={asked}, {name}, {shown or 'nothing'}", urls[name], expected,
                          there)
        self.check_rows()

    # ---- A channel while its proxy comes and goes ------------------------------------------------

    def check_channel(self, kind, http2=False):
        proxy, judge = self.proxy(kind), self.collector(self.away, SERVER)
        url = judge.url(NAME)
        if http2:
            self.nginx(SERVER, HTTP2_PORT, f"proxy_pass {url.replace(NAME, SERVER)};", self.away)
            url = f"https://{NAME}:{HTTP2_PORT}/reports"
        app = self.application(url, cache=True, namespace=self.home, http2=http2)
        self.programs.append(app)
        self.set(app, proxy, "login", user=USER, password=PASSWORD)
        app.do("start")
        each = MESSAGES // KILLS
        for kill in range(1, KILLS + 1):
            app.do(f"wait acknowledged {(kill - 1) * each}")  # Or there is no room for more.
            app.do(f"spread {each // 2} 0.3")
            app.tell(f"spread {each - each // 2} 0.3")
            proxy.kill()  # While they are sent.
            app.answer()
            app.do(f"wait failed {kill}")
            proxy.start()
        app.do(f"spread {MESSAGES - KILLS * each} 0")
        app.do(f"wait acknowledged {MESSAGES}")
        counts = app.counts()
        self.assertEqual(0, app.finish())

        accepted = judge.accepted()
        bodies = {sha256(f"app-0/{i}/{'x' * (i % 200)}".encode()) for i in range(MESSAGES)}
        say(f"{self._testMethodName}: {kind.__name__}: killed {KILLS} times: messages={MESSAGES} "
            f"lost={len(bodies - set(accepted))} duplicates={sum(accepted.values()) - len(accepted)} "
            f"failed={counts['failed']}")
        self.check_only(f"{FIRST}:{proxy.ports['login']}")
        self.assertEqual(bodies, set(accepted))
        self.assertLessEqual(sum(accepted.values()) - len(accepted), counts["failed"])
        self.check_secrets()

    def test_report_and_doctor_with_a_header(self):
        proxy = self.proxy(proxies.Tinyproxy)
        self.serve_the_token()
        place, server = f"{FIRST}:{proxy.ports['login']}", f"{SERVER}:8443"
        url = f"https://{NAME}:8443/"
        header, password_file, message = (self.folder + "/" + name for name in
                                          ("header", "password", "message"))

        def write(path, text):
            with open(path, "w") as file:
                file.write(text)

        def run(verb, code, there, *options, url=url, environment=None):
            """What it says. Nothing has begun but to there."""
            child = support.Child(
                [support.REPORT, verb, "--url", url, "--cacert", self.folder + "/ca.pem",
                 "--header", "@" + header, "--header", "X-Host: host", *options], self.home,
                environment=environment, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
            said = b"".join(self.ending(child, "kill").process.communicate()).decode()
            self.assertEqual(code, child.process.returncode, said)
            for secret in ("t0ken", PASSWORD, WRONG):
                self.assertNotIn(secret, said)
            begun = {to for to, count in self.link.opened.items() if count}
            sent = set(self.link.sent)
            self.link.opened.clear(), self.link.sent.clear()
            say(f"{self._testMethodName}: {verb} {options[0]} {code}: begun: {begun}, sent: {sent}")
            self.assertEqual({f"tcp {there}"}, begun)
            # A connection that stood before may still say goodbye.
            self.assertLessEqual(sent, {f"tcp {place}", f"tcp {server}"})
            return said

        write(message, "message")
        send = ["--cache", "none", "--send-now", "--max-resend", "1", message]
        for token, password, code, reason in (("t0ken", PASSWORD, 0, "none"),
                                              ("other", PASSWORD, 69, "http_status"),
                                              ("t0ken", WRONG, 69, "proxy_credentials")):
            write(header, f"Authorization: Bearer {token}\n")
            write(password_file, password + "\n")
            through = ["--proxy", f"http://{USER}@{place}", "--proxy-password-file", password_file]
            run("send", code, place, *through, *send)
            said = run("doctor", code, place, *through, "--probe", "--json")
            self.assertTrue(said.rstrip().endswith(f'"reason":"{reason}"}}'), said)
        environment = {"https_proxy": f"http://{USER}:{PASSWORD}@{place}"}
        for verb, more in (("send", send), ("doctor", ["--probe"])):
            run(verb, 0, place, "--proxy-from-environment", *more, environment=environment)
            run(verb, 0, server, "--no-proxy", SERVER, *through, *more, url=f"https://{server}/")
            run(verb, 0, server, "--connect-to", f"{NAME}:8443:{SERVER}", *more,
                environment=environment)

    def test_host_in_c_with_a_header(self):
        self.check_host(os.environ["QUENOR_C_HOST"])

    def test_host_in_cxx_with_a_header(self):
        self.check_host(os.environ["QUENOR_CXX_HOST"])

    def test_channel_through_microsocks(self):
        self.check_channel(proxies.Microsocks)

    def test_channel_through_tinyproxy(self):
        self.check_channel(proxies.Tinyproxy)

    def test_channel_through_haproxy(self):
        self.check_channel(proxies.Haproxy, http2=True)

    def test_channel_through_squid(self):
        self.check_channel(proxies.Squid)

    def test_channel_through_squid_with_digest(self):
        self.check_channel(proxies.SquidDigest, http2=True)

    def test_channel_through_squid_with_tls(self):
        self.check_channel(proxies.SquidTls)

    def test_channel_through_haproxy_and_squid(self):
        self.check_channel(proxies.HaproxySquid, http2=True)


if __name__ == "__main__":
    support.main()
