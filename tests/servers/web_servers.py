"""Web servers as Debian packages them, each with TLS before one and the same platform behind it."""

from __future__ import annotations

import http.client
import os
import shutil
import socket
import ssl
import subprocess
import time
from dataclasses import dataclass
from pathlib import Path

from simulator.messages.certificate import certificate

READY_SECONDS = 60.0

NGINX = """
daemon off;
pid {folder}/nginx.pid;
error_log {folder}/error.log;
user {user};
events {{ }}
http {{
    access_log off;
    client_body_temp_path {folder}/body;
    proxy_temp_path {folder}/proxy;
    fastcgi_temp_path {folder}/fastcgi;
    uwsgi_temp_path {folder}/uwsgi;
    scgi_temp_path {folder}/scgi;
    server {{
        listen 127.0.0.1:{port} ssl;
        ssl_certificate {pem};
        ssl_certificate_key {pem};
        ssl_protocols TLSv1.2;
        location / {{
            proxy_pass http://127.0.0.1:{behind};
            proxy_http_version 1.1;
        }}
    }}
}}
"""
APACHE = """
ServerRoot {folder}
ServerName localhost
PidFile {folder}/apache2.pid
ErrorLog {folder}/error.log
DefaultRuntimeDir {folder}
Listen 127.0.0.1:{port}
User {user}
Group {group}
LoadModule mpm_event_module /usr/lib/apache2/modules/mod_mpm_event.so
LoadModule authz_core_module /usr/lib/apache2/modules/mod_authz_core.so
LoadModule env_module /usr/lib/apache2/modules/mod_env.so
LoadModule ssl_module /usr/lib/apache2/modules/mod_ssl.so
LoadModule proxy_module /usr/lib/apache2/modules/mod_proxy.so
LoadModule proxy_http_module /usr/lib/apache2/modules/mod_proxy_http.so
SSLEngine on
SSLProtocol TLSv1.2
SSLCertificateFile {pem}
SSLSessionCache none
SetEnv proxy-interim-response RFC
ProxyPass / http://127.0.0.1:{behind}/
"""
HAPROXY = """
defaults
    mode http
    timeout connect 5s
    timeout client 30s
    timeout server 30s
frontend tls
    bind 127.0.0.1:{port} ssl crt {pem} force-tlsv12
    default_backend platform
backend platform
    server platform 127.0.0.1:{behind}
"""
LIGHTTPD = """
server.modules = ("mod_openssl", "mod_proxy")
server.document-root = "{folder}"
server.bind = "127.0.0.1"
server.port = {port}
server.errorlog = "{folder}/error.log"
server.stream-response-body = 1
ssl.engine = "enable"
ssl.pemfile = "{pem}"
ssl.openssl.ssl-conf-cmd = ("MinProtocol" => "TLSv1.2", "MaxProtocol" => "TLSv1.2")
proxy.server = ("" => (("host" => "127.0.0.1", "port" => {behind})))
"""
CADDY = """
{{
    admin off
    auto_https off
}}
https://:{port} {{
    bind 127.0.0.1
    tls {pem} {pem} {{
        protocols tls1.2 tls1.2
    }}
    reverse_proxy 127.0.0.1:{behind}
}}
"""
NODE = """
const fs = require('fs'), http = require('http'), https = require('https');
const pem = fs.readFileSync('{pem}');
https.createServer({{key: pem, cert: pem, minVersion: 'TLSv1.2', maxVersion: 'TLSv1.2'}}, (request, answer) => {{
    const {{url, method, headers}} = request;
    const behind = http.request({{port: {behind}, path: url, method, headers}});
    behind.on('information', () => answer.writeProcessing());
    behind.on('response', response => {{
        answer.writeHead(response.statusCode, response.headers);
        response.pipe(answer);
    }});
    request.pipe(behind);
}}).listen({port}, '127.0.0.1');
"""
TOMCAT_SERVER = """<?xml version="1.0"?>
<Server port="-1">
  <Service name="Catalina">
    <Connector port="{port}" address="127.0.0.1" SSLEnabled="true" scheme="https" secure="true">
      <SSLHostConfig protocols="TLSv1.2">
        <Certificate certificateFile="{pem}" certificateKeyFile="{pem}" type="EC"/>
      </SSLHostConfig>
    </Connector>
    <Engine name="Catalina" defaultHost="localhost">
      <Host name="localhost" appBase="webapps" unpackWARs="false" autoDeploy="false"/>
    </Engine>
  </Service>
</Server>
"""
TOMCAT_WEB = """<?xml version="1.0"?>
<web-app xmlns="https://jakarta.ee/xml/ns/jakartaee" version="5.0">
  <servlet><servlet-name>all</servlet-name><jsp-file>/all.jsp</jsp-file></servlet>
  <servlet-mapping><servlet-name>all</servlet-name><url-pattern>/*</url-pattern></servlet-mapping>
</web-app>
"""
TOMCAT_PAGE = """<%@ page trimDirectiveWhitespaces="true" import="java.net.*,java.io.*" %><%
HttpURLConnection behind = (HttpURLConnection)
    new URL("http://127.0.0.1:{behind}" + request.getRequestURI()).openConnection();
behind.setDoOutput(true);
behind.setRequestMethod(request.getMethod());
request.getInputStream().transferTo(behind.getOutputStream());
response.setStatus(behind.getResponseCode());
response.setContentType("application/json");
if (behind.getContentLengthLong() >= 0) response.setContentLengthLong(behind.getContentLengthLong());
behind.getInputStream().transferTo(response.getOutputStream());
%>"""


