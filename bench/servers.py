"""The servers that are measured beside each other: each knows how to be set up for the same job, how
to be started, and which processes it consists of.

The job: a plain listener that lets the seven endpoints of src/agent/access.cc through, and a TLS 1.3
listener that lets everything below /api/ through that carries the pairing key; bodies up to 32 KiB;
both in front of one destination on 127.0.0.1; one line a request in a log file; one worker; keys
exchanged on P-256.
"""

import json
import os
import socket
import subprocess
import sys
import time
from pathlib import Path

PROJECT = Path(__file__).resolve().parent.parent
sys.path.append(str(PROJECT / "tests" / "system"))

from support.ports import reserve_port  # noqa: E402

BUILD = PROJECT / "build" / "release"
PAIRING_KEY = "s3cret-Pairing-Key"
LARGEST_BODY = 32768
PLAIN_ENDPOINTS = [
    ("GET", "/api/version"), ("GET", "/api/1/router-info"), ("GET", "/api/2/router-info"),
    ("PATCH", "/api/1/router-attribution-id"), ("PATCH", "/api/2/router-attribution-id"),
    ("PATCH", "/api/1/router-ref"), ("PATCH", "/api/2/router-ref"),
]
DEVICES = 250
START_LIMIT_SECS = 60
STOP_LIMIT_SECS = 10


class Failure(Exception):
    """Something that makes the whole run worthless."""


def answers(port):
    """Whether the server answers a request that each of them lets through."""
    try:
        with socket.create_connection(("127.0.0.1", port), 1) as connection:
            connection.sendall(b"GET /api/version HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n")
            return connection.recv(4096).startswith(b"HTTP/1.1 200 ")
    except OSError:
        return False


class Server:
    """One server in a directory of its own. `difference` says in a line what its set-up has other
    than the rest; `refusal` is the status with which it refuses what the rules forbid."""

    name = ""
    difference = ""
    program = ""
    refusal = 417
    too_long = 413

    def __init__(self, scratch, destination_port):
        self.scratch = scratch
        self.directory = scratch / self.name.replace(" ", "-")
        self.directory.mkdir()
        self.destination_port = destination_port
        self.plain_port, self.tls_port = reserve_port(), reserve_port()
        self.certificate = scratch / "agent" / "mirel.crt"
        self.key = scratch / "agent" / "mirel.key"
        self.log = self.directory / "log"
        self.stdout = self.directory / "stdout"
        self.stderr = self.directory / "stderr"
        self.prefix = []  # what it is run under, callgrind for one
        self.process = None
        self.configure()

    def configure(self):
        """Writes what the program needs into `directory`."""

    def command(self):
        raise NotImplementedError

    def write(self, name, text):
        path = self.directory / name
        path.write_text(text)
        return path

    def launch(self):
        """Starts it; it ends with this process, whatever ends that."""
        with open(self.stdout, "ab") as stdout, open(self.stderr, "ab") as stderr:
            self.process = subprocess.Popen(
                ["setpriv", "--pdeathsig", "TERM", *map(str, [*self.prefix, *self.command()])],
                stdin=subprocess.DEVNULL, stdout=stdout, stderr=stderr, start_new_session=True)

    def start(self):
        """Starts it and returns the milliseconds until it answered its first connection."""
        begin = time.monotonic()
        self.launch()
        while not answers(self.plain_port):
            if self.process.poll() is not None or time.monotonic() > begin + START_LIMIT_SECS:
                self.stop()
                raise Failure(f"{self.name} did not start")
            time.sleep(0.0002)
        return (time.monotonic() - begin) * 1000

    def stop(self):
        if self.process is None:
            return
        self.process.terminate()
        try:
            self.process.wait(STOP_LIMIT_SECS)
        except subprocess.TimeoutExpired:
            os.killpg(self.process.pid, 9)
            self.process.wait()
        self.process = None

    def pids(self):
        """All processes that it consists of at the moment."""
        found = [self.process.pid]
        for pid in found:
            for children in Path(f"/proc/{pid}/task").glob("*/children"):
                try:
                    found += map(int, children.read_text(encoding="ascii").split())
                except (FileNotFoundError, ProcessLookupError):
                    pass  # a script that has ended meanwhile
        return found


