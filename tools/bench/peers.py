"""The ways from a user to the box's services that are compared: each is up when its function returns.

`web` and `sink` are where a user reaches the two services this way, `box` the processes that run on
the box, `relay` those that run at the other end."""

import dataclasses
import os
import pwd
import re
import subprocess
import sys

from programs import Failure, free_port, listens, start, wait_for

SIZES = {"1k": 1000, "100k": 100_000, "4m": 4_000_000, "16m": 16_000_000, "256m": 256_000_000}
DEVICE_UP_LIMIT_S = 120
SOCAT_BUFFER = 65536


@dataclasses.dataclass
class Peer:
    name: str
    web: str
    sink: str
    box: list = dataclasses.field(default_factory=list)
    relay: list = dataclasses.field(default_factory=list)
    log: str = ""
    download: str = "256m"  # what is long enough to be measured this way
    upload: str = "256m"

    def file(self, size):
        return f"{self.web}/{size}"


class Services:
    """nginx with a file of each size, and a sink for uploads."""

    def __init__(self, work):
        self.web_port, self.sink_port = free_port(), free_port()
        self.files = f"{work}/www"
        os.makedirs(self.files)
        for name, size in SIZES.items():
            with open(f"{self.files}/{name}", "wb") as file:
                for at in range(0, size, 1_000_000):
                    file.write(os.urandom(min(size - at, 1_000_000)))
        with open(f"{work}/nginx.conf", "w") as file:
            file.write(NGINX_CONF.format(work=work, port=self.web_port))
        nginx = start(work, "nginx", find("nginx"), "-p", work, "-e", f"{work}/nginx.log", "-c",
                      f"{work}/nginx.conf")
        wait_for("nginx", lambda: listens(self.web_port), nginx)
        sink = start(work, "sink", sys.executable,
                     f"{os.path.dirname(__file__)}/sink.py", self.sink_port)
        wait_for("the sink", lambda: listens(self.sink_port), sink)


# What would differ from one way to another is taken out: a head leaves with its page, no request is
# the last one of its connection, and nothing is written for a request.
NGINX_CONF = """
daemon off;
master_process off;
pid {work}/nginx.pid;
error_log {work}/nginx.log;
events {{ worker_connections 4096; }}
http {{
    access_log off;
    client_body_temp_path {work}/nginx-body;
    proxy_temp_path {work}/nginx-proxy;
    fastcgi_temp_path {work}/nginx-fastcgi;
    uwsgi_temp_path {work}/nginx-uwsgi;
    scgi_temp_path {work}/nginx-scgi;
    default_type application/octet-stream;
    sendfile on;
    tcp_nopush on;
    keepalive_requests 1000000000;
    keepalive_timeout 3600;
    open_file_cache max=16;
    server {{ listen 127.0.0.1:{port} backlog=1024; root {work}/www; }}
}}
"""


def find(program):
    """Servers are not on everybody's path."""
    for folder in [*os.environ["PATH"].split(":"), "/usr/sbin", "/sbin"]:
        if os.access(f"{folder}/{program}", os.X_OK):
            return f"{folder}/{program}"
    raise Failure(f"{program} is not there")


def url(port):
    return f"http://127.0.0.1:{port}"


def direct(_, services):
    """Straight to the services."""
    return Peer("direct", url(services.web_port), url(services.sink_port))


def relays(work, services):
    """Two plain relays in a row."""
    peer = Peer("2 relays", "", "")
    for service in ("web", "sink"):
        to = getattr(services, f"{service}_port")
        for side in (peer.box, peer.relay):
            port = free_port()
            process = start(work, "socat", "socat", "-b", SOCAT_BUFFER,
                            f"TCP-LISTEN:{port},bind=127.0.0.1,fork,reuseaddr,nodelay,backlog=1024",
                            f"TCP:127.0.0.1:{to},nodelay")
            wait_for("socat", lambda at=port: listens(at), process)
            side.append(process)
            to = port
        setattr(peer, service, url(to))
    return peer


