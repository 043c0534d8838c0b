"""The peers, with their default options except for what they need to run at all; that is said beside the table."""
import os
import shutil
import subprocess
import tempfile
import time

from comparison.processes import Failure, detach, is_mounted, last_line, run
from comparison.programs import Peer, end


class Sshfs(Peer):
    name, package, protocols = "sshfs", "sshfs", ("sftp",)
    options_said = "-f, so that it can be watched"

    def command(self, server, host):
        return ["sshfs", "-f", f"{server.user}@{host}:{server.path}", self.mount_path, "-p", str(server.port),
                *server.ssh_options()]


class Rclone(Peer):
    name, package, protocols = "rclone", "rclone", ("sftp", "webdav", "s3", "ftp")
    options_said = "--vfs-cache-mode full, the mode that its manual calls the most compatible one; others cannot open a " \
                   "file for reading and writing, or do not keep what was read. It sends a file 5 s after it was closed."

    def command(self, server, host):
        return ["rclone", "mount", "--config", f"{self.folder}/rclone.conf", "--cache-dir", f"{self.folder}/cache",
                "--vfs-cache-mode", "full", f"bench:{self.remote(server)}", self.mount_path]

    def environment(self):
        # Settings for other programs that it takes for its own.
        return {name: value for name, value in super().environment().items()
                if not name.startswith(("RCLONE_", "AWS_"))}

    @staticmethod
    def remote(server):
        return {"sftp": server.path, "webdav": "", "s3": getattr(server, "bucket_name", ""), "ftp": "/"}[server.protocol]

    def prepare(self, server, host):
        hidden = run(["rclone", "obscure", server.password], 30).strip()
        lines = {
            "sftp": lambda: ["type = sftp", f"host = {host}", f"port = {server.port}", f"user = {server.user}",
                             f"key_file = {server.key}", f"known_hosts_file = {server.known_hosts}"],
            "webdav": lambda: ["type = webdav", f"url = http://{host}:{server.port}{server.path}", "vendor = other",
                               f"user = {server.user}", f"pass = {hidden}"],
            "s3": lambda: ["type = s3", "provider = Other", f"access_key_id = {server.user}",
                           f"secret_access_key = {server.password}", f"endpoint = http://{host}:{server.port}"],
            "ftp": lambda: ["type = ftp", f"host = {host}", f"port = {server.port}", f"user = {server.user}",
                            f"pass = {hidden}"],
        }[server.protocol]()
        path = f"{self.folder}/rclone.conf"
        with open(path, "w") as f:
            os.chmod(path, 0o600)
            f.write("\n".join(["[bench]", *lines]) + "\n")

    def unmount(self):
        super().unmount()
        # What it keeps from one mount to the next would make the next one warm.
        subprocess.run(["rm", "-rf", f"{self.folder}/cache"], check=False)

    def kill(self):
        super().kill()
        subprocess.run(["rm", "-rf", f"{self.folder}/cache"], check=False)


class S3fs(Peer):
    name, package, protocols = "s3fs", "s3fs", ("s3",)
    options_said = "-f, use_path_request_style (the server has no name in DNS), and temporary files where all others " \
                   "have theirs"

    def prepare(self, server, host):
        with open(self.secret(), "w") as f:
            os.chmod(self.secret(), 0o600)
            f.write(f"{server.user}:{server.password}\n")
        os.makedirs(f"{self.folder}/tmp", exist_ok=True)

    def secret(self):
        return f"{self.folder}/passwd"

    def command(self, server, host):
        return ["s3fs", server.bucket_name, self.mount_path, "-f", "-o", f"url=http://{host}:{server.port}",
                "-o", "use_path_request_style", "-o", f"passwd_file={self.secret()}", "-o", f"tmpdir={self.folder}/tmp"]


class Davfs2(Peer):
    name, package, protocols = "davfs2", "davfs2", ("webdav",)
    options_said = "its cache where all others have theirs, and buf_size 64: with the default one it can list no folder on kernels " \
                   "that ask for more than 16 KiB of names at once. It sends a file 10 s after it was closed."

    def missing(self):
        if not os.access("/sbin/mount.davfs", os.X_OK):
            return "not installed (package davfs2)"
        return None if os.geteuid() == 0 else "needs root"

    def prepare(self, server, host):
        os.makedirs(f"{self.folder}/cache", exist_ok=True)
        # It keeps its cache as an account of its own.
        for path, mode in ((self.folder, 0o755), (f"{self.folder}/cache", 0o775)):
            os.chmod(path, mode)
        shutil.chown(f"{self.folder}/cache", "root", "davfs2")
        secrets = f"{self.folder}/secrets"
        for path, text in ((secrets, f'"{self.url(server, host)}" {server.user} {server.password}\n'),
                           (self.settings(), f"secrets {secrets}\ncache_dir {self.folder}/cache\nask_auth 0\n"
                                  f"buf_size 64\n")):
            with open(path, "w") as f:
                os.chmod(path, 0o600)
                f.write(text)

    @staticmethod
    def url(server, host):
        return f"http://{host}:{server.port}{server.path}"

    def settings(self):
        return f"{self.folder}/davfs2.conf"

    def mount(self, server, host):
        """It goes to the background by itself, mounted when the command returns."""
        self.daemon = None
        self.mount_path = tempfile.mkdtemp(prefix="mnt-", dir=self.folder)
        run(["mount.davfs", self.url(server, host), self.mount_path, "-o", f"conf={self.settings()}"], self.timeout,
            self.environment())
        if not is_mounted(self.mount_path):
            raise Failure(f"does not mount: {last_line(self.log())}")
        return self.mount_path

    def pid_file(self):
        return f"/var/run/mount.davfs/{self.mount_path.strip('/').replace('/', '-')}.pid"

    def pid(self):
        """Written shortly after the command has returned."""
        deadline = time.monotonic() + 5
        while self.daemon is None:
            try:
                with open(self.pid_file()) as f:
                    self.daemon = int(f.read())
            except (OSError, ValueError):
                if time.monotonic() > deadline:
                    raise Failure("its process is gone") from None
                time.sleep(0.005)
        return self.daemon

    def unmount(self):
        pid = self.pid()
        run(["umount", self.mount_path], self.timeout)
        deadline = time.monotonic() + 30
        while os.path.exists(f"/proc/{pid}") and time.monotonic() < deadline:
            time.sleep(0.005)
        os.rmdir(self.mount_path)
        self.mount_path = None
        subprocess.run(["rm", "-rf", f"{self.folder}/cache"], check=False)

    def kill(self):
        if self.mount_path:
            try:
                end(self.pid())
            except Failure:
                pass
            detach(self.mount_path)
            # It leaves this behind when it is killed.
            if os.path.exists(self.pid_file()):
                os.remove(self.pid_file())
        self.mount_path = None
        subprocess.run(["rm", "-rf", f"{self.folder}/cache"], check=False)


PEERS = (Sshfs, Rclone, Davfs2, S3fs)
