"""The servers, each on a free port of loopback with its files below the benchmark's folder."""
import os
import pwd
import shutil

from comparison.processes import Failure, free_port, last_line, run, start, stop, wait_for_port
from comparison.s3 import Bucket
from comparison.stores import FolderStore, S3rverStore

SERVER_USER = "www-data"  # Apache and vsftpd serve as this; the account is in every Debian


def program(name, package):
    found = shutil.which(name, path=os.environ.get("PATH", "") + ":/usr/sbin:/sbin")
    if not found:
        raise Failure(f"{name} is not installed (package {package})")
    return found


class Server:
    """Where clients find it: address, port, data_ports (those that it opens besides), user, password, path."""

    protocol = ""
    user, password, path = "bench", "bench-password", "/"

    def __init__(self, folder, data):
        self.folder, self.data = folder, data
        self.address, self.port, self.data_ports = "127.0.0.1", free_port(), ""
        self.process = None
        self.log = f"{folder}/{self.protocol}.log"
        self.password_file = f"{folder}/{self.protocol}.password"
        with open(self.password_file, "w") as f:
            os.chmod(self.password_file, 0o600)
            f.write(self.password + "\n")
        self.store = FolderStore(data)

    def write(self, name, text):
        path = f"{self.folder}/{name}"
        with open(path, "w") as f:
            f.write(text)
        return path

    def launch(self, command, env=None):
        self.process = start(command, self.log, env)
        wait_for_port(self.port, self.process, self.log)

    def stop(self):
        stop(self.process)

    def check_alive(self):
        if self.process is not None and self.process.poll() is not None:
            raise Failure(f"the server is gone: {last_line(self.log)}")


class Sshd(Server):
    protocol = "sftp"
    title = "OpenSSH"

    def start(self):
        self.user = pwd.getpwuid(os.geteuid()).pw_name
        self.path = self.data
        self.key, host_key = f"{self.folder}/id_ed25519", f"{self.folder}/host"
        for path in (host_key, self.key):
            run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", path])
        if os.geteuid() == 0:
            os.makedirs("/run/sshd", exist_ok=True)
        # bash takes itself for a login and reads the user's .bashrc, unless it believes to be inside another shell: the raw
        # wire is not to wait for that.
        config = self.write("sshd_config", f"""Port {self.port}
ListenAddress 127.0.0.1
HostKey {host_key}
PidFile none
AuthorizedKeysFile {self.key}.pub
StrictModes no
PermitRootLogin yes
UsePAM no
UseDNS no
MaxStartups 100:30:200
SetEnv SHLVL=1
Subsystem sftp internal-sftp
""")
        self.launch([program("sshd", "openssh-server"), "-D", "-f", config, "-e"])
        with open(host_key + ".pub") as f:
            kind, key = f.read().split()[:2]
        names = ",".join(f"[{address}]:{self.port}" for address in ("127.0.0.1", "127.0.0.2"))
        self.known_hosts = self.write("known_hosts", f"{names} {kind} {key}\n")

    def ssh_options(self):
        return ["-o", f"UserKnownHostsFile={self.known_hosts}", "-o", "StrictHostKeyChecking=yes",
                "-o", f"IdentityFile={self.key}", "-o", "IdentitiesOnly=yes"]


class Apache(Server):
    protocol = "webdav"
    title = "Apache mod_dav"
    path = "/dav/"

    def start(self):
        if os.geteuid() != 0:
            raise Failure("needs root, to serve files that all programs may change")
        server, home = program("apache2", "apache2"), f"{self.folder}/apache"
        os.makedirs(f"{home}/locks", exist_ok=True)
        os.chmod(f"{home}/locks", 0o777)
        run([program("htpasswd", "apache2-utils"), "-bcs", f"{home}/users", self.user, self.password])
        modules = "".join(f"LoadModule {name}_module /usr/lib/apache2/modules/mod_{name}.so\n" for name in (
            "mpm_event", "authn_core", "authn_file", "authz_core", "authz_user", "auth_basic", "alias", "dav", "dav_fs"))
        config = self.write("apache.conf", f"""ServerRoot {home}
ServerName localhost
PidFile {home}/pid
Listen 127.0.0.1:{self.port}
User {SERVER_USER}
Group {SERVER_USER}
ErrorLog /dev/stderr
Mutex file:{home}/locks default
{modules}KeepAlive On
MaxKeepAliveRequests 0
KeepAliveTimeout 60
LimitXMLRequestBody 0
DavLockDB {home}/locks/db
Alias /dav {self.data}
<Directory {self.data}>
Dav On
Options None
AllowOverride None
AuthType Basic
AuthName bench
AuthUserFile {home}/users
Require valid-user
</Directory>
""")
        self.launch([server, "-f", config, "-DFOREGROUND"])