class SshServer:
    """One for both clients: dropbear's takes keys from a home directory only."""

    def __init__(self, work):
        self.work = work
        self.port = free_port()
        self.user = pwd.getpwuid(os.getuid()).pw_name
        for key in ("host", "ssh"):
            run("ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", f"{work}/{key}.key")
        run("dropbearkey", "-t", "ed25519", "-f", f"{work}/dropbear.key")
        public = run("dropbearkey", "-y", "-f", f"{work}/dropbear.key")
        with open(f"{work}/keys", "w") as file, open(f"{work}/ssh.key.pub") as ssh:
            file.write(ssh.read() + re.search(r"^ssh-.*", public, re.M)[0] + "\n")
        with open(f"{work}/sshd.conf", "w") as file:
            file.write(SSHD_CONF.format(work=work, port=self.port))
        if os.getuid() == 0:
            os.makedirs("/run/sshd", exist_ok=True)  # it insists on its folder
        self.process = start(work, "sshd", find("sshd"), "-D", "-e", "-f", f"{work}/sshd.conf")
        wait_for("sshd", lambda: listens(self.port), self.process)

    def client(self, name, services, *command):
        """`command` without the forwarded ports and the server."""
        ports = free_port(), free_port()
        forwards = [f"127.0.0.1:{port}:127.0.0.1:{to}"
                    for port, to in zip(ports, (services.web_port, services.sink_port))]
        process = start(self.work, name, *command, "-N", "-T",
                        *(word for forward in forwards for word in ("-R", forward)),
                        f"{self.user}@127.0.0.1")
        wait_for(name, lambda: all(map(listens, ports)), process)
        # The server's processes of this client, which has come just now.
        return Peer(name, *map(url, ports), [process], [self.process])


SSHD_CONF = """
Port {port}
ListenAddress 127.0.0.1
HostKey {work}/host.key
PidFile none
AuthorizedKeysFile {work}/keys
StrictModes no
PermitRootLogin yes
PasswordAuthentication no
KbdInteractiveAuthentication no
UsePAM no
AllowTcpForwarding yes
"""


def run(*command):
    done = subprocess.run(command, capture_output=True, text=True, stdin=subprocess.DEVNULL)
    if done.returncode != 0:
        raise Failure(f"{' '.join(command)}: {done.stderr}")
    return done.stdout


def ssh(server, services):
    return server.client("ssh", services, "ssh", "-F", "none", "-p", server.port, "-i",
                         f"{server.work}/ssh.key", "-c", "aes128-gcm@openssh.com",
                         *(word for option in ("ExitOnForwardFailure=yes", "BatchMode=yes",
                                               "StrictHostKeyChecking=no", "IdentitiesOnly=yes",
                                               "UserKnownHostsFile=/dev/null")
                           for word in ("-o", option)))


def dropbear(server, services):
    peer = server.client("dropbear", services, "dbclient", "-y", "-y", "-p", server.port, "-i",
                         f"{server.work}/dropbear.key")
    peer.download, peer.upload = "16m", "4m"  # 30 MB/s and 2 MB/s
    return peer


def gwad_start(work, command, device, manager_port, level, environment=None):
    """The daemon alone. Its log is in the folder of that name."""
    home = f"{work}/{device}"
    for folder in ("tmp", "etc"):
        os.makedirs(f"{home}/{folder}")
    with open(f"{home}/etc/firmware", "w") as file:
        file.write("CURVER=1.2.3\nCOMPONENT=bench\nTERMINAL=none\n")
    return start(work, device, *command, "-r", "localhost", "-p", manager_port, "-i", "lo",
                 "-I", device, "-H", home, "-l", f"{home}/log", "-V", level,
                 env=os.environ | {"RES_OPTIONS": "timeout:1 attempts:1"} | (environment or {}))


def gwad(work, services, programs, level, name):
    """gwad, at a level of its log, and a gwrelay of its own."""
    device = f"box{level}"
    ready = f"{work}/ready{level}"
    with open(ready, "w") as output:
        relay = start(work, "gwrelay", f"{programs}/gwrelay", "--quiet", "--config", "/dev/null",
                      *(word for port in ("manager", "control", "data", "front")
                        for word in (f"--{port}-port", 0)), stdout=output)
    wait_for("gwrelay", lambda: os.path.getsize(ready), relay)
    with open(ready) as line:
        port = dict(re.findall(r"(\w+)=(\d+)", line.read()))
    daemon = gwad_start(work, [f"{programs}/gwad"], device, port["manager"], level)
    front = url(port["front"])
    wait_for("the device", lambda: '"data_connections":5' in run("curl", "-s", f"{front}/status.json"),
             daemon, DEVICE_UP_LIMIT_S)
    return Peer(name, f"{front}/{device}/{services.web_port}",
                f"{front}/{device}/{services.sink_port}", [daemon], [relay],
                f"{work}/{device}/log")