@dataclass(frozen=True)
class WebServer:
    """One kind of server.

    program   what must be installed
    files     templates of its files below its folder
    command   the command line; "{folder}" is where its files lie
    version   what prints its version, and which word of that it is
    interim   whether interim answers come from it
    """

    program: str
    files: dict[str, str]
    command: tuple[str, ...]
    version: tuple[str, ...]
    interim: bool


SERVERS = {
    "nginx": WebServer("nginx", {"nginx.conf": NGINX}, ("nginx", "-c", "{folder}/nginx.conf"), ("nginx", "-v"), False),
    "Apache": WebServer("apache2", {"apache2.conf": APACHE}, ("apache2", "-f", "{folder}/apache2.conf", "-DFOREGROUND"),
                        ("apache2", "-v"), True),
    # It hands interim answers on, but then holds back the last bytes of the answer now and then, from any client.
    "HAProxy": WebServer("haproxy", {"haproxy.cfg": HAPROXY}, ("haproxy", "-db", "-f", "{folder}/haproxy.cfg"),
                         ("haproxy", "-v"), False),
    "lighttpd": WebServer("lighttpd", {"lighttpd.conf": LIGHTTPD}, ("lighttpd", "-D", "-f", "{folder}/lighttpd.conf"),
                          ("lighttpd", "-v"), False),
    "Caddy": WebServer("caddy", {"Caddyfile": CADDY}, ("caddy", "run", "--config", "{folder}/Caddyfile"),
                       ("dpkg-query", "-Wf", "${Version}", "caddy"), True),
    "Node.js": WebServer("node", {"server.js": NODE}, ("node", "{folder}/server.js"), ("node", "--version"), True),
    "Tomcat": WebServer("tomcat10-instance-create", {
        "conf/server.xml": TOMCAT_SERVER, "webapps/ROOT/WEB-INF/web.xml": TOMCAT_WEB,
        "webapps/ROOT/all.jsp": TOMCAT_PAGE}, ("/usr/share/tomcat10/bin/catalina.sh", "run"),
        ("dpkg-query", "-Wf", "${Version}", "tomcat10-common"), False)}


class Running:
    """A server of one kind that runs, on a free port, before a platform on another one."""

    def __init__(self, kind: WebServer, folder: Path, behind: int) -> None:
        self.port = free_port()
        self._kind = kind
        self._folder = folder
        self._process: subprocess.Popen[bytes] | None = None
        user, group = ("www-data", "www-data") if os.geteuid() == 0 else (str(os.getuid()), str(os.getgid()))
        for name, template in kind.files.items():
            path = folder / name
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text(template.format(folder=folder, port=self.port, behind=behind, user=user, group=group,
                                            pem=certificate()))
        for name in ("logs", "temp", "work"):
            (folder / name).mkdir(exist_ok=True)
        folder.chmod(0o755)

    def start(self) -> None:
        """Starts it, and waits until it answers."""
        environment = {**os.environ, "CATALINA_BASE": str(self._folder), "CATALINA_HOME": "/usr/share/tomcat10",
                       "XDG_DATA_HOME": str(self._folder), "XDG_CONFIG_HOME": str(self._folder)}
        with (self._folder / "output").open("ab") as output:
            self._process = subprocess.Popen([word.format(folder=self._folder) for word in self._kind.command],
                                             env=environment, stdin=subprocess.DEVNULL, stdout=output, stderr=output)
        deadline = time.monotonic() + READY_SECONDS
        while not self._answers():
            assert self._process.poll() is None and time.monotonic() < deadline, self.output()
            time.sleep(0.05)  # pause: no event tells that a server answers

    def stop(self) -> None:
        if self._process is not None:
            self._process.terminate()
            self._process.wait(20)
            self._process = None

    def restart(self) -> None:
        self.stop()
        self.start()

    def output(self) -> str:
        """What it printed and logged, for a failure."""
        paths = (self._folder / "output", self._folder / "error.log")
        return "\n".join(path.read_text(errors="replace") for path in paths if path.exists())

    def first_status(self, path: str) -> int:
        """The status of the first answer to a page request, which may be an interim one."""
        body = b'{"startIndex":0,"offset":1}'
        with socket.create_connection(("127.0.0.1", self.port), 5) as bare, _client_context().wrap_socket(bare) as tls:
            tls.sendall(b"POST %s HTTP/1.1\r\nHost: localhost\r\nContent-Length: %d\r\n\r\n%s"
                        % (path.encode(), len(body), body))
            return int(tls.makefile("rb").readline().split()[1])

    def _answers(self) -> bool:
        connection = http.client.HTTPSConnection("127.0.0.1", self.port, timeout=5, context=_client_context())
        try:
            connection.request("POST", "/ready", b"{}")
            return connection.getresponse().status == 200
        except (OSError, http.client.HTTPException):
            return False
        finally:
            connection.close()


def _client_context() -> ssl.SSLContext:
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    context.check_hostname = False
    context.verify_mode = ssl.CERT_NONE
    return context


def free_port() -> int:
    with socket.socket() as one:
        one.bind(("127.0.0.1", 0))
        return int(one.getsockname()[1])


def version(kind: WebServer) -> str:
    """The upstream version, as numbers and dots."""
    assert shutil.which(kind.program) is not None, f"{kind.program} is missing; run scripts/bootstrap --servers"
    said = subprocess.run(kind.version, capture_output=True, text=True, check=True)
    words = (said.stdout + said.stderr).replace("/", " ").replace("-", " ").split()
    numbers = next(word.lstrip("v") for word in words if word.lstrip("v")[:1].isdigit())
    return ".".join(numbers.split(".")[:2])