class Tavlo(Server):
    name = "tavlo"
    difference = "its lines go to standard error alone, here a file: with -f they are written twice"
    program = BUILD / "tavlo"
    too_long = 400
    scripts = 0

    def configure(self):
        hooks = self.directory / "hooks"
        (hooks / "agent").mkdir(parents=True)
        (self.directory / "tmp").mkdir()
        for number in range(self.scripts):
            script = hooks / "agent" / f"{number:02}-true"
            script.write_text("#!/bin/sh\ntrue\n")
            script.chmod(0o755)
        self.stderr = self.log
        devices = [{"name": f"device-{number}", "ip": [f"192.0.2.{number}"],
                    "mac": f"02:00:5e:10:00:{number:02x}"} for number in range(DEVICES - 1)]
        devices.append({"name": "asking", "ip": ["127.0.0.1"], "mac": "02:00:5e:10:01:01"})
        settings = {
            "agentHttpPort": self.plain_port,
            "agentHttpsPort": self.tls_port,
            "agentDstPort": self.destination_port,
            "lanInterface": "lo",
            "agentDirectory": str(self.certificate.parent),
            "internalHooksDirectory": str(hooks),
            "routerInfoPath": str(self.write("router_info", f"pairing_key: {PAIRING_KEY}\n")),
            "deviceDiscoveryPath": str(self.write("devicelist.json",
                                                  json.dumps({"devices": devices}, indent=2))),
            "rootPrefix": str(self.directory),
        }
        if self.scripts:
            settings["agentDataPath"] = str(self.directory / "agent_data")
        self.write("tavlo.json", json.dumps(settings))

    def command(self):
        return [self.program, "-c", self.directory / "tavlo.json"]


class TavloOneScript(Tavlo):
    name = "tavlo with one script"
    scripts = 1


class TavloTenScripts(Tavlo):
    name = "tavlo with ten scripts"
    scripts = 10


def nginx_start(directory):
    """What each of its configurations begins with; the block of `http` is left open."""
    return f"""daemon off;
user root;
worker_processes 1;
pid {directory}/pid;
error_log {directory}/error.log;
events {{ worker_connections 1024; }}
http {{
  client_body_buffer_size 64k;
  client_body_temp_path {directory}/body;
  proxy_temp_path {directory}/proxy;
  fastcgi_temp_path {directory}/fastcgi;
  uwsgi_temp_path {directory}/uwsgi;
  scgi_temp_path {directory}/scgi;
  keepalive_requests 1000000000;"""


class Nginx(Server):
    name = "nginx"
    difference = "a master process beside the worker; up to 64 connections to the destination"
    program = Path("/usr/sbin/nginx")
    curves = "ssl_ecdh_curve prime256v1;"

    def configure(self):
        endpoints = "\n".join(f'    "{method} {uri}" 1;' for method, uri in PLAIN_ENDPOINTS)
        forward = """proxy_pass http://destination;
      proxy_http_version 1.1;
      proxy_set_header Connection "";"""
        self.write("nginx.conf", f"""
{nginx_start(self.directory)}
  log_format short '$time_iso8601 [$pid] INFO: $request_method $request_uri';
  access_log {self.log} short;
  tcp_nodelay on;
  client_max_body_size {LARGEST_BODY};
  proxy_buffers 16 8k;
  proxy_max_temp_file_size 0;
  upstream destination {{
    server 127.0.0.1:{self.destination_port};
    keepalive 64;
    keepalive_requests 1000000000;
  }}
  map "$request_method $request_uri" $allowed {{
    default 0;
{endpoints}
  }}
  server {{
    listen 127.0.0.1:{self.plain_port};
    location / {{ return 404; }}
    location /api/ {{
      if ($allowed = 0) {{ return 417; }}
      {forward}
    }}
  }}
  server {{
    listen 127.0.0.1:{self.tls_port} ssl;
    ssl_protocols TLSv1.3;
    {self.curves}
    ssl_certificate {self.certificate};
    ssl_certificate_key {self.key};
    location / {{ return 404; }}
    location /api/ {{
      if ($http_pairingkey != "{PAIRING_KEY}") {{ return 417; }}
      {forward}
    }}
  }}
}}
""")

    def command(self):
        return [self.program, "-e", self.stderr, "-c", self.directory / "nginx.conf"]