class Vsftpd(Server):
    protocol = "ftp"
    title = "vsftpd"
    # Anonymous, with all rights: an account of its own would have to be made in the system.
    user, password = "anonymous", "bench@localhost"

    def start(self, data_address="127.0.0.1"):
        if os.geteuid() != 0:
            raise Failure("needs root, to serve files that all programs may change")
        empty = f"{self.folder}/ftp-empty"
        os.makedirs(empty, exist_ok=True)
        first = 20000 + os.getpid() % 200 * 60
        self.data_ports = f"{first}-{first + 59}"
        config = self.write("vsftpd.conf", f"""listen=YES
background=NO
listen_address=127.0.0.1
listen_port={self.port}
anonymous_enable=YES
local_enable=NO
no_anon_password=YES
ftp_username={SERVER_USER}
anon_root={self.data}
write_enable=YES
anon_upload_enable=YES
anon_mkdir_write_enable=YES
anon_other_write_enable=YES
anon_world_readable_only=NO
anon_umask=022
allow_writeable_chroot=YES
mdtm_write=YES
pasv_address={data_address}
pasv_min_port={first}
pasv_max_port={first + 59}
secure_chroot_dir={empty}
seccomp_sandbox=NO
xferlog_enable=NO
utf8_filesystem=YES
""")
        self.launch([program("vsftpd", "vsftpd"), config])


class S3rver(Server):
    protocol = "s3"
    title = "s3rver"
    user, password, bucket_name = "AKIABENCHBENCHBE", "secretsecretsecretsecret", "bench"
    path = "/bench"

    def start(self):
        cache = os.environ.get("XDG_CACHE_HOME") or os.path.expanduser("~/.cache")
        module = f"{cache}/ombra-test-servers/node_modules/@20minutes/s3rver"
        if not os.path.exists(module):
            raise Failure("s3rver is not installed (scripts/dependencies bench)")
        # It escapes names twice in its answers; once is enough. And it forgets the slash behind a bucket when it checks a
        # signature, which s3fs sends.
        script = self.write("s3rver.js", f"""const http = require('http'), emit = http.Server.prototype.emit;
http.Server.prototype.emit = function (name, request, ...rest) {{
  if (name === 'request' && /^\\/{self.bucket_name}\\/(\\?|$)/.test(request.url)) request.headers['x-slash'] = '1';
  return emit.call(this, name, request, ...rest);
}};
const v4 = require('{module}/lib/signature/v4'), toSign = v4.getStringToSign;
v4.getStringToSign = (request, rest) =>
  toSign(request.headers['x-slash'] ? {{ ...request, uri: '/{self.bucket_name}/' }} : request, rest);
require('{os.path.dirname(os.path.dirname(module))}/he').escape = text => text;
const S3rver = require('{module}'), accounts = require('{module}/lib/models/account');
accounts.DUMMY_ACCOUNT.createKeyPair('{self.user}', '{self.password}');
new S3rver({{ address: '127.0.0.1', port: {self.port}, directory: '{self.folder}/s3', silent: true, vhostBuckets: false,
  configureBuckets: [{{ name: '{self.bucket_name}' }}] }}).run().catch(e => {{ console.error(e); process.exit(1); }});
""")
        # Its pages of listings are told apart by a cipher that newer libraries have put aside.
        self.launch([program("node", "nodejs"), "--openssl-legacy-provider", script])
        self.store = S3rverStore(Bucket("127.0.0.1", self.port, self.user, self.password, self.bucket_name),
                                 f"{self.folder}/s3/{self.bucket_name}")