class Haproxy(Server):
    name = "HAProxy"
    difference = "passes bodies on while they come; up to 64 connections to the destination"
    program = Path("/usr/sbin/haproxy")
    limit = ""
    curves = "curves P-256"

    def configure(self):
        self.stdout = self.log  # each line goes there in a write of its own
        pem = self.write("both.pem", self.certificate.read_text() + self.key.read_text())
        pem.chmod(0o600)
        endpoints = "\n".join(f"  acl allowed var(txn.request) -m str '{method} {uri}'"
                              for method, uri in PLAIN_ENDPOINTS)
        common = f"""  http-request return status 404 unless {{ path_beg /api/ }}
  http-request return status {self.too_long} if {{ req.body_size gt {LARGEST_BODY} }}
  default_backend destination"""
        self.write("haproxy.cfg", f"""
global
  nbthread 1
  maxconn 1000
  log stdout format raw local0
defaults
  mode http
  log global
  log-format "%t [%pid] INFO: %HM %HU"
  option http-no-delay
  timeout connect 61s
  timeout client 61s
  timeout server 61s
frontend plain
  bind 127.0.0.1:{self.plain_port}
  http-request set-var-fmt(txn.request) "%[method] %[url]"
{endpoints}
  http-request return status {self.refusal} if {{ path_beg /api/ }} !allowed
{common}
frontend secure
  bind 127.0.0.1:{self.tls_port} ssl crt {pem} ssl-min-ver TLSv1.3 {self.curves} alpn http/1.1
  http-request return status {self.refusal} if {{ path_beg /api/ }} !{{ req.fhdr(PairingKey) -m str {PAIRING_KEY} }}
{common}
backend destination
  http-reuse always
  server destination 127.0.0.1:{self.destination_port} {self.limit}
""")

    def command(self):
        return [self.program, "-db", "-f", self.directory / "haproxy.cfg"]


class HaproxyOneConnection(Haproxy):
    """Shows what it costs a fast server to promise what tavlo promises."""

    name = "HAProxy with one connection"
    difference = "HAProxy that sends one request at a time to the destination, as tavlo does"
    limit = "maxconn 1"


class NginxOwnCurves(Nginx):
    name = "nginx with its own curves"
    difference = "nginx that takes the curve that a client begins with, X25519 mostly"
    curves = ""


class HaproxyOwnCurves(Haproxy):
    name = "HAProxy with its own curves"
    difference = "HAProxy that takes the curve that a client begins with, X25519 mostly"
    curves = ""


class Lighttpd(Server):
    name = "lighttpd"
    difference = ("connects to the destination anew for each request (it cannot keep a connection); "
                  "gathers its log lines; refuses with 403")
    program = Path("/usr/sbin/lighttpd")
    refusal = 403

    def configure(self):
        (self.directory / "empty").mkdir()
        uris = {method: "|".join(uri for each, uri in PLAIN_ENDPOINTS if each == method)
                for method in ("GET", "PATCH")}
        forward = f"""proxy.server = ( "" => ( ( "host" => "127.0.0.1",
                                                 "port" => {self.destination_port} ) ) )"""
        self.write("lighttpd.conf", f"""
server.modules = ( "mod_access", "mod_proxy", "mod_accesslog", "mod_openssl" )
server.document-root = "{self.directory}/empty"
server.bind = "127.0.0.1"
server.port = {self.plain_port}
server.errorlog = "{self.directory}/error.log"
server.upload-dirs = ( "{self.directory}" )
server.max-keep-alive-requests = 65535
server.max-request-size = {LARGEST_BODY // 1024}
server.stream-response-body = 1
accesslog.filename = "{self.log}"
accesslog.format = "%{{%Y-%m-%d %H:%M:%S}}t INFO: %m %U%q"
$SERVER["socket"] == "127.0.0.1:{self.tls_port}" {{
  ssl.engine = "enable"
  ssl.pemfile = "{self.certificate}"
  ssl.privkey = "{self.key}"
  ssl.openssl.ssl-conf-cmd = ( "MinProtocol" => "TLSv1.3", "Curves" => "P-256" )
}}
$HTTP["url"] =~ "^/api/" {{
  {forward}
}}
$SERVER["socket"] == "127.0.0.1:{self.plain_port}" {{
  $HTTP["url"] =~ "^/api/" {{
    $HTTP["query-string"] =~ "." {{ url.access-deny = ( "" ) }}
    $HTTP["request-method"] == "GET" {{
      $HTTP["url"] !~ "^({uris["GET"]})$" {{ url.access-deny = ( "" ) }}
    }}
    else $HTTP["request-method"] == "PATCH" {{
      $HTTP["url"] !~ "^({uris["PATCH"]})$" {{ url.access-deny = ( "" ) }}
    }}
    else $HTTP["request-method"] =~ "" {{ url.access-deny = ( "" ) }}
  }}
}}
$SERVER["socket"] == "127.0.0.1:{self.tls_port}" {{
  $HTTP["url"] =~ "^/api/" {{
    $REQUEST_HEADER["PairingKey"] != "{PAIRING_KEY}" {{ url.access-deny = ( "" ) }}
  }}
}}
""")

    def command(self):
        return [self.program, "-D", "-f", self.directory / "lighttpd.conf"]


class Floor(Server):
    name = "floor"
    difference = "bench/floor.cc: libevent alone, without rules and log; one loop for both listeners"
    program = BUILD / "bench" / "floor"
    refusal = None

    def command(self):
        return [self.program, self.plain_port, self.tls_port, self.destination_port,
                self.certificate, self.key]


class Destination(Server):
    """What all of them forward to: fast enough to be no bound, as its own rows show."""

    name = "destination"
    difference = "what the others forward to, asked directly"
    program = Path("/usr/sbin/nginx")
    refusal = None

    def configure(self):
        self.write("large", "x" * 65536)
        self.write("nginx.conf", f"""
{nginx_start(self.directory)}
  access_log off;
  keepalive_timeout 1h;
  default_type text/plain;
  open_file_cache max=10;
  server {{
    listen 127.0.0.1:{self.plain_port};
    location / {{ return 200 "{'x' * 200}"; }}
    location = /api/2/router-info {{ alias {self.directory}/large; }}
  }}
}}
""")

    def command(self):
        return [self.program, "-e", self.stderr, "-c", self.directory / "nginx.conf"]


RIVALS = (Nginx, Haproxy, Lighttpd)
SIDE_BY_SIDE = (Tavlo, *RIVALS, Floor)
OWN_CURVES = (NginxOwnCurves, HaproxyOwnCurves)
# In a few rows only.
VARIANTS = (HaproxyOneConnection, *OWN_CURVES, TavloOneScript, TavloTenScripts)


def make_certificate(directory):
    directory.mkdir()
    subprocess.run(
        ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
         "-nodes", "-days", "30", "-subj", "/CN=bench", "-addext", "subjectAltName=IP:127.0.0.1",
         "-keyout", directory / "mirel.key", "-out", directory / "mirel.crt"],
        check=True, capture_output=True)


def status_of(server, tls, method, uri, key=None, body=0):
    """The status that curl gets, over TLS 1.3 and nothing older."""
    scheme, port = ("https", server.tls_port) if tls else ("http", server.plain_port)
    command = ["curl", "--silent", "--insecure", "--http1.1", "--noproxy", "*", "--tlsv1.3", "--max-time", "10",
               "--output", "/dev/null", "--write-out", "%{http_code}", "--request", method,
               f"{scheme}://127.0.0.1:{port}{uri}"]
    if key is not None:
        command += ["--header", f"PairingKey: {key}"]
    if body:
        # A server that refuses a body may do so before it has come, and hang up.
        command += ["--header", "Expect: 100-continue", "--data-binary", "@-"]
    result = subprocess.run(command, input=b"x" * body, capture_output=True, check=False)
    return int(result.stdout or 0)


def check_rules(server):
    """A server that does not do the whole job must not be compared."""
    key = PAIRING_KEY
    expected = [((False, method, uri), 200) for method, uri in PLAIN_ENDPOINTS]
    expected += [((True, "GET", "/api/1/profiles", key), 200),
                 ((True, "POST", "/api/1/profiles", key, LARGEST_BODY), 200)]
    if server.refusal:
        expected += [((False, "GET", "/api/1/profiles"), server.refusal),
                     ((False, "GET", "/api/1/router-ref"), server.refusal),
                     ((False, "PUT", "/api/version"), server.refusal),
                     ((False, "GET", "/api/version?x=1"), server.refusal),
                     ((True, "GET", "/api/1/profiles"), server.refusal),
                     ((True, "GET", "/api/1/profiles", key + "x"), server.refusal),
                     ((True, "POST", "/api/1/profiles", key, LARGEST_BODY + 1), server.too_long),
                     ((False, "GET", "/outside"), 404),
                     ((True, "GET", "/outside"), 404)]
    for request, status in expected:
        found = status_of(server, *request)
        if found != status:
            raise Failure(f"{server.name} answers {request} with {found} instead of {status}")
